#include "NodeModel.h"

namespace micro850::gateway::sparkplug {

namespace {

// Of 40 bits: they take six bytes in a message.
quint64 hashOf(const QByteArray& path)
{
    quint64 hash = 0xCBF29CE484222325;
    for (const char byte : path) {
        hash ^= static_cast<quint8>(byte);
        hash *= 0x100000001B3;
    }
    return (hash >> 24) ^ (hash & 0xFFFFFFFFFF);
}

// The first of them that an earlier one equals but for its case.
class NamesAlike
{
public:
    void add(const QString& name)
    {
        const QString folded = name.toCaseFolded();
        const QString earlier = m_names.value(folded);
        if (m_found.isEmpty() && m_names.contains(folded) && earlier != name)
            m_found = QStringLiteral("\"%1\" and \"%2\"").arg(earlier, name);
        m_names.insert(folded, name);
    }
    QString found() const { return m_found; }

private:
    QHash<QString, QString> m_names;
    QString m_found;
};

} // namespace

QByteArray deviceId(const QString& line, int station)
{
    return line.toUtf8() + '-' + QByteArray::number(station);
}

DataType VariableMetric::dataType() const
{
    return type ? dataTypeOf(*type, variable.isScaled, variable.length) : DataType::Unknown;
}

NodeModel::NodeModel(const Catalogue& catalogue)
{
    QHash<QString, QVector<int>> stations;
    for (const CatalogueVariable& variable : catalogue.variables) {
        QVector<int>& ofLine = stations[variable.line];
        if (!ofLine.contains(variable.station))
            ofLine.append(variable.station);
    }
    for (const QString& line : catalogue.lines) {
        addState(line, -1);
        for (const int station : stations.value(line))
            addState(line, station);
    }
    for (const CatalogueVariable& variable : catalogue.variables) {
        Device& device = deviceOf(variable);
        auto metric = std::make_unique<VariableMetric>();
        metric->variable = variable;
        metric->name = variable.name.toUtf8();
        metric->alias = newAlias(variable.line.toUtf8() + '/' + metric->name);
        metric->device = &device;
        metric->type = variable.type;
        m_byName.insert({variable.line, variable.name}, metric.get());
        m_byAlias.insert(metric->alias, metric.get());
        device.metrics.push_back(std::move(metric));
    }
}

void NodeModel::addState(const QString& line, int station)
{
    StateMetrics state;
    QByteArray path = "Lines/" + line.toUtf8();
    if (station >= 0)
        path += "/Station " + QByteArray::number(station);
    state.stateName = path + "/State";
    state.textName = path + "/Text";
    state.stateAlias = newAlias('/' + state.stateName);
    state.textAlias = newAlias('/' + state.textName);
    m_stateNumbers.insert({line, station}, static_cast<int>(m_states.size()));
    m_states.push_back(state);
}

Device& NodeModel::deviceOf(const CatalogueVariable& variable)
{
    Device*& device = m_byStation[{variable.line, variable.station}];
    if (!device) {
        m_devices.push_back(std::make_unique<Device>());
        device = m_devices.back().get();
        device->line = variable.line;
        device->station = variable.station;
        device->id = deviceId(variable.line, variable.station);
        m_byId.insert(device->id, device);
    }
    return *device;
}

// Made of the name: an order that was on its way while the configuration changed, or while the
// service was started again, cannot mean another variable.
quint64 NodeModel::newAlias(const QByteArray& path)
{
    QByteArray unique = path;
    for (;;) {
        const quint64 alias = hashOf(unique);
        if (alias != 0 && !m_aliases.contains(alias)) {
            m_aliases.insert(alias);
            return alias;
        }
        unique += '\0';
    }
}

void NodeModel::inherit(const NodeModel& before)
{
    for (auto number = m_stateNumbers.constBegin(); number != m_stateNumbers.constEnd(); ++number) {
        const auto found = before.m_stateNumbers.constFind(number.key());
        if (found == before.m_stateNumbers.constEnd())
            continue;
        StateMetrics& now = m_states[static_cast<std::size_t>(*number)];
        const StateMetrics& then = before.m_states[static_cast<std::size_t>(*found)];
        now.isKnown = then.isKnown;
        now.state = then.state;
        now.text = then.text;
        now.time = then.time;
    }
    for (const auto& device : m_devices) {
        const Device* then = before.device(device->line, device->station);
        device->isConnected = then && then->isConnected;
        device->isBorn = then && then->isBorn;
        for (const auto& metric : device->metrics) {
            const VariableMetric* old = before.metric(device->line, metric->variable.name);
            if (!old || old->device->station != device->station ||
                old->variable.tag != metric->variable.tag ||
                old->variable.element != metric->variable.element ||
                old->variable.length != metric->variable.length ||
                old->variable.isScaled != metric->variable.isScaled)
                continue;
            metric->latest = old->latest;
            metric->latestTime = old->latestTime;
            metric->latestId = old->latestId;
            metric->type = metric->latest.type ? metric->latest.type : metric->type;
        }
    }
}

Device* NodeModel::device(const QString& line, int station) const
{
    return m_byStation.value({line, station});
}

Device* NodeModel::device(const QByteArray& id) const
{
    return m_byId.value(id);
}

VariableMetric* NodeModel::metric(const QString& line, const QString& name) const
{
    return m_byName.value({line, name});
}

VariableMetric* NodeModel::metric(const Device& device, const QByteArray& name) const
{
    VariableMetric* metric = m_byName.value({device.line, QString::fromUtf8(name)});
    return metric && metric->device == &device && metric->name == name ? metric : nullptr;
}

StateMetrics* NodeModel::state(const QString& line, int station)
{
    const auto number = m_stateNumbers.constFind({line, station});
    return number == m_stateNumbers.constEnd() ? nullptr
                                               : &m_states[static_cast<std::size_t>(*number)];
}

QString NodeModel::namesAlike() const
{
    NamesAlike devices;
    for (const auto& device : m_devices) {
        devices.add(QString::fromUtf8(device->id));
        NamesAlike metrics;
        for (const auto& metric : device->metrics)
            metrics.add(metric->variable.name);
        if (!metrics.found().isEmpty())
            return metrics.found();
    }
    return devices.found();
}

} // namespace micro850::gateway::sparkplug
