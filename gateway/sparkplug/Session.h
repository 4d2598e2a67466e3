#ifndef MICRO850_GATEWAY_SPARKPLUG_SESSION_H
#define MICRO850_GATEWAY_SPARKPLUG_SESSION_H

#include "NodeWriter.h"
#include "Publisher.h"

#include <QtCore/QMap>

namespace micro850::gateway::sparkplug {

/// Tells a broker what the node and its devices have, from a birth of the node on: births and
/// deaths of devices, values, and which of them the broker has.
class Session : public Outlet
{
public:
    /// All must outlive it.
    Session(NodeWriter& writer, PublisherNeeds& needs) : m_writer(writer), m_needs(needs) {}
    ~Session() override = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    NodeModel& model() { return m_model; }
    const NodeModel& model() const { return m_model; }
    /// Another catalogue. Devices that it no longer has die.
    void setModel(NodeModel model);

    /// Begins to tell everything anew: nothing else is told until proceed() has told the births.
    void begin(int bdSeq);
    /// False until all births are told.
    bool proceed();
    bool isBegun() const { return m_stage != Stage::Ended; }
    bool hasToldNode() const { return m_stage == Stage::Devices || m_stage == Stage::Open; }
    bool isOpen() const { return m_stage == Stage::Open; }
    /// Tells what was gathered, asks whether the broker has it, and nothing more. The answer can
    /// come until end().
    void leave();
    /// The connection is gone: what the broker did not acknowledge is told again.
    void end();

    /// The state of a station or a line.
    void setState(const DeliveryEvent& event);
    bool send(const QueuedMessage& message, Delivery delivery) override;
    /// What is due: births, deaths, values that were gathered, the question whether the broker has
    /// them.
    void tick();
    void handlePong(int number);

    host::Json status() const;

private:
    enum class Stage {
        Ended,
        Node,    ///< the node's birth is due
        Devices, ///< births of devices are due
        Open     ///< values are told
    };

    bool bear(Device& device);
    bool kill(Device& device);
    bool flush(Device& device);
    void ask();
    void setConnected(Device& device, bool isConnected);
    void tend(Device& device);
    bool sendEvent(const QueuedMessage& message, Delivery delivery);
    bool sendValue(VariableMetric& metric, const QueuedMessage& message,
                   const host::GatewayValue& value, Delivery delivery);
    bool append(VariableMetric& metric, const WaitingValue& told, const host::GatewayValue& value);
    bool tell(VariableMetric& metric, const WaitingValue& told, const host::GatewayValue& value);
    void tellWaiting(Device& device);
    bool buryUnconnected();
    void learn(VariableMetric& metric, const QueuedMessage& message,
               const host::GatewayValue& value);
    void learnLatest();
    void clearSession();

    NodeWriter& m_writer;
    PublisherNeeds& m_needs;
    NodeModel m_model;
    Stage m_stage = Stage::Ended;
    int m_bdSeq = 0;
    std::size_t m_nextDevice = 0;
    bool m_flows = false;
    QVector<qint64> m_sent;              ///< rows that were told since the last ping
    QMap<int, QVector<qint64>> m_pinged; ///< rows that the broker has once it answers this ping
    int m_pings = 0;
    qint64 m_births = 0;
    qint64 m_deaths = 0;
    qint64 m_dropped = 0;
};

} // namespace micro850::gateway::sparkplug

#endif
