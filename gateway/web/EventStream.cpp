#include "EventStream.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace micro850::gateway {

EventStream::~EventStream()
{
    if (m_log)
        m_left(this);
}

void EventStream::begin(bool anew)
{
    // A browser connects again after so many milliseconds.
    m_text = "retry: 1000\n\n";
    if (anew)
        m_text += m_log->encoded("reloaded", "{}", 0);
    startPass(true);
}

// Its reader takes values for fresh again when it hears of ages: so these come when it has got all
// that it missed. After a reload they would be those of other variables; then a snapshot comes.
void EventStream::resume(qint64 number)
{
    m_text = "retry: 1000\n\n";
    m_next = number;
    m_valuesUpTo = number - 1;
    m_catchUpTo = number - 1;
    m_missedUpTo = m_log->last();
    m_owesAges = number > m_log->lastReload();
}

void EventStream::handleReload()
{
    m_inPass = false;
    m_owesAges = false;
    m_next = std::min(m_next, m_log->last());
    m_valuesUpTo = m_catchUpTo = m_log->last();
}

int EventStream::read(char* bytes, int size)
{
    int copied = 0;
    while (copied < size) {
        if (m_taken == m_text.size()) {
            m_text = m_log ? next() : QByteArray();
            m_taken = 0;
        }
        if (m_text.isEmpty())
            break;
        const int count = std::min(size - copied, m_text.size() - m_taken);
        std::memcpy(bytes + copied, m_text.constData() + m_taken, static_cast<std::size_t>(count));
        m_taken += count;
        copied += count;
    }
    return copied == 0 && !m_log ? kEnd : copied;
}

// Empty when there is nothing now.
QByteArray EventStream::next()
{
    for (;;) {
        if (!m_inPass && m_next > m_missedUpTo && std::exchange(m_owesAges, false))
            return m_log->encoded("ages", m_log->agesText(), m_next - 1);
        if (!m_inPass && m_next > m_log->last())
            return QByteArray();
        const QByteArray text = m_inPass ? nextOfPass() : nextOfLog();
        if (!text.isEmpty())
            return text;
    }
}

void EventStream::startPass(bool isSnapshot)
{
    m_inPass = true;
    m_isSnapshot = isSnapshot;
    m_since = isSnapshot ? -1 : m_valuesUpTo;
    m_passBegan = m_log->last();
    m_variable = 0;
    if (!isSnapshot)
        return;
    m_next = m_passBegan + 1;
    m_owesAges = false;
}

// Empty when nothing of the event is for this reader.
QByteArray EventStream::nextOfLog()
{
    if (m_next < m_log->firstKept()) {
        const bool missedReload = m_next <= m_log->lastReload();
        startPass(true);
        return missedReload ? m_log->encoded("reloaded", "{}", 0) : QByteArray();
    }
    const RecentEvents::Event& event = m_log->event(m_next);
    const bool hasValues = event.kind == RecentEvents::Kind::Values;
    if (hasValues && m_next > m_valuesUpTo && m_next <= m_catchUpTo) {
        startPass(false);
        return QByteArray();
    }
    const qint64 number = m_next++;
    if (event.kind == RecentEvents::Kind::Reloaded) {
        startPass(true);
        return event.bytes;
    }
    if (hasValues && number <= m_valuesUpTo)
        return QByteArray();
    // Of a time when this reader was away: nobody has made any since.
    const bool tellsTimes =
        event.kind == RecentEvents::Kind::Ages || event.kind == RecentEvents::Kind::Status;
    if (tellsTimes && number <= m_missedUpTo)
        return QByteArray();
    m_valuesUpTo = std::max(m_valuesUpTo, number);
    return event.bytes;
}

// Empty when nothing changed that is not sent.
QByteArray EventStream::nextOfPass()
{
    const int size = m_log->variables();
    QByteArray data = R"({"values":[)";
    bool isFirst = true;
    for (; m_variable < size && (isFirst || data.size() < RecentEvents::kUsualPart); ++m_variable) {
        if (m_log->changedBy(m_variable) <= m_since)
            continue;
        if (!isFirst)
            data += ',';
        isFirst = false;
        data += m_log->valueText(m_variable);
    }
    while (m_variable < size && m_log->changedBy(m_variable) <= m_since)
        ++m_variable;
    const bool isLast = m_variable == size;
    data += m_isSnapshot && !isLast ? R"(],"more":true})" : "]}";
    // Who goes away during a pass gets the pass again.
    const qint64 before = m_isSnapshot ? 0 : std::min(m_next - 1, m_valuesUpTo);
    if (isLast) {
        m_inPass = false;
        m_valuesUpTo = m_passBegan;
        m_catchUpTo = m_log->last();
    }
    if (isFirst && !m_isSnapshot)
        return QByteArray();
    const qint64 id = isLast ? std::min(m_next - 1, m_passBegan) : before;
    return m_log->encoded(m_isSnapshot ? "snapshot" : "values", data, id);
}

} // namespace micro850::gateway
