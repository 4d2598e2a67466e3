// Variables that are read at intervals.

#include "poll_fixture.h"

#include <QtCore/QRegularExpression>

#include <algorithm>

using namespace micro850::host;
using micro850::Duration;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

const quint8 kReadService = 0x52;

class PollLoopIntervals : public PollTest
{
protected:
    struct Read
    {
        Duration at;
        QByteArray tag;
        quint32 element;
        quint16 count;
    };

    PollLoopIntervals()
    {
        plc.onReply = [this](const FakeController::Request& request, QByteArray&) {
            if (request.service == kReadService)
                reads.push_back({clock.now(), request.tag, request.element, request.count});
        };
    }
    void begin(const char* variables)
    {
        start(variables);
        ASSERT_TRUE(runUntilRead());
        runFor(100);
        reads.clear();
    }
    std::vector<Read> readsOf(const char* tag, quint32 element = 0) const
    {
        std::vector<Read> found;
        for (const Read& read : reads) {
            if (read.tag == tag && read.element <= element && element < read.element + read.count)
                found.push_back(read);
        }
        return found;
    }
    static double number(const std::vector<Read>& reads)
    {
        return static_cast<double>(reads.size());
    }
    Duration longestGap(const char* tag) const
    {
        Duration longest{0};
        const std::vector<Read> found = readsOf(tag);
        for (std::size_t i = 1; i < found.size(); ++i)
            longest = std::max(longest, found[i].at - found[i - 1].at);
        return found.size() < 2 ? Duration::max() : longest;
    }

    std::vector<Read> reads;
};

} // namespace

TEST_F(PollLoopIntervals, ReadsEachVariableAtItsOwn)
{
    begin(R"({"tag": "Speed", "intervalMs": 100}, {"tag": "Level", "intervalMs": 1000})");
    runFor(10000);
    EXPECT_NEAR(number(readsOf("Speed")), 100, 8); // a little early, for the other one
    EXPECT_NEAR(number(readsOf("Level")), 10, 1);
    EXPECT_LE(longestGap("Speed"), milliseconds(105));
    EXPECT_LE(longestGap("Level"), milliseconds(1005));
}

TEST_F(PollLoopIntervals, ShowsAChangeWithinTheIntervalAndATransaction)
{
    begin(R"({"tag": "Speed", "intervalMs": 300}, {"tag": "Level", "intervalMs": 70},
             {"name": "Level 5", "tag": "Level", "element": 5, "intervalMs": 110})");
    for (int i = 1; i <= 40; ++i) {
        runFor(37 * i % 400);
        plc.tags["Speed"].elements[0] = wire::little(static_cast<quint64>(i), 2);
        const Duration changed = clock.now();
        ASSERT_TRUE(runUntil([&] { return text(0) == std::to_string(i); }, 400));
        // The value is stored when the next request is under way or the line is idle.
        EXPECT_LE(clock.now() - changed, milliseconds(300 + 5));
    }
}

TEST_F(PollLoopIntervals, ReadsNeighboursThatAreDueTogetherInOneRequest)
{
    begin(R"({"name": "a", "tag": "Level", "element": 2, "intervalMs": 500},
             {"name": "b", "tag": "Level", "element": 3, "intervalMs": 500},
             {"name": "c", "tag": "Level", "element": 4, "intervalMs": 500})");
    runFor(5000);
    EXPECT_NEAR(number(reads), 10, 1);
    for (const Read& read : reads)
        EXPECT_EQ(read.count, 3);
    EXPECT_EQ(text(0), "102");
    EXPECT_EQ(text(2), "104");
}

TEST_F(PollLoopIntervals, ReadsNeighboursAloneWhenOneReachesBeyondTheTag)
{
    start(R"({"name": "last", "tag": "Level", "element": 9, "intervalMs": 200},
             {"name": "beyond", "tag": "Level", "element": 10, "intervalMs": 200})");
    ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(0) && !error(1).empty(); }));
    EXPECT_EQ(text(0), "109");
    EXPECT_EQ(error(0), "");
    reads.clear();
    runFor(2000);
    EXPECT_NEAR(number(readsOf("Level", 9)), 10, 1);
    EXPECT_EQ(loop->quality(0), Quality::Good);
}

TEST_F(PollLoopIntervals, ReadsTheOthersAsOftenAsTheLineAllows)
{
    begin(R"({"tag": "Speed", "intervalMs": 0}, {"tag": "Level", "intervalMs": 100})");
    runFor(2000);
    EXPECT_NEAR(number(readsOf("Level")), 20, 2);
    EXPECT_GT(readsOf("Speed").size(), 500u);
}

TEST_F(PollLoopIntervals, LeavesSomeOfTheLineToTheOthersWhenItIsAskedForTooMuch)
{
    begin(R"({"tag": "Speed", "intervalMs": 0}, {"tag": "Level", "intervalMs": 1})");
    runFor(2000);
    EXPECT_GT(readsOf("Speed").size(), reads.size() / 8);
    EXPECT_GT(readsOf("Level").size(), reads.size() / 3);
}

TEST_F(PollLoopIntervals, WritesAtOnceWhileNothingIsDue)
{
    begin(R"({"tag": "Speed", "intervalMs": 60000})");
    loop->step();
    const Duration asked = clock.now();
    const int id = loop->write({1, "Speed"}, 0, wire::hex("07 00"));
    EXPECT_EQ(finish(id).state, Operation::State::Done);
    EXPECT_LE(clock.now() - asked, milliseconds(10));
}

TEST_F(PollLoopIntervals, GivesOthersTheirTurnBetweenReadsThatAreAskedForWithoutEnd)
{
    begin(R"({"tag": "Speed", "intervalMs": 50})");
    const Duration end = clock.now() + seconds(5);
    while (clock.now() < end)
        EXPECT_EQ(finish(loop->read({1, "Level"}, 0, 1)).state, Operation::State::Done);
    EXPECT_LE(longestGap("Speed"), milliseconds(55));
}

TEST_F(PollLoopIntervals, DoesNotStormAfterLostReplies)
{
    begin(R"({"tag": "Speed", "intervalMs": 100}, {"tag": "Level", "intervalMs": 200})");
    plc.silent = true;
    runFor(5000);
    plc.silent = false;
    reads.clear();
    runFor(10000);
    EXPECT_EQ(loop->quality(0), Quality::Good);
    EXPECT_EQ(loop->quality(1), Quality::Good);
    EXPECT_LE(readsOf("Speed").size(), 110u); // and not those of five seconds more
    EXPECT_LE(readsOf("Level").size(), 60u);
    EXPECT_GE(readsOf("Speed").size(), 60u);
}

TEST_F(PollLoopIntervals, ReadsEverythingAtOnceAfterTheLineCameBack)
{
    begin(R"({"tag": "Speed", "intervalMs": 60000}, {"tag": "Level", "intervalMs": 60000})");
    line.setPresent(false);
    runFor(11000); // the loop notices with its next request
    EXPECT_EQ(loop->quality(0), Quality::Stale);
    line.setPresent(true);
    ASSERT_TRUE(runUntil([&] { return loop->lineIsUp(); }));
    runFor(300);
    EXPECT_EQ(loop->quality(0), Quality::Good);
    EXPECT_EQ(loop->quality(1), Quality::Good);
}

TEST_F(PollLoopIntervals, ReadsEverythingAtOnceAfterTheControllerRestarted)
{
    begin(R"({"tag": "Speed", "intervalMs": 100}, {"tag": "Level", "intervalMs": 60000})");
    plc.forgetConnections();
    plc.tags["Level"].elements[0] = wire::little(7, 2);
    runFor(1500);
    EXPECT_EQ(text(1), "7");
    EXPECT_EQ(loop->quality(1), Quality::Good);
}

// The controller closes a connection that is not used for 32 seconds.
TEST_F(PollLoopIntervals, UsesTheConnectionBeforeTheControllerClosesIt)
{
    begin(R"({"tag": "Speed", "intervalMs": 3600000}, {"tag": "Level", "intervalMs": 3600000})");
    runFor(120000);
    ASSERT_GE(reads.size(), 5u);
    for (std::size_t i = 1; i < reads.size(); ++i)
        EXPECT_LE(reads[i].at - reads[i - 1].at, seconds(16));
    EXPECT_LE(reads.size(), 14u);
}

TEST_F(PollLoopIntervals, HasNoStaleValueBetweenTwoReads)
{
    begin(R"({"tag": "Speed", "intervalMs": 4000})"); // stale after 2 s, and two intervals
    const Duration end = clock.now() + seconds(60);
    while (clock.now() < end) {
        loop->step();
        ASSERT_EQ(loop->quality(0), Quality::Good) << clock.now().count();
    }
    plc.silent = true;
    runFor(7900);
    EXPECT_EQ(loop->values().quality(0, *loop->values().refreshedAt(0) + seconds(8), Duration(0)),
              Quality::Good);
    EXPECT_EQ(
        loop->values().quality(0, *loop->values().refreshedAt(0) + milliseconds(8001), Duration(0)),
        Quality::Stale);
}

TEST_F(PollLoopIntervals, SaysWithFiguresWhatTheLineCannotHoldAndWhenItHoldsItAgain)
{
    line.delay = milliseconds(28); // 30 ms for a read
    begin(R"({"tag": "Speed", "intervalMs": 40}, {"tag": "Level", "intervalMs": 50})");
    runFor(20000);
    const QString said = loop->figures().overload;
    const QRegularExpression form(QStringLiteral(
        "^the line is (\\d+) % asked for: Speed is read every ([0-9.]+) s instead of 0.04 s$"));
    const QRegularExpressionMatch match = form.match(said);
    ASSERT_TRUE(match.hasMatch()) << qPrintable(said);
    const double percent = match.captured(1).toDouble();
    EXPECT_NEAR(match.captured(2).toDouble(), 0.04 * percent / 100, 0.002);
    const double measured = 20.0 / static_cast<double>(readsOf("Speed").size());
    EXPECT_NEAR(match.captured(2).toDouble(), measured, 0.15 * measured);
    runFor(20000);
    EXPECT_EQ(loop->figures().overload, said); // once
    line.delay = milliseconds(0);
    runFor(20000);
    EXPECT_EQ(loop->figures().overload, QString());
    EXPECT_LT(loop->figures().percentAsked, 60);
}

TEST_F(PollLoopIntervals, PublishesAValueBeforeTheNextReplyComes)
{
    start(R"({"tag": "Speed", "intervalMs": 100}, {"tag": "Level", "intervalMs": 100})");
    std::vector<Duration> delays; // from the reply to the call
    loop->setPublish([&] {
        if (loop->values().popChanged().contains(0))
            delays.push_back(clock.now() - *loop->values().refreshedAt(0));
    });
    ASSERT_TRUE(runUntilRead());
    delays.clear();
    for (int i = 1; i <= 20; ++i) {
        plc.tags["Speed"].elements[0] = wire::little(static_cast<quint64>(i), 2);
        runFor(107);
    }
    EXPECT_GE(delays.size(), 19u);
    EXPECT_LT(*std::max_element(delays.begin(), delays.end()), milliseconds(1));
}

TEST_F(PollLoopIntervals, WaitsWithTheFunctionOfItsCallerUntilSomethingIsDue)
{
    begin(R"({"tag": "Speed", "intervalMs": 250})");
    std::vector<Duration> waits;
    loop->setWait([&](Duration wait) {
        waits.push_back(wait);
        clock.advance(wait);
    });
    runFor(10000);
    EXPECT_NEAR(number(readsOf("Speed")), 40, 2);
    ASSERT_FALSE(waits.empty());
    EXPECT_LE(*std::max_element(waits.begin(), waits.end()), milliseconds(100));
    EXPECT_GT(*std::min_element(waits.begin(), waits.end()), Duration(0));
    EXPECT_LE(longestGap("Speed"), milliseconds(255));
    EXPECT_LT(waits.size(), 200u); // it sleeps, and does not look
}
