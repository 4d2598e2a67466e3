#include "Session.h"

#include "UserError.h"
#include "poll_fixture.h"

using namespace micro850::host;
using wire::hex;

namespace {

const TagKey kSpeed = {1, "Speed"};

class SessionTest : public PollTest
{
protected:
    SessionTest()
    {
        project.port.device = "/dev/test";
        project.port.timeoutMs = 200;
        project.stations.append(StationSettings());
    }
    // What the action complains about, with its exit status.
    template<typename Action> std::string complaint(Action action)
    {
        Session session(library.api(), line, clock, project);
        try {
            action(session);
        } catch (const micro850::UserError& error) {
            return std::to_string(error.status()) + ": " + error.what();
        }
        return "none";
    }
};

} // namespace

TEST_F(SessionTest, ReadsALongArrayInRuns)
{
    plc.tags["Zone"] = {0x00C3, QVector<QByteArray>(300)};
    for (int i = 0; i < 300; ++i)
        plc.tags["Zone"].elements[i] = wire::little(static_cast<quint64>(1000 + i), 2);
    Session session(library.api(), line, clock, project);
    const QVector<QByteArray> elements = session.read({1, "Zone"}, 10, 280);
    ASSERT_EQ(elements.size(), 280);
    for (int i = 0; i < 280; ++i)
        EXPECT_EQ(wire::text(elements.at(i)), wire::text(plc.tags["Zone"].elements[10 + i])) << i;
}

TEST_F(SessionTest, WritesAndReadsBack)
{
    Session session(library.api(), line, clock, project);
    EXPECT_STREQ(session.typeOf(kSpeed).name, "INT");
    session.write(kSpeed, 0, hex("07 00"));
    EXPECT_EQ(wire::text(session.read(kSpeed, 0, 1).first()), "07 00");
}

TEST_F(SessionTest, ReportsWhatTheControllerRefused)
{
    EXPECT_EQ(complaint([](Session& s) {
                  s.read({1, "Nope"}, 0, 1);
              }),
              "1: Nope: no such tag (names are as in the controller's program; status 05)");
    EXPECT_EQ(complaint([](Session& s) {
                  s.read({1, "Level"}, 10, 1);
              }),
              "1: Level[10]: access beyond the end of the tag (status FF/2105)");
}

// The element that a session refuses, -1 for the tag and -2 for none.
template<typename Action> int refusedElement(Action action)
{
    try {
        action();
    } catch (const TagRefused& refused) {
        return refused.element();
    }
    return -2;
}

TEST_F(SessionTest, NamesTheFirstElementOfARunThatIsNotThere)
{
    Session session(library.api(), line, clock, project);
    const TagKey level = {1, "Level"};
    for (int first = 0; first <= 12; ++first) {
        for (int count : {1, 2, 3, 7, 40}) {
            const int last = first + count - 1;
            const int expected = last < 10 ? -2 : std::max(first, 10);
            EXPECT_EQ(refusedElement([&] { session.read(level, first, count); }), expected)
                << first << ' ' << count;
            EXPECT_EQ(refusedElement([&] { session.requireElements(level, first, count); }),
                      expected)
                << first << ' ' << count;
        }
    }
    EXPECT_EQ(refusedElement([&] { session.read({1, "Nope"}, 3, 2); }), -1);
}

TEST_F(SessionTest, NamesTheTagWhenARunIsRefusedWhoseElementsCanBeRead)
{
    plc.onReply = [](const FakeController::Request& request, QByteArray& reply) {
        if (request.count > 1)
            reply = wire::errorReply(request.tns, request.service, 0x0F);
    };
    EXPECT_EQ(
        complaint([](Session& s) {
            s.read({1, "Level"}, 2, 3);
        }),
        "1: Level: privilege violation (the controller does not allow the access; status 0F)");
}

TEST_F(SessionTest, ReadsOnlyTheLastElementToKnowThatARunIsThere)
{
    Session session(library.api(), line, clock, project);
    session.typeOf({1, "Level"});
    const int before = plc.count(0x52);
    session.requireElements({1, "Level"}, 2, 8);
    EXPECT_EQ(plc.count(0x52), before + 1);
    session.requireElements({1, "Level"}, 0, 1);
    EXPECT_EQ(plc.count(0x52), before + 1);
}

TEST_F(SessionTest, ShowsATagWithAPercentSignAndADigitUnchanged)
{
    plc.tags["Fill%2"] = {0x00C3, {wire::hex("05 00")}};
    EXPECT_EQ(complaint([](Session& s) {
                  s.read({1, "Fill%2"}, 7, 1);
              }),
              "1: Fill%2[7]: access beyond the end of the tag (status FF/2105)");
}

TEST_F(SessionTest, ReportsAStationThatDoesNotAnswer)
{
    plc.silent = true;
    EXPECT_EQ(complaint([](Session& s) { s.read(kSpeed, 0, 1); }),
              "1: Speed: no answer (/dev/test, 38400 8N1; check cable and speed)");
}

TEST_F(SessionTest, ReportsADeviceThatIsGone)
{
    line.onSend = [this](const QByteArray&) { line.setPresent(false); };
    EXPECT_EQ(complaint([](Session& s) { s.read(kSpeed, 0, 1); }),
              "1: /dev/test, 38400 8N1: the device is gone");
}

TEST_F(SessionTest, ReportsARefusedConnectionWithoutARemedyWhereThereIsNone)
{
    plc.onReply = [](const FakeController::Request& request, QByteArray& reply) {
        if (request.service == 0x54) // to open a connection
            reply = wire::framed(hex("01 00 4B 00") + wire::little(request.tns, 2) +
                                 hex("00 00 D4 00 01 01 14 01"));
    };
    EXPECT_EQ(complaint([](Session& s) { s.read(kSpeed, 0, 1); }),
              "1: Speed: the controller refuses the connection: vendor or product code does not "
              "match, status 01/0114 (/dev/test, 38400 8N1)");
}

TEST_F(SessionTest, ReportsATypeThatCannotBeShown)
{
    plc.tags["Recipe"] = {0x02A0, {hex("01 02")}};
    EXPECT_EQ(complaint([](Session& s) {
                  s.read({1, "Recipe"}, 0, 1);
              }),
              "1: Recipe: type 02a0 is not an elementary type");
}

TEST_F(SessionTest, ReportsAReplyWithFewerElementsThanAskedFor)
{
    plc.onReply = [](const FakeController::Request& request, QByteArray& reply) {
        if (request.count == 3)
            reply = wire::readReply(request.tns, 0x00C3, hex("65 00 66 00"));
    };
    EXPECT_EQ(complaint([](Session& s) {
                  s.read({1, "Level"}, 1, 3);
              }),
              "1: Level[1]: the reply holds 2 of 3 elements");
}

TEST_F(SessionTest, ReportsAWriteThatTheControllerRefuses)
{
    EXPECT_EQ(complaint([](Session& s) {
                  s.write({1, "Level"}, 10, hex("07 00"));
              }),
              "1: Level[10]: no such tag (names are as in the controller's program; status 05)");
}

TEST_F(SessionTest, ReadsAndWritesElementZeroOfAString)
{
    plc.tags["Name"] = {0x00DA, {hex("01 41")}};
    Session session(library.api(), line, clock, project);
    EXPECT_EQ(wire::text(session.read({1, "Name"}, 0, 1).first()), "01 41");
    session.write({1, "Name"}, 0, hex("01 51"));
    EXPECT_EQ(wire::text(plc.tags["Name"].elements[0]), "01 51");
}

TEST_F(SessionTest, TellsHowManyElementsAreReadSoFar)
{
    plc.tags["Zone"] = {0x00C3, QVector<QByteArray>(300, hex("01 00"))};
    Session session(library.api(), line, clock, project);
    std::vector<int> told;
    session.read({1, "Zone"}, 0, 300, [&](int elements) { told.push_back(elements); });
    ASSERT_GE(told.size(), 2U);
    EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
    EXPECT_GT(told.front(), 0);
    EXPECT_LT(told.front(), 300);
    EXPECT_EQ(told.back(), 300);
}

// Only a write that certainly was not carried out may be repeated by who asked for it.
TEST_F(SessionTest, TellsAWriteThatWasNotSentFromOneWithoutAnAnswer)
{
    Session session(library.api(), line, clock, project);
    session.typeOf(kSpeed);
    plc.silent = true;
    try {
        session.write(kSpeed, 0, hex("07 00"));
        ADD_FAILURE() << "there was no answer";
    } catch (const NotWritten&) {
        ADD_FAILURE() << "it may have been carried out";
    } catch (const micro850::UserError& error) {
        EXPECT_NE(std::string(error.what()).find("no answer"), std::string::npos) << error.what();
    }
    // Now the station is not connected.
    EXPECT_THROW(session.write(kSpeed, 0, hex("08 00")), NotWritten);
    try {
        session.read(kSpeed, 0, 1);
        ADD_FAILURE() << "there was no answer";
    } catch (const NotWritten&) {
        ADD_FAILURE() << "it was no write";
    } catch (const micro850::UserError&) {
    }
}

TEST_F(SessionTest, RefusesAnImpossibleRequestBeforeAnythingIsSent)
{
    plc.tags["Name"] = {0x00DA, {hex("01 41")}};
    plc.tags["Bits"] = {0x00D2, {hex("34 12")}};
    EXPECT_EQ(complaint([](Session& s) {
                  s.read({1, "Name"}, 1, 1);
              }),
              "2: Name: of a string only element 0 can be read and written (leave the index out)");
    EXPECT_EQ(complaint([](Session& s) {
                  s.write({1, "Name"}, 2, hex("01 51"));
              }),
              "2: Name: of a string only element 0 can be read and written (leave the index out)");
    EXPECT_EQ(complaint([](Session& s) {
                  s.requireElements({1, "Name"}, 0, 2);
              }),
              "2: Name: of a string only element 0 can be read and written (leave the index out)");
    EXPECT_EQ(
        complaint([](Session& s) {
            s.write({1, "Bits"}, 0, hex("01 00"));
        }),
        "2: Bits: the driver cannot write the type WORD, which it moves byte by byte (write an "
        "INT that the controller's program copies into it)");
    EXPECT_EQ(plc.count(0x53), 0);
}

TEST_F(SessionTest, EndsAWriteThatIsNotAnsweredAfterAnInterruptWithoutRepeatingIt)
{
    const std::string ended = complaint([this](Session& s) {
        s.typeOf(kSpeed);
        plc.silent = true;
        s.setInterrupt([] { return true; });
        s.write(kSpeed, 0, wire::little(5, 2));
    });
    EXPECT_EQ(ended, "1: interrupted");
}

TEST_F(SessionTest, CompletesAWriteThatIsAnsweredAfterAnInterrupt)
{
    const std::string ended = complaint([](Session& s) {
        s.typeOf(kSpeed);
        s.setInterrupt([] { return true; });
        s.write(kSpeed, 0, wire::little(5, 2));
    });
    EXPECT_EQ(ended, "none");
    EXPECT_EQ(plc.count(0x53), 1);
}

TEST_F(SessionTest, EndsTheWaitForASilentControllerWhenItIsInterrupted)
{
    plc.silent = true;
    const std::string ended = complaint([this](Session& s) {
        s.setInterrupt([this] { return clock.now() >= std::chrono::milliseconds(100); });
        s.typeOf(kSpeed);
    });
    EXPECT_EQ(ended, "1: interrupted");
    EXPECT_LT(clock.now(), std::chrono::milliseconds(300)) << "more than one time-out of 200 ms";
}

namespace {

class SessionOnALoop : public PollTest
{
};

} // namespace

TEST_F(SessionOnALoop, LeavesTheLoopPollingWhenItEnds)
{
    start(R"({"name": "Speed", "tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    {
        Session session(*loop, project);
        EXPECT_EQ(wire::text(session.read({1, "Level"}, 3, 1).first()), "67 00");
        session.write(kSpeed, 0, hex("07 00"));
        session.finish();
    }
    EXPECT_TRUE(runUntil([&] { return text(0) == "7"; }));
}

TEST_F(SessionOnALoop, NeverCarriesOutAWriteLaterThatFailedWithTheLine)
{
    start(R"({"name": "Speed", "tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    Session session(*loop, project);
    session.typeOf({1, "Level"});
    line.setPresent(false);
    EXPECT_THROW(session.write({1, "Level"}, 3, hex("07 00")), micro850::UserError);
    EXPECT_THROW(session.write({1, "Level"}, 3, hex("07 00")), NotWritten); // the line is down
    line.setPresent(true);
    ASSERT_TRUE(runUntil([&] { return loop->lineIsUp(); }));
    runFor(5000);
    EXPECT_EQ(wire::text(plc.tags["Level"].elements[3]), "67 00");
    EXPECT_EQ(loop->quality(0), Quality::Good);
    session.write({1, "Level"}, 3, hex("08 00")); // another one is carried out
    EXPECT_EQ(wire::text(plc.tags["Level"].elements[3]), "08 00");
}

TEST_F(SessionOnALoop, TakesAWriteBackThatIsInterruptedWhileAnotherRequestIsOnTheLine)
{
    start(R"({"name": "Speed", "tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    Session session(*loop, project);
    session.typeOf({1, "Level"});
    session.setInterrupt([] { return true; });
    EXPECT_THROW(session.write({1, "Level"}, 3, hex("07 00")), NotWritten);
    runFor(5000);
    EXPECT_EQ(wire::text(plc.tags["Level"].elements[3]), "67 00");
    EXPECT_EQ(loop->quality(0), Quality::Good);
}

TEST_F(SessionOnALoop, TakesAWriteBackThatTheDriverHadWhenTheLineWentDown)
{
    start(R"({"name": "Speed", "tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    loop->step(); // the driver will repeat this read first
    const int id = loop->write(kSpeed, 0, hex("07 00"));
    loop->step();
    line.setPresent(false);
    ASSERT_TRUE(runUntil([&] { return !loop->lineIsUp(); }));
    ASSERT_FALSE(loop->outcome(id));
    EXPECT_TRUE(loop->abandon(id));
    plc.silent = false;
    line.setPresent(true);
    ASSERT_TRUE(runUntil([&] { return loop->lineIsUp(); }));
    runFor(5000);
    EXPECT_EQ(wire::text(plc.tags["Speed"].elements[0]), "D2 04");
    EXPECT_EQ(loop->quality(0), Quality::Good);
}
