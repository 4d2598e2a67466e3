#ifndef MICRO850_GATEWAY_SPARKPLUG_NODEMODEL_H
#define MICRO850_GATEWAY_SPARKPLUG_NODEMODEL_H

#include "Catalogue.h"
#include "DataTypes.h"
#include "DeliveryFlow.h"

#include <QtCore/QHash>
#include <QtCore/QSet>

#include <deque>
#include <memory>
#include <vector>

namespace micro850::gateway::sparkplug {

struct Device;

/// A variable as a metric of its device.
struct VariableMetric
{
    CatalogueVariable variable;
    QByteArray name;
    quint64 alias = 0;
    Device* device = nullptr;
    /// Null while it is not known: then it is in no birth.
    const CipType* type = nullptr;
    /// The latest value, when it became so, and the message that told it.
    host::GatewayValue latest;
    std::optional<qint64> latestTime;
    qint64 latestId = 0;
    int latestOrder = 0; ///< grows with each one; ids do not tell which one is later
    /// What the last birth told of it; nothing when it was in none.
    struct Born
    {
        DataType type = DataType::Unknown;
        qint64 id = 0;
        int order = 0;
    };
    std::optional<Born> born;
    bool toldGood = true; ///< that its quality is good

    DataType dataType() const;
};

/// A value that cannot be told yet.
struct WaitingValue
{
    QueuedMessage message;
    Delivery delivery = Delivery::Live;
    int order = 0; ///< of its variable
};

/// A station of a line.
struct Device
{
    QString line;
    int station = 1;
    QByteArray id;
    std::vector<std::unique_ptr<VariableMetric>> metrics;
    bool isConnected = false; ///< the station answers

    // Of the session.
    bool isBorn = false;
    /// Born although its station does not answer, since values of it waited that only a device that
    /// is born can tell.
    bool isForHistory = false;
    Duration lastHistory{0};          ///< when the last of them was told
    std::optional<Duration> birthDue; ///< born anew then: a type became known or changed
    std::optional<Duration> deathDue; ///< unless the station answers again before
    std::deque<WaitingValue> waiting; ///< for the birth
    QVector<Metric> batch;            ///< for the next message
    QVector<qint64> batchIds;         ///< of the rows that it has
    int batchBytes = 0;
};

/// The state of a line or a station, two metrics of the node.
struct StateMetrics
{
    QByteArray stateName;
    QByteArray textName;
    quint64 stateAlias = 0;
    quint64 textAlias = 0;
    bool isKnown = false;
    QString state;
    QString text;
    qint64 time = 0;
};

/// What the node and its devices have to tell.
class NodeModel
{
public:
    NodeModel() = default;
    explicit NodeModel(const Catalogue& catalogue);

    /// Takes over the states and the latest values of what is in both.
    void inherit(const NodeModel& before);

    const std::vector<std::unique_ptr<Device>>& devices() const { return m_devices; }
    /// Null when there is none.
    Device* device(const QString& line, int station) const;
    Device* device(const QByteArray& id) const;
    VariableMetric* metric(const QString& line, const QString& name) const;
    VariableMetric* metric(const Device& device, const QByteArray& name) const;
    VariableMetric* metric(quint64 alias) const { return m_byAlias.value(alias); }
    /// Of the line itself for a station below 0.
    StateMetrics* state(const QString& line, int station);
    /// In the order of the configuration.
    std::vector<StateMetrics>& states() { return m_states; }
    /// Two names that differ in nothing but upper and lower case, which some hosts take for one.
    /// Empty: none.
    QString namesAlike() const;

private:
    void addState(const QString& line, int station);
    Device& deviceOf(const CatalogueVariable& variable);
    quint64 newAlias(const QByteArray& path);

    std::vector<std::unique_ptr<Device>> m_devices;
    std::vector<StateMetrics> m_states;
    QHash<QPair<QString, int>, int> m_stateNumbers;
    QHash<QPair<QString, int>, Device*> m_byStation;
    QHash<QByteArray, Device*> m_byId;
    QHash<QPair<QString, QString>, VariableMetric*> m_byName;
    QHash<quint64, VariableMetric*> m_byAlias;
    QSet<quint64> m_aliases;
};

/// "press-1"
QByteArray deviceId(const QString& line, int station);

} // namespace micro850::gateway::sparkplug

#endif
