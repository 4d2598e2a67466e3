// What goes to a broker when, without a broker.

#include "delivery_queue.h"

#include "DeliveryFlow.h"

#include <gtest/gtest.h>

using namespace micro850;
using namespace micro850::gateway;

namespace {

class DeliveryFlowTest : public DeliveryQueueFixture
{
protected:
    void SetUp() override { start(); }
    void start()
    {
        m_queue = std::make_unique<DeliveryQueue>(m_settings, m_clock, m_wallClock);
        m_flow = std::make_unique<DeliveryFlow>(*m_queue, m_settings, m_clock);
    }
    void restart()
    {
        m_flow.reset();
        m_queue.reset();
        m_outlet.sent.clear();
        start();
    }
    void add(const QString& name, const QByteArray& body)
    {
        m_flow->add(messageOf(name, body), {QStringLiteral("run"), ++m_number});
    }
    /// So much time passes, in steps in which the flow does what is due.
    void pass(std::chrono::milliseconds time)
    {
        for (std::chrono::milliseconds done(0); done < time; done += std::chrono::milliseconds(50))
        {
            m_clock.advance(std::chrono::milliseconds(50));
            m_flow->tick();
        }
    }
    void acknowledgeAll()
    {
        for (const SentMessage& each : m_outlet.sent)
            m_flow->acknowledge(each.message.id);
    }
    /// "LIVE b=2, HISTORY a=1", and forgets it.
    std::string popSent() { return m_outlet.popText(); }

    std::unique_ptr<DeliveryQueue> m_queue;
    std::unique_ptr<DeliveryFlow> m_flow;
    TestOutlet m_outlet;
    qint64 m_number = 0;
};

} // namespace

TEST_F(DeliveryFlowTest, SendsWhatComesOnceItIsCommitted)
{
    m_flow->begin(m_outlet);
    add("a", "1");
    add("b", "2");
    m_flow->tick();
    EXPECT_EQ(popSent(), "LIVE a=1, LIVE b=2");
}

TEST_F(DeliveryFlowTest, SendsTheLatestOfEachVariableBeforeWhatWaited)
{
    for (const char* body : {"1", "2", "3"}) {
        add("a", body);
        add("b", body);
    }
    m_flow->tick();
    m_flow->begin(m_outlet);
    pass(std::chrono::milliseconds(500));
    EXPECT_EQ(popSent(), "LIVE a=3, LIVE b=3, HISTORY a=1, HISTORY b=1, HISTORY a=2, HISTORY b=2");
}

TEST_F(DeliveryFlowTest, RepeatsTheLatestThatTheBrokerHasAlready)
{
    m_flow->begin(m_outlet);
    add("a", "1");
    m_flow->tick();
    acknowledgeAll();
    popSent();
    m_flow->end();
    m_flow->begin(m_outlet);
    m_flow->tick();
    EXPECT_EQ(popSent(), "REPEATED a=1");
}

TEST_F(DeliveryFlowTest, SendsAgainWhatWasNotAcknowledged)
{
    m_flow->begin(m_outlet);
    add("a", "1");
    add("a", "2");
    m_flow->tick();
    EXPECT_EQ(popSent(), "LIVE a=1, LIVE a=2");
    m_flow->end();
    m_flow->begin(m_outlet);
    pass(std::chrono::milliseconds(100));
    EXPECT_EQ(popSent(), "LIVE a=2, HISTORY a=1");
}

TEST_F(DeliveryFlowTest, GoesOnAfterARestartWithWhatWasNotAcknowledged)
{
    m_flow->begin(m_outlet);
    add("a", "1");
    add("a", "2");
    add("a", "3");
    m_flow->tick();
    m_flow->acknowledge(m_outlet.sent[0].message.id);
    pass(std::chrono::milliseconds(100));
    restart();
    EXPECT_EQ(m_queue->fed().number, 3);
    m_flow->begin(m_outlet);
    pass(std::chrono::milliseconds(100));
    EXPECT_EQ(popSent(), "LIVE a=3, HISTORY a=2");
}

TEST_F(DeliveryFlowTest, RepeatsWhatTheServiceToldAtItsStart)
{
    m_flow->remember(messageOf("a", "1"));
    m_flow->begin(m_outlet);
    m_flow->remember(messageOf("b", "2"));
    m_flow->tick();
    EXPECT_EQ(popSent(), "REPEATED a=1, REPEATED b=2");
    add("a", "3");
    pass(std::chrono::milliseconds(100));
    EXPECT_EQ(popSent(), "LIVE a=3");
}

TEST_F(DeliveryFlowTest, SendsNoMoreThanAWindowThatIsNotDeletedOnTheDisk)
{
    for (int i = 0; i < 3 * DeliveryFlow::kWindow; ++i)
        add("a", "1");
    m_flow->begin(m_outlet);
    m_flow->tick();
    ASSERT_EQ(m_outlet.sent.size(), std::size_t(DeliveryFlow::kWindow));
    for (int i = 0; i < 400; ++i)
        m_flow->acknowledge(m_outlet.sent[i].message.id);
    m_flow->tick(); // too early for another commit
    EXPECT_EQ(m_outlet.sent.size(), std::size_t(DeliveryFlow::kWindow));
    pass(std::chrono::milliseconds(100));
    EXPECT_EQ(m_outlet.sent.size(), std::size_t(DeliveryFlow::kWindow) + 400);
}

TEST_F(DeliveryFlowTest, DeletesAtOnceWhenHalfTheWindowWaitsForIt)
{
    for (int i = 0; i < 3 * DeliveryFlow::kWindow; ++i)
        add("a", "1");
    m_flow->begin(m_outlet);
    m_flow->tick();
    acknowledgeAll();
    m_flow->tick();
    EXPECT_EQ(m_outlet.sent.size(), 2 * std::size_t(DeliveryFlow::kWindow));
}

TEST_F(DeliveryFlowTest, OffersAgainWhatTheConnectionDidNotTake)
{
    m_flow->begin(m_outlet);
    m_outlet.room = 1;
    add("a", "1");
    add("a", "2");
    m_flow->tick();
    EXPECT_EQ(popSent(), "LIVE a=1");
    m_outlet.room = 5;
    m_flow->tick();
    EXPECT_EQ(popSent(), "LIVE a=2");
}

TEST_F(DeliveryFlowTest, MakesHistoryOfWhatTheBrokerTakesTooSlowly)
{
    m_flow->begin(m_outlet);
    m_outlet.room = 1;
    for (const char* body : {"1", "2", "3"})
        add("a", body);
    add("b", "4");
    pass(std::chrono::seconds(11));
    EXPECT_EQ(popSent(), "LIVE a=1");
    m_outlet.room = 10;
    pass(std::chrono::milliseconds(100));
    EXPECT_EQ(popSent(), "LIVE a=3, LIVE b=4, HISTORY a=2");
}

TEST_F(DeliveryFlowTest, SendsHistoryAtItsRateBehindWhatComes)
{
    m_settings.historyPerSecond = 100;
    restart();
    for (int i = 0; i < 600; ++i)
        add("a", "1");
    m_flow->tick();
    m_flow->begin(m_outlet);
    const std::size_t burst = 25;
    for (int second = 1; second <= 4; ++second) {
        pass(std::chrono::seconds(1));
        EXPECT_GE(m_outlet.sent.size(), std::size_t(second * 100) - burst);
        EXPECT_LE(m_outlet.sent.size(), std::size_t(second * 100 + 1) + burst);
    }
    popSent();
    add("a", "2");
    m_clock.advance(std::chrono::milliseconds(200));
    m_flow->tick();
    EXPECT_EQ(popSent().substr(0, 20), "LIVE a=2, HISTORY a=");
}

TEST_F(DeliveryFlowTest, LeavesRoomForWhatComesWhileHistoryIsNotAcknowledged)
{
    m_settings.historyPerSecond = 100000;
    restart();
    for (int i = 0; i < 2000; ++i)
        add("a", "1");
    m_flow->tick();
    m_flow->begin(m_outlet);
    pass(std::chrono::seconds(1));
    EXPECT_LE(m_outlet.sent.size(), std::size_t(DeliveryFlow::kWindow) / 2);
    popSent();
    add("a", "2");
    pass(std::chrono::milliseconds(100));
    EXPECT_EQ(popSent(), "LIVE a=2");
}

TEST_F(DeliveryFlowTest, GivesUpWhatTheBrokerRefuses)
{
    m_flow->begin(m_outlet);
    add("a", "1");
    m_flow->tick();
    m_flow->refuse(m_outlet.sent[0].message.id);
    EXPECT_EQ(m_flow->status()["refused"], 1);
    popSent();
    m_flow->end();
    m_flow->begin(m_outlet);
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popSent(), "");
    EXPECT_EQ(m_queue->size(), 0);
    EXPECT_EQ(m_queue->lost(), 0);
}

TEST_F(DeliveryFlowTest, DoesNotRepeatAVariableThatIsGone)
{
    m_flow->remember(messageOf("a", "1"));
    m_flow->remember(messageOf("b", "2"));
    m_flow->forget("press", "a");
    m_flow->begin(m_outlet);
    m_flow->tick();
    EXPECT_EQ(popSent(), "REPEATED b=2");
}

TEST_F(DeliveryFlowTest, CountsNothingAsLostWhenWhatIsRepeatedIsAcknowledged)
{
    m_flow->begin(m_outlet);
    m_flow->remember(messageOf("a", "1"));
    add("b", "2");
    for (int i = 0; i < 3; ++i) {
        pass(std::chrono::milliseconds(200));
        acknowledgeAll();
        popSent();
        m_flow->end();
        m_flow->begin(m_outlet);
    }
    EXPECT_EQ(m_queue->lost(), 0);
    EXPECT_EQ(m_queue->size(), 0);
    EXPECT_EQ(m_flow->status()["inFlight"], 0);
}

TEST_F(DeliveryFlowTest, LosesNothingInAnOutageOfAMinuteNorOfAnHour)
{
    m_settings.historyPerSecond = 1000;
    restart();
    m_flow->begin(m_outlet);
    add("a", "first");
    m_flow->tick();
    acknowledgeAll();
    for (const int seconds : {60, 3600}) {
        m_flow->end();
        m_outlet.sent.clear();
        for (int second = 1; second <= seconds; ++second) { // a value a second
            add("a", QByteArray::number(second));
            m_clock.advance(std::chrono::seconds(1));
            m_flow->tick();
        }
        EXPECT_EQ(m_queue->size(), seconds);
        m_flow->begin(m_outlet);
        std::size_t acknowledged = 0;
        for (int i = 0; i < 200; ++i) { // ten seconds
            m_clock.advance(std::chrono::milliseconds(50));
            m_flow->tick();
            for (; acknowledged < m_outlet.sent.size(); ++acknowledged)
                m_flow->acknowledge(m_outlet.sent[acknowledged].message.id);
        }
        ASSERT_EQ(m_outlet.sent.size(), static_cast<std::size_t>(seconds)) << "each comes once";
        EXPECT_EQ(m_outlet.sent[0].delivery, Delivery::Live);
        EXPECT_EQ(m_outlet.sent[0].message.body, QByteArray::number(seconds));
        for (int i = 1; i < seconds; ++i) {
            ASSERT_EQ(m_outlet.sent[i].delivery, Delivery::History);
            ASSERT_EQ(m_outlet.sent[i].message.body, QByteArray::number(i));
            ASSERT_EQ(m_outlet.sent[i].message.sequence,
                      m_outlet.sent[0].message.sequence - seconds + i);
        }
        EXPECT_EQ(m_queue->size(), 0);
        EXPECT_EQ(m_queue->lost(), 0);
    }
}

TEST_F(DeliveryFlowTest, KeepsItsOrderWhenTheClockOnTheWallIsSteppedByADay)
{
    for (const qint64 step : {86400, -2 * 86400}) {
        m_flow->begin(m_outlet);
        add("a", "1");
        m_flow->tick();
        m_flow->end(); // it waits while the clock is stepped
        add("a", "2");
        m_flow->tick();
        m_wallClock.advance(step * 1000);
        add("a", "3");
        pass(std::chrono::milliseconds(200));
        m_outlet.sent.clear();
        m_flow->begin(m_outlet);
        pass(std::chrono::milliseconds(500));
        const qint64 series = m_outlet.sent[0].message.series;
        for (const SentMessage& each : m_outlet.sent)
            EXPECT_EQ(each.message.series, series);
        acknowledgeAll();
        EXPECT_EQ(popSent(), "LIVE a=3, HISTORY a=1, HISTORY a=2");
        pass(std::chrono::milliseconds(200));
        m_flow->end();
        EXPECT_EQ(m_queue->size(), 0);
        EXPECT_EQ(m_queue->lost(), 0);
    }
}

TEST_F(DeliveryFlowTest, SendsEventsInOrderWithValuesAndRepeatsNone)
{
    m_flow->begin(m_outlet);
    add("a", "1");
    add("", "event");
    add("a", "2");
    m_flow->tick();
    EXPECT_EQ(popSent(), "LIVE a=1, LIVE =event, LIVE a=2");
    m_flow->end();
    m_flow->begin(m_outlet);
    pass(std::chrono::milliseconds(100));
    EXPECT_EQ(popSent(), "LIVE a=2, HISTORY a=1, HISTORY =event");
}

TEST_F(DeliveryFlowTest, IgnoresAcknowledgementsOfAnEarlierConnection)
{
    m_flow->begin(m_outlet);
    add("a", "1");
    m_flow->tick();
    m_flow->end();
    acknowledgeAll();
    EXPECT_EQ(m_queue->size(), 1);
    EXPECT_EQ(m_flow->status()["acknowledged"], 0);
}

TEST_F(DeliveryFlowTest, SurvivesAnOutletThatAcknowledgesOrEndsWhileItSends)
{
    struct HastyOutlet : Outlet
    {
        bool send(const QueuedMessage& message, Delivery) override
        {
            flow->acknowledge(message.id);
            if (++sent == 3)
                flow->end();
            return true;
        }
        DeliveryFlow* flow = nullptr;
        int sent = 0;
    } outlet;
    outlet.flow = m_flow.get();
    m_flow->begin(outlet);
    for (int i = 0; i < 5; ++i)
        add("a", "1");
    m_flow->tick();
    EXPECT_EQ(outlet.sent, 3);
    EXPECT_EQ(m_queue->size(), 2);
}

TEST_F(DeliveryFlowTest, ShowsEveryLatestValueAlsoWithoutAConnection)
{
    m_flow->remember(messageOf("a", "1"));
    add("b", "2");
    pass(std::chrono::milliseconds(100));
    std::string text;
    m_flow->visitLatest([&text](const QueuedMessage& message) {
        text += message.name.toStdString() + std::to_string(message.sequence);
    });
    EXPECT_TRUE(text == "a0b1" || text == "b1a0") << text;
}

TEST_F(DeliveryFlowTest, SurvivesAConnectionThatEndsWhileTheLatestIsSent)
{
    struct BrokenOutlet : Outlet
    {
        bool send(const QueuedMessage&, Delivery) override
        {
            flow->end();
            return true;
        }
        DeliveryFlow* flow = nullptr;
    } outlet;
    outlet.flow = m_flow.get();
    add("a", "1");
    add("b", "2");
    m_flow->tick();
    m_flow->begin(outlet);
    m_flow->tick();
    m_flow->begin(m_outlet);
    m_flow->tick();
    EXPECT_EQ(popSent(), "LIVE a=1, LIVE b=2");
}
