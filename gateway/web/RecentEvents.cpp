#include "RecentEvents.h"

#include "Message.h"
#include "Problem.h"

#include <QtCore/QRandomGenerator>

namespace micro850::gateway {

namespace {

QByteArray newRun()
{
    return QByteArray::number(QRandomGenerator::system()->generate64(), 16);
}

} // namespace

RecentEvents::RecentEvents(WebContext& context) : m_context(context), m_run(newRun())
{
    m_changedBy.fill(0, m_context.index.size());
}

std::optional<qint64> RecentEvents::numberOf(const QByteArray& id) const
{
    const int dash = id.indexOf('-');
    bool isNumber = false;
    const qint64 number = id.mid(dash + 1).toLongLong(&isNumber);
    const bool isOurs = dash > 0 && isNumber && id.left(dash) == m_run && number <= m_last;
    return isOurs ? std::optional(number) : std::nullopt;
}

QByteArray RecentEvents::encoded(const char* event, const QByteArray& data, qint64 id) const
{
    return "id: " + idOf(id) + "\nevent: " + event + "\ndata: " + data + "\n\n";
}

void RecentEvents::append(Kind kind, const char* event, const QByteArray& data)
{
    m_events.push_back({kind, encoded(event, data, ++m_last)});
    if (kind == Kind::Reloaded)
        m_lastReload = m_last;
    m_bytes += m_events.back().bytes.size();
    const std::size_t kMostEvents = 10000;
    while (m_events.size() > 1 && (m_bytes > kMostBytes || m_events.size() > kMostEvents)) {
        empty(m_events.front());
        m_events.pop_front();
    }
}

void RecentEvents::appendValues(const QVector<int>& variables)
{
    for (int at = 0; at < variables.size();) {
        QByteArray data = R"({"values":[)";
        const qint64 number = m_last + 1;
        for (bool isFirst = true; at < variables.size() && (isFirst || data.size() < kUsualPart);
             isFirst = false)
        {
            if (!isFirst)
                data += ',';
            const int variable = variables.at(at++);
            m_changedBy[variable] = number;
            data += valueText(variable);
        }
        append(Kind::Values, "values", data += "]}");
    }
}

void RecentEvents::forget(qint64 number)
{
    if (number >= firstKept())
        empty(m_events[positionOf(number)]);
}

void RecentEvents::empty(Event& event)
{
    m_bytes -= event.bytes.size();
    event.bytes = QByteArray();
}

void RecentEvents::forgetAll()
{
    m_events.clear();
    m_bytes = 0;
    ++m_last; // else the next event would seem to follow what is forgotten
}

void RecentEvents::handleReload()
{
    m_changedBy.fill(0, m_context.index.size());
    for (Event& event : m_events) {
        if (event.kind == Kind::Values || event.kind == Kind::Ages)
            empty(event);
    }
}

QByteArray RecentEvents::agesText() const
{
    QByteArray text = R"({"ages":{)";
    for (int line = 0; line < m_context.lines.size(); ++line) {
        const LineSettings& settings = m_context.lines.line(line);
        text += (line > 0 ? "," : "") + jsonText(host::jsonOf(settings.name)) + ":[";
        for (int variable = 0; variable < settings.project.variables.size(); ++variable) {
            const qint64 age = m_context.lines.ageMs(line, variable);
            if (variable > 0)
                text += ',';
            text += age < 0 ? QByteArray("null") : QByteArray::number(age);
        }
        text += ']';
    }
    return text + "}}";
}

} // namespace micro850::gateway
