#include "LineReport.h"

#include "LineStatus.h"
#include "Memory.h"
#include "Message.h"
#include "PlantTexts.h"

#include <utility>

namespace micro850::gateway {

namespace {

using host::Quality;
using host::StationView;

// How often qualities are looked at that change without a reply: a value that gets old.
const std::chrono::milliseconds kCheckInterval(100);
// A line of values ends with the value that makes it longer than this.
const int kEnoughBytes = 64 * 1024;
const int kAgesInLine = 50000;
const int kLineItself = -1;

void append(QByteArray& text, const Json& object)
{
    const std::string dumped = object.dump(-1, ' ', false, Json::error_handler_t::replace);
    text.append(dumped.data(), static_cast<int>(dumped.size()));
}

} // namespace

LineReport::LineReport(const QString& line, const host::Project& project, host::PollLoop& loop,
                       const Clock& clock)
    : m_line(line), m_project(project), m_loop(loop), m_clock(clock),
      m_hasNews(project.variables.size()), m_known(project.variables.size())
{
    for (int i = 0; i < project.variables.size(); ++i)
        note(i);
}

void LineReport::note(int variable)
{
    if (m_hasNews.at(variable))
        return;
    m_hasNews[variable] = true;
    m_news.enqueue(variable);
}

void LineReport::collect()
{
    const QSet<int> changed = m_loop.values().popChanged();
    for (const int variable : changed)
        note(variable);
    const Duration now = m_clock.now();
    const bool isUp = m_loop.lineIsUp();
    if (now < m_nextCheck && isUp == m_wasUp)
        return;
    m_nextCheck = now + kCheckInterval;
    m_wasUp = isUp;
    m_checksStates = true;
    noteQualities();
}

void LineReport::noteQualities()
{
    for (int i = 0; i < m_known.size(); ++i) {
        const Quality quality = m_loop.quality(i);
        const QString why = quality == Quality::Good ? QString() : whyNotGood(i);
        Known& known = m_known[i];
        if (known.quality == quality && known.why == why)
            continue;
        known.quality = quality;
        known.why = why;
        note(i);
    }
}

// The reason of the variable itself, else that of its line or its station.
QString LineReport::whyNotGood(int variable) const
{
    const QString error = m_loop.values().error(variable);
    if (!error.isEmpty())
        return error;
    if (!m_loop.lineIsUp())
        return m_loop.reportedLineError();
    const auto station = m_loop.stations().constFind(m_project.variables.at(variable).station);
    return station == m_loop.stations().constEnd() ? QString() : station->error();
}

std::optional<qint64> LineReport::ageMs(int variable) const
{
    const std::optional<Duration> at = m_loop.values().refreshedAt(variable);
    return at ? std::make_optional<qint64>(wholeMilliseconds(m_clock.now() - *at)) : std::nullopt;
}

Json LineReport::valueObject(int variable) const
{
    const host::ValueStore& values = m_loop.values();
    const host::Variable& source = m_project.variables.at(variable);
    GatewayValue value;
    value.line = m_line;
    value.name = source.name;
    value.station = source.station;
    value.tag = source.tag;
    value.element = source.element;
    value.type = values.type(variable);
    if (values.wasRead(variable)) {
        value.bytes = values.bytes(variable);
        value.value = host::jsonOf(values.values(variable));
    }
    value.unit = source.unit;
    value.quality = m_loop.quality(variable);
    if (value.quality != Quality::Good)
        value.error = whyNotGood(variable);
    Json object = host::jsonOf(value);
    if (const std::optional<qint64> age = ageMs(variable))
        object["ageMs"] = *age;
    return object;
}

QByteArray LineReport::popValues()
{
    if (m_news.isEmpty())
        return QByteArray();
    QByteArray line(R"({"event":"values","values":[)");
    while (!m_news.isEmpty() && line.size() < kEnoughBytes) {
        const int variable = m_news.dequeue();
        m_hasNews[variable] = false;
        if (!line.endsWith('['))
            line.append(',');
        append(line, valueObject(variable));
    }
    return line + "]}\n";
}

void LineReport::addState(QVector<QByteArray>& events, int station, const QString& state,
                          const QString& text)
{
    const auto told = m_told.constFind(station);
    if (told != m_told.constEnd() && told->state == state && told->text == text)
        return;
    m_told.insert(station, {state, text});
    Json event = {{"event", "state"}, {"line", m_line.toStdString()}};
    if (station != kLineItself)
        event["station"] = station;
    event["state"] = state.toStdString();
    event["text"] = text.toStdString();
    events.append(host::lineOf(event));
}

// A station of a line that is down is not told: what is to say is said of the line.
QVector<QByteArray> LineReport::popStates()
{
    QVector<QByteArray> events;
    if (!std::exchange(m_checksStates, false))
        return events;
    const host::LineView line = m_loop.line();
    if (!line.isUp && line.reportedError.isEmpty())
        return events; // it was not tried yet
    const QString text = host::reportedLineStateText(line);
    addState(events, kLineItself, line.isUp ? QStringLiteral("up") : QStringLiteral("down"),
             line.isUp ? text + QStringLiteral(": up") : text);
    if (!line.isUp) {
        // When the line is up again, it is news how they are.
        const Told told = m_told.value(kLineItself);
        m_told = {{kLineItself, told}};
        return events;
    }
    const QVector<StationView> stations = m_loop.stationViews();
    for (const StationView& station : stations) {
        // On the way to a connection, or to a reason why there is none.
        if (station.state != QLatin1String("connecting"))
            addState(events, station.number, station.state, host::conditionText(station));
    }
    return events;
}

Json LineReport::status() const
{
    Json status = host::jsonOf(host::statusOf(m_loop), m_clock.now());
    status["memoryKb"] = memoryKb();
    return status;
}

QVector<QByteArray> LineReport::ages() const
{
    QVector<QByteArray> lines;
    int next = 0;
    do {
        Json event = {{"event", "ages"}, {"first", next}};
        Json ages = Json::array();
        for (int i = 0; i < kAgesInLine && next < m_known.size(); ++i, ++next) {
            const std::optional<qint64> age = ageMs(next);
            ages.push_back(age ? Json(*age) : Json());
        }
        event["ages"] = std::move(ages);
        if (lines.isEmpty())
            event["status"] = status();
        lines.append(host::lineOf(event));
    } while (next < m_known.size());
    return lines;
}

} // namespace micro850::gateway
