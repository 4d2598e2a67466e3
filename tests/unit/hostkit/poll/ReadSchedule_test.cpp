#include "ReadSchedule.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <functional>

using micro850::Duration;
using namespace micro850::host;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

TimedRun run(const char* tag, int intervalMs, int element = 0, int station = 1)
{
    static int variable = 0;
    TimedRun run;
    run.tag = {station, tag};
    run.element = element;
    run.elementSize = 4;
    run.mergeable = true;
    run.interval = milliseconds(intervalMs);
    run.variable = run.first = variable++;
    return run;
}

/// A schedule and a line on which each read takes its time.
class Line
{
public:
    struct Read
    {
        TimedRun run;
        Duration begun;
        Duration ended;
    };

    explicit Line(const QVector<TimedRun>& runs) { schedule.plan(runs, now); }

    std::function<Duration(const TimedRun&)> costOf = [](const TimedRun&) {
        return Duration(milliseconds(10));
    };

    void runUntil(Duration end)
    {
        while (now < end) {
            const std::optional<TimedRun> run = schedule.next(now);
            if (!run) {
                ASSERT_GT(schedule.wakeAt(), now);
                now = std::min(schedule.wakeAt(), end);
                continue;
            }
            const Duration cost = costOf(*run);
            reads.append({*run, now, now + cost});
            now += cost;
            schedule.noteAnswer(now, cost);
        }
    }
    QVector<Read> readsOf(const TimedRun& run) const
    {
        QVector<Read> found;
        for (const Read& read : reads) {
            if (read.run.tag == run.tag && read.run.element <= run.element &&
                read.run.end() >= run.end())
                found.append(read);
        }
        return found;
    }
    /// The longest time from the end of a read of the run to the end of the next one.
    Duration longestGap(const TimedRun& run, Duration from = Duration(0)) const
    {
        Duration longest{0};
        const QVector<Read> found = readsOf(run);
        for (int i = 1; i < found.size(); ++i) {
            if (found.at(i - 1).begun >= from)
                longest = std::max(longest, found.at(i).ended - found.at(i - 1).ended);
        }
        return found.size() < 2 ? Duration::max() : longest;
    }
    /// Mean time between two reads.
    double meanGapMs(const TimedRun& run) const
    {
        const QVector<Read> found = readsOf(run);
        const double all = static_cast<double>((found.last().begun - found.first().begun).count());
        return all / 1000 / (found.size() - 1);
    }

    ReadSchedule schedule;
    Duration now{0};
    QVector<Read> reads;
};

} // namespace

TEST(ReadSchedule, ReadsALoneRunExactlyAtItsInterval)
{
    Line line({run("A", 500)});
    line.runUntil(seconds(10));
    ASSERT_EQ(line.reads.size(), 20);
    for (int i = 0; i < line.reads.size(); ++i)
        EXPECT_EQ(line.reads.at(i).begun, i * milliseconds(500));
}

TEST(ReadSchedule, HasNothingToReadUntilSomethingIsDue)
{
    Line line({run("A", 500)});
    ASSERT_TRUE(line.schedule.next(Duration(0)));
    EXPECT_FALSE(line.schedule.next(milliseconds(499)));
    EXPECT_EQ(line.schedule.wakeAt(), milliseconds(500));
    EXPECT_TRUE(line.schedule.next(milliseconds(500)));
}

TEST(ReadSchedule, NeedsNotBeAskedAgainWhileAllStationsAreLeftOut)
{
    ReadSchedule schedule;
    schedule.plan({run("A", 500)}, Duration(0));
    schedule.park(1);
    EXPECT_FALSE(schedule.next(seconds(1)));
    EXPECT_EQ(schedule.wakeAt(), Duration::max());
    schedule.restart(1, seconds(2));
    EXPECT_TRUE(schedule.next(seconds(2)));
}

TEST(ReadSchedule, ReadsWhatIsDueFirstFirst)
{
    Line line({run("Slow", 10000), run("Fast", 100), run("Middle", 1000)});
    line.runUntil(milliseconds(25));
    ASSERT_EQ(line.reads.size(), 3);
    EXPECT_EQ(line.reads.at(0).run.tag.name, "Fast");
    EXPECT_EQ(line.reads.at(1).run.tag.name, "Middle");
    EXPECT_EQ(line.reads.at(2).run.tag.name, "Slow");
}

TEST(ReadSchedule, DoesNotLetManySlowRunsDelayAFastOne)
{
    const TimedRun fast = run("Fast", 50);
    QVector<TimedRun> runs;
    for (int i = 0; i < 300; ++i)
        runs.append(run(qPrintable(QStringLiteral("Slow%1").arg(i)), 10000));
    runs.append(fast);
    Line line(runs); // at the beginning all are due at once: 3 s of the line
    line.runUntil(seconds(60));
    EXPECT_LE(line.longestGap(fast), milliseconds(60));
    for (int i = 0; i < 300; ++i)
        EXPECT_LE(line.longestGap(runs.at(i)), milliseconds(10010)) << i;
}

TEST(ReadSchedule, ReadsEarlyWhatBecomesDueAtTheSameTime)
{
    // 10 reads of 10 ms at 200 ms, of which all are due together after 10 reads that wait 200 ms.
    QVector<TimedRun> runs;
    for (int i = 0; i < 10; ++i)
        runs.append(run(qPrintable(QStringLiteral("T%1").arg(i)), 200));
    Line line(runs);
    line.costOf = [&line](const TimedRun&) {
        return Duration(line.now == Duration(0) ? milliseconds(95) : milliseconds(10));
    };
    line.runUntil(seconds(5));
    for (const TimedRun& each : runs)
        EXPECT_LE(line.longestGap(each, milliseconds(200)), milliseconds(210));
}

TEST(ReadSchedule, ReadsNeighboursOfOneIntervalTogether)
{
    const TimedRun first = run("A", 500, 3);
    const TimedRun second = run("A", 500, 4);
    const TimedRun apart = run("A", 500, 6);
    TimedRun alone = run("A", 500, 5);
    alone.mergeable = false;
    Line line({second, apart, first, alone});
    line.runUntil(milliseconds(400));
    ASSERT_EQ(line.reads.size(), 3);
    EXPECT_EQ(line.reads.at(0).run.element, 3);
    EXPECT_EQ(line.reads.at(0).run.elements, 2);
    EXPECT_LT(line.reads.at(0).run.variable, 0);
    EXPECT_EQ(line.reads.at(1).run.elements, 1);
    EXPECT_EQ(line.reads.at(2).run.elements, 1);
}

TEST(ReadSchedule, ReadsNeighboursTogetherUpToTheLengthOfAReply)
{
    QVector<TimedRun> runs;
    for (int i = 0; i < 100; ++i) // of 4 bytes: 62 fit into 250 bytes
        runs.append(run("A", 500, i));
    Line line(runs);
    line.runUntil(milliseconds(400));
    ASSERT_EQ(line.reads.size(), 2);
    EXPECT_EQ(line.reads.at(0).run.elements, 62);
    EXPECT_EQ(line.reads.at(1).run.elements, 38);
}

TEST(ReadSchedule, ReadsANeighbourOfAnotherIntervalTooWhenItIsAboutDue)
{
    const TimedRun fast = run("A", 100, 0);
    const TimedRun slow = run("A", 1000, 1);
    Line line({fast, slow});
    line.runUntil(seconds(10));
    for (const Line::Read& read : line.readsOf(slow))
        EXPECT_EQ(read.run.elements, 2);
    EXPECT_LE(line.longestGap(slow), milliseconds(1010));
    EXPECT_GE(line.meanGapMs(slow), 850);
    EXPECT_EQ(line.reads.size(), line.readsOf(fast).size());
}

TEST(ReadSchedule, ReadsTheNeighbourBeforeItTooWhenThatIsAboutDue)
{
    const TimedRun slow = run("A", 1000, 0);
    const TimedRun fast = run("A", 100, 1);
    Line line({slow, fast});
    line.runUntil(seconds(10));
    for (const Line::Read& read : line.readsOf(slow)) {
        EXPECT_EQ(read.run.element, 0);
        EXPECT_EQ(read.run.elements, 2);
    }
    EXPECT_GE(line.meanGapMs(slow), 850);
    EXPECT_EQ(line.reads.size(), line.readsOf(fast).size());
}

// Each of them would have to be compared with each other one; only near ones are.
TEST(ReadSchedule, ReadsNeighboursTogetherHoweverManyOthersLieBetweenThem)
{
    for (const int between : {7, 8, 30}) {
        QVector<TimedRun> runs = {run("A", 500, 0)};
        for (int i = 0; i < between; ++i) {
            runs.append(run("A", 600 + i, 0));
            runs.last().mergeable = false;
        }
        const TimedRun last = run("A", 500, 1);
        runs.append(last);
        Line line(runs);
        line.runUntil(seconds(10));
        for (const Line::Read& read : line.readsOf(last))
            EXPECT_EQ(read.run.elements, 2) << between;
    }
}

TEST(ReadSchedule, KeepsTheTimesOfRunsThatStayWhenItIsPlannedAgain)
{
    const TimedRun stays = run("A", 1000);
    Line line({stays});
    line.runUntil(milliseconds(300));
    const TimedRun comes = run("B", 1000);
    line.schedule.plan({stays, comes}, line.now);
    line.runUntil(milliseconds(900));
    EXPECT_EQ(line.readsOf(stays).size(), 1);
    ASSERT_EQ(line.readsOf(comes).size(), 1);
    EXPECT_EQ(line.readsOf(comes).first().begun, milliseconds(300));
}

TEST(ReadSchedule, ReadsWhatWasNotReadSoFarAtOnceWhenItIsPlannedAgain)
{
    const TimedRun before = run("A", 1000, 2);
    TimedRun faster = before;
    faster.interval = milliseconds(500);
    TimedRun longer = before;
    longer.elements = 2;
    const TimedRun earlier = run("A", 1000, 1);
    for (const TimedRun& after : {faster, longer, earlier}) {
        Line line({before});
        line.runUntil(milliseconds(300));
        line.schedule.plan({after}, line.now);
        EXPECT_TRUE(line.schedule.next(line.now)) << after.element << ' ' << after.elements;
    }
    TimedRun two = before;
    two.elements = 2;
    Line line({two});
    line.runUntil(milliseconds(300));
    line.schedule.plan({before}, line.now);
    EXPECT_FALSE(line.schedule.next(line.now)) << "it was read together with its neighbour";
}

TEST(ReadSchedule, LeavesOutAStationAlsoWhenItIsPlannedAgain)
{
    const TimedRun here = run("A", 100, 0, 1);
    const TimedRun there = run("B", 100, 0, 2);
    ReadSchedule schedule;
    schedule.park(2);
    schedule.plan({here, there}, Duration(0));
    ASSERT_TRUE(schedule.next(Duration(0)));
    EXPECT_FALSE(schedule.next(Duration(0)));
    schedule.restart(2, Duration(0));
    const std::optional<TimedRun> next = schedule.next(Duration(0));
    ASSERT_TRUE(next);
    EXPECT_EQ(next->tag.station, 2);
}

TEST(ReadSchedule, ReadsOneRunOfAStationBeforeItIsDueWhenItIsPulled)
{
    const TimedRun first = run("A", 10000, 0, 1);
    const TimedRun second = run("B", 20000, 0, 1);
    Line line({first, second});
    line.runUntil(milliseconds(500));
    line.schedule.pull(1, line.now);
    line.runUntil(milliseconds(600));
    EXPECT_EQ(line.readsOf(first).size(), 2) << "the one that is due first";
    EXPECT_EQ(line.readsOf(second).size(), 1);
    line.schedule.pull(2, line.now); // no run of it is planned
    line.schedule.park(1);
    line.schedule.pull(1, line.now);
    EXPECT_FALSE(line.schedule.next(line.now));
}

TEST(ReadSchedule, LeavesOutAStationUntilItIsRestartedAndReadsItAllThen)
{
    const TimedRun here = run("A", 100, 0, 1);
    const TimedRun there = run("B", 60000, 0, 2);
    Line line({here, there});
    line.runUntil(milliseconds(50));
    line.schedule.park(2);
    line.runUntil(seconds(61));
    EXPECT_EQ(line.readsOf(there).size(), 1);
    line.schedule.restart(2, line.now);
    const Duration restarted = line.now;
    line.runUntil(seconds(62));
    ASSERT_EQ(line.readsOf(there).size(), 2);
    EXPECT_LE(line.readsOf(there).last().begun, restarted + milliseconds(10));
    EXPECT_LE(line.longestGap(here), milliseconds(110));
}

TEST(ReadSchedule, DoesNotStarveAnotherStationWhenOneIsReadAgain)
{
    const TimedRun fast = run("Fast", 50, 0, 1);
    QVector<TimedRun> runs = {fast};
    for (int i = 0; i < 200; ++i)
        runs.append(run(qPrintable(QStringLiteral("B%1").arg(i)), 5000, 0, 2));
    Line line(runs);
    line.runUntil(seconds(11));
    line.schedule.restart(2, line.now);
    line.runUntil(seconds(30));
    EXPECT_LE(line.longestGap(fast), milliseconds(60));
}

TEST(ReadSchedule, ReadsTheFastRunsFirstAfterAFaultOfTheLine)
{
    const TimedRun fast = run("Fast", 50);
    QVector<TimedRun> runs = {fast};
    for (int i = 0; i < 100; ++i)
        runs.append(run(qPrintable(QStringLiteral("S%1").arg(i)), 2000));
    Line line(runs);
    line.runUntil(seconds(10));
    line.now += seconds(3); // nothing was answered; all are overdue
    line.schedule.noteOther(line.now, seconds(3));
    const Duration back = line.now;
    line.runUntil(seconds(20));
    EXPECT_LE(line.longestGap(fast, back), milliseconds(60));
    QVector<Line::Read> after = line.readsOf(fast);
    after.erase(std::remove_if(after.begin(), after.end(),
                               [back](const Line::Read& read) { return read.begun < back; }),
                after.end());
    EXPECT_LE(after.first().begun, back + milliseconds(10));
}

TEST(ReadSchedule, TriesAFailedReadAgainAfterSomeSecondsAtMost)
{
    const TimedRun seldom = run("A", 3600000);
    ReadSchedule schedule;
    schedule.plan({seldom}, Duration(0));
    ASSERT_TRUE(schedule.next(Duration(0)));
    schedule.noteFailure(seconds(1));
    EXPECT_FALSE(schedule.next(milliseconds(5999)));
    EXPECT_TRUE(schedule.next(seconds(6)));
}

TEST(ReadSchedule, StretchesAllIntervalsAlikeWhenTheLineCannotHoldThem)
{
    // 140 %: 100 reads a second of 10 ms, and 40 of one interval each.
    QVector<TimedRun> runs;
    for (int i = 0; i < 10; ++i)
        runs.append(run(qPrintable(QStringLiteral("F%1").arg(i)), 100));
    for (int i = 0; i < 40; ++i)
        runs.append(run(qPrintable(QStringLiteral("S%1").arg(i)), 1000));
    Line line(runs);
    line.runUntil(seconds(120));
    for (const TimedRun& each : runs) {
        const double interval = std::chrono::duration<double, std::milli>(each.interval).count();
        EXPECT_NEAR(line.meanGapMs(each) / interval, 1.4, 0.1) << qPrintable(each.tag.name);
        EXPECT_LE(line.longestGap(each, seconds(5)), 2.2 * each.interval);
    }
    const LineLoad load = line.schedule.load();
    EXPECT_TRUE(load.isOverload);
    EXPECT_NEAR(load.toldShare, 1.4, 0.02);
    EXPECT_EQ(load.asked, milliseconds(100));
    EXPECT_GT(load.actual, milliseconds(138));
    EXPECT_LT(load.actual, milliseconds(142));
}

TEST(ReadSchedule, TellsAnOverloadOnceAndWhenItChangesMuchOrEnds)
{
    const TimedRun one = run("A", 100);
    const TimedRun other = run("B", 100);
    Line line({one, other});
    milliseconds cost(20);
    line.costOf = [&cost](const TimedRun&) { return Duration(cost); };
    const auto toldAfter = [&](milliseconds each) {
        cost = each;
        line.runUntil(line.now + seconds(20));
        return line.schedule.load().isOverload ? line.schedule.load().toldShare : 0;
    };
    EXPECT_EQ(toldAfter(milliseconds(20)), 0);
    EXPECT_EQ(toldAfter(milliseconds(51)), 0); // 102 %: not certain
    const double first = toldAfter(milliseconds(60));
    EXPECT_NEAR(first, 1.2, 0.05);
    EXPECT_EQ(toldAfter(milliseconds(65)), first);
    EXPECT_EQ(toldAfter(milliseconds(55)), first);
    EXPECT_EQ(toldAfter(milliseconds(49)), first); // 98 %: it may be back at once
    EXPECT_NEAR(toldAfter(milliseconds(90)), 1.8, 0.1);
    EXPECT_EQ(toldAfter(milliseconds(40)), 0);
}

TEST(ReadSchedule, TellsAnOverloadByTheShortestIntervalOfTheStationsThatAreRead)
{
    const TimedRun left = run("Left", 20, 0, 2);
    const TimedRun slow = run("Slow", 1000);
    const TimedRun fast = run("Fast", 100);
    const TimedRun other = run("Other", 100);
    Line line({slow, left, fast, other});
    line.schedule.park(2);
    line.costOf = [](const TimedRun&) { return Duration(milliseconds(70)); };
    line.runUntil(seconds(20));
    ASSERT_TRUE(line.schedule.load().isOverload);
    EXPECT_EQ(line.schedule.load().variable, fast.variable);
    EXPECT_EQ(line.schedule.load().asked, milliseconds(100));
}

// Before the first answer a read is expected to take 20 ms: the line would be asked for five times
// what it can carry.
TEST(ReadSchedule, KeepsTheIntervalsFromTheStartOfALineThatIsFasterThanExpected)
{
    QVector<TimedRun> runs;
    for (int i = 0; i < 200; ++i)
        runs.append(run(qPrintable(QStringLiteral("T%1").arg(i)), 800));
    Line line(runs);
    line.costOf = [](const TimedRun&) { return Duration(milliseconds(2)); };
    line.runUntil(seconds(5));
    for (const TimedRun& each : runs)
        EXPECT_LE(line.longestGap(each), milliseconds(802)) << qPrintable(each.tag.name);
}

TEST(ReadSchedule, CountsWhatTheLineIsUsedForOtherwise)
{
    Line line({run("A", 20)});
    ReadSchedule& schedule = line.schedule;
    for (int i = 0; i < 1000; ++i) { // half of the time is for single reads
        line.runUntil(line.now + milliseconds(10));
        line.now += milliseconds(10);
        schedule.noteOther(line.now, milliseconds(10));
    }
    EXPECT_NEAR(schedule.load().share, 1, 0.1); // 50 % of the time, of which 50 % are left
}

// ---- For any intervals --------------------------------------------------------------------------

namespace {

struct Plan
{
    QVector<TimedRun> runs;
    std::vector<Duration> costs;
    Duration longestCost{0};
};

// Runs of random intervals whose reads take a given share of the line.
Plan planOf(double share, int least)
{
    Plan plan;
    const int count = *rc::gen::inRange(least, 60);
    double rate = 0;
    std::vector<double> costs;
    for (int i = 0; i < count; ++i) {
        const int interval = *rc::gen::elementOf(
            std::vector<int>{100, 130, 200, 250, 500, 700, 1000, 2000, 5000, 7919});
        plan.runs.append(run(qPrintable(QStringLiteral("T%1").arg(i)), interval));
        costs.push_back(*rc::gen::inRange(10, 40));
        rate += costs.back() / interval;
    }
    for (const double cost : costs) {
        plan.costs.emplace_back(static_cast<int>(cost * share / rate * 1000));
        plan.longestCost = std::max(plan.longestCost, plan.costs.back());
    }
    return plan;
}

Line lineFor(const Plan& plan)
{
    Line line(plan.runs);
    line.costOf = [plan](const TimedRun& run) {
        return plan.costs.at(static_cast<std::size_t>(run.tag.name.mid(1).toInt()));
    };
    return line;
}

} // namespace

// What is read next is decided without a search for the best order: on a line that is asked for
// more than some two thirds, a read may now and then have to wait for a few others.
RC_GTEST_PROP(AnyIntervals, AreKeptToATransactionOrToAFewWhenTheLineIsAskedForFourFifths, ())
{
    const int percent = *rc::gen::inRange(5, 81);
    const Plan plan = planOf(percent / 100.0, 1);
    const Duration wait = (percent <= 60 ? 1 : 5) * plan.longestCost;
    Line line = lineFor(plan);
    const Duration shortest =
        std::min_element(plan.runs.begin(), plan.runs.end(), [](const auto& a, const auto& b) {
            return a.interval < b.interval;
        })->interval;
    RC_PRE(4 * plan.longestCost <= shortest);
    line.runUntil(seconds(60));
    for (const TimedRun& each : plan.runs) {
        const Duration gap = line.longestGap(each, seconds(8));
        if (gap > each.interval + wait)
            RC_LOG() << each.interval.count() << " us read after " << gap.count() << " us";
        RC_ASSERT(gap <= each.interval + wait);
    }
}

RC_GTEST_PROP(AnyIntervals, GrowAlikeWhenTheLineCannotHoldThem, ())
{
    const double share = *rc::gen::inRange(120, 400) / 100.0;
    const Plan plan = planOf(share, 20);
    Line line = lineFor(plan);
    line.runUntil(seconds(200));
    for (const TimedRun& each : plan.runs) {
        const double interval = std::chrono::duration<double, std::milli>(each.interval).count();
        const double stretch = line.meanGapMs(each) / interval;
        // What becomes due during a transaction waits for it.
        const double wait = static_cast<double>(plan.longestCost.count()) / 1000 / interval;
        RC_ASSERT(stretch > 0.75 * share - 2 * wait);
        RC_ASSERT(stretch < 1.25 * share + 2 * wait);
    }
}
