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
