#include "LineState.h"

#include "fake_line.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;

namespace {

class LineStateTest : public ::testing::Test
{
protected:
    // Calls until the device was opened so often; the times between the attempts.
    std::vector<micro850::Duration> intervalsOf(size_t attempts)
    {
        line.openedAt.clear();
        while (line.openedAt.size() < attempts)
            state.ensureOpen();
        std::vector<micro850::Duration> intervals;
        for (size_t i = 1; i < attempts; ++i)
            intervals.push_back(line.openedAt[i] - line.openedAt[i - 1]);
        return intervals;
    }

    micro850::VirtualClock clock;
    FakeLine line{clock};
    LineState state{line, clock};
};

} // namespace

TEST_F(LineStateTest, OpensTheLineAtOnce)
{
    EXPECT_FALSE(state.isOpen());
    EXPECT_TRUE(state.ensureOpen());
    EXPECT_TRUE(state.isOpen());
    EXPECT_EQ(clock.now(), 0ms);
    EXPECT_EQ(state.reconnects(), 0);
}

TEST_F(LineStateTest, TriesToOpenAMissingDeviceAtGrowingIntervals)
{
    line.setPresent(false);
    EXPECT_EQ(intervalsOf(8), (std::vector<micro850::Duration>{250ms, 500ms, 1s, 2s, 4s, 5s, 5s}));
    EXPECT_EQ(state.error(), QString("no such device"));
}

TEST_F(LineStateTest, PausesOnlyMillisecondsWithinACall)
{
    line.setPresent(false);
    state.ensureOpen();
    EXPECT_FALSE(state.ensureOpen());
    EXPECT_EQ(clock.now(), 20ms);
    state.pause(5ms);
    EXPECT_EQ(clock.now(), 25ms);
}

TEST_F(LineStateTest, ClosesALostLineAndCountsItsReturn)
{
    state.ensureOpen();
    state.ensureOpen();
    state.lose();
    EXPECT_FALSE(state.isOpen());
    EXPECT_EQ(state.error(), QString("the device is gone"));
    while (!state.ensureOpen()) {
    }
    EXPECT_EQ(clock.now(), 250ms);
    EXPECT_EQ(state.openedAt(), 250ms);
    EXPECT_EQ(state.error(), QString());
    EXPECT_EQ(state.reconnects(), 1);
}

TEST_F(LineStateTest, LetsTheIntervalGrowUntilBytesFlow)
{
    for (int i = 0; i < 3; ++i) {
        while (!state.ensureOpen()) {
        }
        state.lose();
    }
    EXPECT_EQ(intervalsOf(1).size(), 0u);
    EXPECT_EQ(line.openedAt.at(0), 250ms + 500ms + 1s);

    state.noteTraffic();
    state.lose();
    const micro850::Duration lost = clock.now();
    intervalsOf(1);
    EXPECT_EQ(line.openedAt.at(0) - lost, 250ms);
}

TEST_F(LineStateTest, OpensTheLineAtOnceAtASignThatItsDeviceIsBack)
{
    state.ensureOpen();
    line.setPresent(false);
    state.lose();
    intervalsOf(5);
    line.openedAt.clear();
    line.returnAfter(1234);
    const micro850::Duration back = clock.now() + 1234ms;
    while (!state.ensureOpen()) {
    }
    EXPECT_EQ(line.openedAt, std::vector<micro850::Duration>{back});
}

TEST_F(LineStateTest, ReportsALossOnceAndNotThatTheLineCannotBeOpened)
{
    state.ensureOpen();
    line.setPresent(false);
    state.lose();
    EXPECT_EQ(state.reportedError(), QString("the device is gone"));
    intervalsOf(3);
    EXPECT_EQ(state.error(), QString("no such device"));
    EXPECT_EQ(state.reportedError(), QString("the device is gone"));
    line.setPresent(true);
    while (!state.ensureOpen()) {
    }
    EXPECT_EQ(state.reportedError(), QString());
}

TEST_F(LineStateTest, ReportsThatTheLineCannotBeOpenedForAnotherReasonThanBefore)
{
    state.ensureOpen();
    line.setPresent(false);
    state.lose();
    intervalsOf(2);
    line.openError = QStringLiteral("permission denied");
    intervalsOf(1);
    EXPECT_EQ(state.reportedError(), QString("permission denied"));
    line.openError = QStringLiteral("no such device");
    intervalsOf(1);
    EXPECT_EQ(state.reportedError(), QString("no such device"));
}

TEST_F(LineStateTest, ReportsWhyALineWasNeverOpen)
{
    line.setPresent(false);
    intervalsOf(1);
    EXPECT_EQ(state.reportedError(), QString("no such device"));
    line.openError = QStringLiteral("permission denied");
    intervalsOf(1);
    EXPECT_EQ(state.reportedError(), QString("permission denied"));
}

TEST_F(LineStateTest, ReportsASecondLossLikeTheFirst)
{
    for (int loss = 0; loss < 2; ++loss) {
        while (!state.ensureOpen()) {
        }
        line.setPresent(false);
        state.lose();
        intervalsOf(2);
        EXPECT_EQ(state.reportedError(), QString("the device is gone")) << loss;
        line.setPresent(true);
    }
}

namespace {

class LineWithReason : public FakeLine
{
public:
    using FakeLine::FakeLine;
    QString lossReason() const override { return isOpen() ? QStringLiteral("closed") : QString(); }
};

} // namespace

TEST(LineState, TellsTheLinesOwnReasonForALoss)
{
    micro850::VirtualClock clock;
    LineWithReason line(clock);
    LineState state(line, clock);
    state.ensureOpen();
    state.lose();
    EXPECT_EQ(state.error(), QString("closed"));
    EXPECT_FALSE(state.isOpen());
}
