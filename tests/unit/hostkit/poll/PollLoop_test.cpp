#include "poll_fixture.h"

using namespace micro850::host;
using State = Operation::State;
using wire::hex;

namespace {

const TagKey kSpeed = {1, "Speed"};

class PollLoopTest : public PollTest
{
};

} // namespace

TEST_F(PollLoopTest, ConnectsLearnsTheTypeAndReadsInACycle)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    EXPECT_EQ(text(0), "1234");
    EXPECT_EQ(station().state(), Station::State::Connected);
    EXPECT_EQ(plc.requests.at(0).service, 0x01);
    EXPECT_EQ(plc.requests.at(1).service, 0x54);
    EXPECT_EQ(plc.requests.at(2).service, 0x52);
    plc.tags["Speed"].elements[0] = hex("FF FF");
    EXPECT_TRUE(runUntil([&] { return text(0) == "-1"; }));
}

TEST_F(PollLoopTest, StoresTheValuesOfAReplyWhileTheNextRequestIsOnItsWay)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    // Each reply brings another value; noted is whether it is shown when the next request goes out.
    int replied = 0;
    micro850::Duration repliedAt{0};
    int shown = 0;
    int notYet = 0;
    plc.onReply = [&](const FakeController::Request& request, QByteArray& reply) {
        if (request.service != 0x52)
            return;
        reply = wire::readReply(request.tns, 0x00C3, wire::little(unsigned(++replied), 2));
        repliedAt = clock.now() + std::chrono::milliseconds(1);
    };
    loop->exchange().setObserver(
        [&](Exchange::Direction direction, const QByteArray&, micro850::Duration now) {
            if (direction == Exchange::Direction::Out && now == repliedAt)
                ++(text(0) == std::to_string(replied) ? shown : notYet);
        });
    ASSERT_TRUE(runUntil([&] { return replied == 100; }));
    EXPECT_EQ(shown, 0);
    EXPECT_GT(notYet, 50);
}

TEST_F(PollLoopTest, StoresTheValuesOfTheLastReplyBeforeItEnds)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.tags["Speed"].elements[0] = hex("FF FF");
    const int reads = plc.count(0x52);
    ASSERT_TRUE(runUntil([&] { return plc.count(0x52) == reads + 1; }));
    loop->finish();
    EXPECT_EQ(text(0), "-1");
}

TEST_F(PollLoopTest, StoresTheValuesOfTheLastReplyWhenTheDeviceIsGone)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.tags["Speed"].elements[0] = hex("FF FF");
    const int reads = plc.count(0x52);
    ASSERT_TRUE(runUntil([&] { return plc.count(0x52) == reads + 1; }));
    line.setPresent(false);
    ASSERT_TRUE(runUntil([&] { return !loop->lineIsUp(); }));
    EXPECT_EQ(text(0), "-1");
}

TEST_F(PollLoopTest, ReadsEveryElementOfAWideArray)
{
    plc.tags["Recipe"] = {0x00C4, QVector<QByteArray>(70)};
    plc.tags["Flow"] = {0x00CB, QVector<QByteArray>(3)};
    plc.tags["Bits"] = {0x00D3, QVector<QByteArray>(3)};
    for (int i = 0; i < 70; ++i)
        plc.tags["Recipe"].elements[i] = wire::little(static_cast<quint64>(i * 1000000), 4);
    for (int i = 0; i < 3; ++i) {
        plc.tags["Flow"].elements[i] =
            hex("00 00 00 00 00 00") + wire::little(0x4000u + 0x10u * unsigned(i), 2);
        plc.tags["Bits"].elements[i] = wire::little(0x89ABCD00u + unsigned(i), 4);
    }
    start(R"({"tag": "Recipe", "length": 70}, {"tag": "Flow", "length": 3},
             {"tag": "Bits", "element": 1, "length": 2})");
    ASSERT_TRUE(runUntilRead());
    const QStringList recipe = loop->values().texts(0);
    for (int i = 0; i < 70; ++i)
        EXPECT_EQ(recipe.at(i), QString::number(i * 1000000)) << i;
    EXPECT_EQ(text(1), "[2, 4, 8]");
    EXPECT_EQ(text(2), "[0x89ABCD01, 0x89ABCD02]");
}

TEST_F(PollLoopTest, NeverShowsElementZeroAsTheFirstElementAskedFor)
{
    // The driver's first read of a tag brings element 0, whatever the request says.
    start(R"({"tag": "Level", "element": 7})");
    bool wrong = false;
    ASSERT_TRUE(runUntil([&] {
        wrong = wrong || text(0) == "100";
        return loop->values().wasRead(0);
    }));
    EXPECT_FALSE(wrong);
    EXPECT_EQ(text(0), "107");
}

TEST_F(PollLoopTest, LearnsTheTypeOfATagThatTheDriverKnowsAlready)
{
    plc.tags["Recipe"] = {0x00C4, {hex("07 00 00 00")}};
    start(R"({"tag": "Recipe"})");
    ASSERT_TRUE(runUntilRead());
    loop.reset();
    plc.tags["Recipe"].elements[0] = hex("08 00 00 00");
    start(R"({"tag": "Recipe"})");
    ASSERT_TRUE(runUntilRead());
    EXPECT_EQ(text(0), "8");
}

TEST_F(PollLoopTest, ReadsAVariableOnceWhereTheProjectSaysSo)
{
    start(R"({"tag": "Level", "element": 3, "poll": "once"})");
    ASSERT_TRUE(runUntilRead());
    const int reads = plc.count(0x52);
    runFor(5000);
    EXPECT_EQ(plc.count(0x52), reads);
    EXPECT_EQ(loop->quality(0), Quality::Good);
}

TEST_F(PollLoopTest, ShowsAStringThatBecameShorterWithoutItsOldEnd)
{
    plc.tags["Name"] = {0x00DA, {hex("05 41 70 70 6C 65")}};
    start(R"({"tag": "Name"})");
    ASSERT_TRUE(runUntilRead());
    EXPECT_EQ(text(0), "Apple");
    plc.tags["Name"].elements[0] = hex("02 41 42");
    EXPECT_TRUE(runUntil([&] { return text(0) == "AB"; }));
}

TEST_F(PollLoopTest, ReadsTheLastByteOfAReplyWhoseCrcIsTwoDles)
{
    start(R"({"tag": "Speed"})");
    // The reply of each transaction number is given the value that makes such a CRC.
    int matched = 0;
    plc.onReply = [&](const FakeController::Request& request, QByteArray& reply) {
        for (unsigned value = 0x0100; request.service == 0x52 && value < 0x10000; ++value) {
            const QByteArray candidate =
                wire::readReply(request.tns, 0x00C3, wire::little(value, 2));
            if (!candidate.endsWith("\x10\x10"))
                continue;
            reply = candidate;
            plc.tags["Speed"].elements[0] = wire::little(value, 2);
            ++matched;
            return;
        }
    };
    ASSERT_TRUE(runUntil([&] {
        const bool before = matched > 5;
        return before;
    }));
    loop->finish();
    const QByteArray expected = plc.tags["Speed"].elements[0];
    EXPECT_EQ(text(0), std::to_string(static_cast<qint16>(static_cast<quint8>(expected[0]) |
                                                          static_cast<quint8>(expected[1]) << 8)));
}

TEST_F(PollLoopTest, SendsTheWholeFrameWhateverItsRecordedLength)
{
    // Transaction numbers around 0x0010 lengthen frames by doubling, also those that are patched.
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntil([&] { return plc.requests.size() > 300; }));
    EXPECT_EQ(station().counters().timedOut, 0);
    EXPECT_EQ(station().counters().answered, static_cast<qint64>(plc.requests.size()));
}

TEST_F(PollLoopTest, ReportsATagThatTheControllerDoesNotKnowAndDoesNotReadItInTheCycle)
{
    start(R"({"tag": "Nope"}, {"tag": "Speed"})");
    ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(1); }));
    EXPECT_EQ(error(0), "no such tag (names are as in the controller's program; status 05)");
    EXPECT_EQ(loop->quality(0), Quality::Never);
    const int asked = plc.count(0x52, "Nope");
    runFor(3000);
    EXPECT_EQ(plc.count(0x52, "Nope"), asked);
}

TEST_F(PollLoopTest, ReadsATagThatAppearsLaterByItsOwnType)
{
    start(R"({"tag": "Nope"})");
    ASSERT_TRUE(runUntil([&] { return !error(0).empty(); }));
    plc.tags["Nope"] = {0x00CA, {hex("00 00 AC 41")}};
    ASSERT_TRUE(runUntilRead());
    // The error reply did not become the tag's type.
    EXPECT_EQ(text(0), "21.5");
    EXPECT_EQ(error(0), "");
}

TEST_F(PollLoopTest, ReportsATypeThatDiffersFromTheProjectAndShowsNoValue)
{
    start(R"({"tag": "Speed", "type": "REAL"})");
    ASSERT_TRUE(runUntil([&] { return !error(0).empty(); }));
    EXPECT_EQ(error(0), "is INT in the controller, REAL in the project");
    EXPECT_EQ(text(0), "");
    const int asked = plc.count(0x52);
    runFor(30000);
    EXPECT_EQ(plc.count(0x52), asked);
}

TEST_F(PollLoopTest, ReadsTheGoodNeighboursOfAnElementBeyondTheTag)
{
    start(R"({"tag": "Level", "name": "good", "element": 9},
             {"tag": "Level", "name": "bad", "element": 10})");
    ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(0) && !error(1).empty(); }));
    EXPECT_EQ(text(0), "109");
    EXPECT_EQ(error(1), "access beyond the end of the tag (status FF/2105)");
    runFor(1000);
    EXPECT_EQ(loop->quality(0), Quality::Good);
    EXPECT_EQ(error(0), "");
}

// Replies for one variable bring elements of the other too; they say nothing of its last one.
TEST_F(PollLoopTest, KeepsTheErrorOfAVariableThatOverlapsAGoodOne)
{
    start(R"({"tag": "Level", "name": "good", "length": 10},
             {"tag": "Level", "name": "bad", "element": 5, "length": 6},
             {"tag": "Level", "name": "wrong", "type": "REAL"},
             {"tag": "Level", "name": "single", "element": 9})");
    ASSERT_TRUE(runUntil([&] { return !error(1).empty() && !error(2).empty(); }));
    ASSERT_TRUE(runUntil([&] { return text(3) == "109" && loop->values().wasRead(0); }));
    for (int i = 0; i < 250; ++i) { // some of it while the bad one is tried again
        runFor(100);
        ASSERT_EQ(error(1).empty(), false) << i;
        ASSERT_EQ(error(2), "is INT in the controller, REAL in the project") << i;
    }
    EXPECT_EQ(error(0) + error(3), "");
    EXPECT_EQ(loop->quality(0), Quality::Good);
    EXPECT_NE(loop->quality(1), Quality::Good);
}

TEST_F(PollLoopTest, ShowsAllCharactersOfATextWithAZeroByte)
{
    plc.tags["Text"] = {0x00DA, {hex("05 61 62 00 63 64")}};
    start(R"({"tag": "Text"})");
    ASSERT_TRUE(runUntilRead());
    EXPECT_EQ(loop->values().values(0).first().text(), std::string("ab\0cd", 5));
    EXPECT_EQ(loop->values().texts(0).first(), QString::fromLatin1("ab\0cd", 5));
    plc.tags["Text"].elements[0] = hex("03 00 00 7A");
    ASSERT_TRUE(runUntil([&] { return loop->values().texts(0).first().size() == 3; }));
    EXPECT_EQ(loop->values().texts(0).first(), QString::fromLatin1("\0\0z", 3));
}

TEST_F(PollLoopTest, ReportsATypeThatChangedInTheController)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.tags["Speed"] = {0x00CA, {hex("00 00 AC 41")}};
    ASSERT_TRUE(runUntil([&] { return !error(0).empty(); }));
    EXPECT_EQ(error(0), "type changed in the controller (start again to take it over)");
    EXPECT_EQ(text(0), "1234");
}

TEST_F(PollLoopTest, WritesATagThatWasNeverRead)
{
    plc.tags["Recipe"] = {0x00C4, QVector<QByteArray>(5, hex("00 00 00 00"))};
    start(R"({"tag": "Speed"})");
    const Operation done = finish(loop->write({1, "Recipe"}, 3, hex("10 20 30 40")));
    EXPECT_EQ(done.state, State::Done);
    EXPECT_EQ(wire::text(plc.tags["Recipe"].elements[3]), "10 20 30 40");
    EXPECT_EQ(wire::text(plc.tags["Recipe"].elements[0]), "00 00 00 00");
    EXPECT_EQ(plc.count(0x52, "Recipe"), 1);
    EXPECT_EQ(plc.count(0x53, "Recipe"), 1);
}

TEST_F(PollLoopTest, CarriesOutEveryWriteEvenWhereTheDriverWouldReplaceOneByTheNext)
{
    for (const char* tag : {"A", "B", "C", "D"})
        plc.tags[tag] = {0x00C3, {hex("00 00")}};
    start(R"({"tag": "Speed"})");
    QVector<int> ids;
    for (const char* tag : {"A", "B", "C", "D"})
        ids.append(loop->write({1, tag}, 0, hex("07 00")));
    for (const int id : ids)
        EXPECT_EQ(finish(id).state, State::Done);
    for (const char* tag : {"A", "B", "C", "D"})
        EXPECT_EQ(wire::text(plc.tags[tag].elements[0]), "07 00") << tag;
}

TEST_F(PollLoopTest, ReadsARunOfElementsOnce)
{
    start(R"({"tag": "Speed"})");
    const Operation done = finish(loop->read({1, "Level"}, 4, 3));
    EXPECT_EQ(done.state, State::Done);
    EXPECT_EQ(wire::text(done.result), "68 00 69 00 6A 00");
}

TEST_F(PollLoopTest, ReportsWhyAnOperationWasRefused)
{
    start(R"({"tag": "Speed"})");
    const Operation unknown = finish(loop->read({1, "Nope"}, 0, 1));
    EXPECT_EQ(unknown.state, State::Refused);
    EXPECT_EQ(unknown.error,
              QString("no such tag (names are as in the controller's program; status 05)"));
    const Operation beyond = finish(loop->write({1, "Level"}, 10, hex("01 00")));
    EXPECT_EQ(beyond.state, State::Refused);
}

TEST_F(PollLoopTest, FailsAnOperationOfAStationThatDoesNotAnswerOrIsDisabled)
{
    plc.silent = true;
    start(R"({"tag": "Speed"})", R"([{"number": 1}, {"number": 2, "enabled": false}])");
    const Operation silent = finish(loop->read(kSpeed, 0, 1));
    EXPECT_EQ(silent.state, State::Failed);
    EXPECT_EQ(silent.error, QString("no answer"));
    const Operation disabled = finish(loop->write({2, "Speed"}, 0, hex("01 00")));
    EXPECT_EQ(disabled.state, State::Failed);
    EXPECT_EQ(disabled.error, QString("station 2 is disabled"));
}

TEST_F(PollLoopTest, NeverCarriesOutAWriteAfterItWasReportedFailed)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    const Operation failed = finish(loop->write(kSpeed, 0, hex("01 00")));
    EXPECT_EQ(failed.state, State::Failed);
    const int writes = plc.count(0x53);
    plc.silent = false;
    ASSERT_TRUE(runUntil([&] { return loop->quality(0) == Quality::Good; }));
    runFor(1000);
    EXPECT_EQ(plc.count(0x53), writes);
}
