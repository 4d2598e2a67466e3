#include "ChangePrinter.h"

#include <algorithm>

namespace micro850::host {

namespace {

Json valueObject(const PollLoop& loop, const Variable& variable, int index)
{
    const ValueStore& values = loop.values();
    if (!values.wasRead(index))
        return Json();
    if (!variable.scales(*values.type(index)))
        return jsonOf(values.values(index));
    Json all = Json::array();
    for (const CipValue& value : values.values(index))
        all.push_back(value.number()); // null where it is not finite
    return variable.length == 1 ? all.front() : all;
}

// -1 before the first answer.
qint64 roundTripMs(const LineStatistics& line, int percent)
{
    const std::optional<Duration> time = line.roundTrip(percent);
    return time ? wholeMilliseconds(*time) : -1;
}

Json stationObject(const Station& station)
{
    const Counters& counters = station.counters;
    Json errors = Json::object();
    for (auto error = counters.errors.constBegin(); error != counters.errors.constEnd(); ++error)
        errors[error.key().toStdString()] = error.value();
    return {{"station", station.number},
            {"state", stateText(station.state).toStdString()},
            {"sent", counters.sent},
            {"answered", counters.answered},
            {"timedOut", counters.timedOut},
            {"corrupt", counters.corrupt},
            {"late", counters.late},
            {"retries", counters.retries},
            {"reconnects", counters.reconnects},
            {"errors", errors}};
}

} // namespace

Json changeObject(const PollLoop& loop, const Project& project, int variable, const QDateTime& time)
{
    const Variable& asked = project.variables.at(variable);
    const CipType* type = loop.values().type(variable);
    Json object = {{"time", time.toUTC().toString(Qt::ISODateWithMs).toStdString()},
                   {"name", asked.name.toStdString()},
                   {"station", asked.station},
                   {"tag", asked.tag.toStdString()},
                   {"element", asked.element},
                   {"type", type ? Json(type->name) : Json()},
                   {"value", valueObject(loop, asked, variable)},
                   {"quality", qualityText(loop.quality(variable)).toStdString()}};
    if (!asked.unit.isEmpty())
        object["unit"] = asked.unit.toStdString();
    if (!loop.values().error(variable).isEmpty())
        object["error"] = loop.values().error(variable).toStdString();
    return object;
}

// Values that become stale, or good again, change too.
QVector<int> ChangePrinter::popChanged()
{
    QSet<int> changed = m_loop.values().popChanged();
    m_qualities.resize(m_loop.values().size());
    for (int i = 0; i < m_qualities.size(); ++i) {
        const Quality quality = m_loop.quality(i);
        if (quality != m_qualities.at(i))
            changed.insert(i);
        m_qualities[i] = quality;
    }
    QVector<int> shown;
    for (const int variable : changed) {
        if (!matches(m_table.name(variable), m_match))
            continue;
        if (m_loop.values().wasRead(variable) || !m_loop.values().error(variable).isEmpty())
            shown.append(variable);
    }
    std::sort(shown.begin(), shown.end());
    return shown;
}

void ChangePrinter::print()
{
    const QDateTime time = QDateTime::currentDateTime();
    for (const int variable : popChanged()) {
        const Json object =
            m_output.json() ? changeObject(m_loop, m_project, variable, time) : Json();
        m_output.data(object, time.toString(QStringLiteral("HH:mm:ss.zzz ")) +
                                  m_table.changeLine(variable));
    }
}

void ChangePrinter::tellStates()
{
    QStringList states(m_table.lineState());
    for (const Station& station : m_loop.stations())
        states +=
            QStringLiteral("station %1: %2").arg(station.number).arg(stateText(station.state));
    for (int i = 0; i < states.size(); ++i) {
        if (states.at(i) != m_states.value(i))
            m_output.note(states.at(i));
    }
    m_states = states;
}

void summarise(const PollLoop& loop, const Project& project, const LiveTable& table,
               const Output& output, Duration now)
{
    if (output.json()) {
        const LineStatistics& line = loop.statistics();
        Json stations = Json::array();
        for (const Station& station : loop.stations())
            stations.push_back(stationObject(station));
        output.data({{"summary",
                      {{"port", project.port.device.toStdString()},
                       {"transactionsPerSecond", line.transactionsPerSecond(now)},
                       {"percentInUse", line.percentInUse(now, project.port)},
                       {"roundTripMsMedian", roundTripMs(line, 50)},
                       {"roundTripMs99", roundTripMs(line, 99)},
                       {"reopened", loop.lineReconnects()},
                       {"stations", stations}}}},
                    QString());
        return;
    }
    output.note(table.lineState() + QStringLiteral(": ") + table.lineStatistics(now));
    for (const QString& text : table.stationLines(now))
        output.note(text);
}

} // namespace micro850::host
