#include "TraceReport.h"

#include "FrameText.h"

#include <algorithm>
#include <utility>

namespace micro850::host {

namespace {

const double kClassLimits[] = {1, 2, 5, 10, 20, 50, 100, 200, 500, 1000};
const int kBarWidth = 40;

QString msText(double ms)
{
    return ms < 0 ? QStringLiteral("-") : QStringLiteral("%1 ms").arg(ms, 0, 'f', 1);
}

// The same request under another number.
bool isSameRequest(const QByteArray& one, const QByteArray& other)
{
    const quint16 any = 0;
    return !one.isEmpty() && renumbered(wireFrame(one), any) == renumbered(wireFrame(other), any);
}

} // namespace

QVector<TraceEvent> TraceReport::add(const TraceRecord& record)
{
    QVector<TraceEvent> events;
    ReplyCollector& collector = record.direction == Direction::Sent ? m_sent : m_received;
    const QByteArray bytes(reinterpret_cast<const char*>(record.bytes.data()),
                           static_cast<int>(record.bytes.size()));
    for (const ReplyCollector::Event& event : collector.feed(bytes))
        handle(event, record, events);
    return events;
}

// What comes between a request and the next one belongs to it.
bool TraceReport::isWanted(const TraceEvent& event) const
{
    if (!m_filter)
        return true;
    return m_openSince >= 0 && event.kind != TraceEvent::Kind::Request
               ? m_openIsWanted
               : m_filter(event.request.tag(), event.microseconds);
}

void TraceReport::handle(const ReplyCollector::Event& event, const TraceRecord& record,
                         QVector<TraceEvent>& events)
{
    TraceEvent handled;
    handled.direction = record.direction;
    handled.number = ++m_messages;
    handled.microseconds = record.time.count();
    handled.raw = event.raw;
    handled.station = record.station;
    handled.request = m_open;
    if (m_lastAt >= 0) {
        handled.gapMs = static_cast<double>(handled.microseconds - m_lastAt) / 1000;
        m_longestGapMs = std::max(m_longestGapMs, handled.gapMs);
    }
    m_lastAt = handled.microseconds;
    handled.failed = true;
    switch (event.kind) {
    case ReplyCollector::Kind::Frame:
        handled.failed = false;
        handled.data = event.data.bytes();
        handled.text = frameText(event.frame());
        handleFrame(handled, events);
        break;
    case ReplyCollector::Kind::Corrupt:
        m_corrupt += isWanted(handled) ? 1 : 0;
        handled.kind = TraceEvent::Kind::Corrupt;
        handled.text = QStringLiteral("corrupt frame");
        break;
    case ReplyCollector::Kind::Nak:
        // Without a corrupt reply the host sends it when it has waited long enough.
        m_openIsRepeated = m_openIsRepeated ||
                           (record.direction == Direction::Sent && m_corrupt == m_corruptBefore);
        handled.text = controlText(event.kind);
        break;
    case ReplyCollector::Kind::Enq:
        handled.text = controlText(event.kind);
        break;
    }
    if (isWanted(handled))
        events.append(handled);
}

void TraceReport::handleFrame(TraceEvent& event, QVector<TraceEvent>& events)
{
    if (event.direction == Direction::Sent)
        handleRequest(event, events);
    else
        handleReply(event);
}

void TraceReport::handleRequest(TraceEvent& event, QVector<TraceEvent>& events)
{
    const auto tellAttempt = [&] {
        event.failed = event.attempt > 1;
        if (event.failed)
            event.text +=
                QStringLiteral(" (again: attempt %1 after %2)")
                    .arg(event.attempt)
                    .arg(msText(static_cast<double>(event.microseconds - m_sentAt) / 1000));
        m_sentAt = event.microseconds;
    };
    if (m_open.valid && event.data == m_openData) {
        event.kind = TraceEvent::Kind::Repetition;
        event.attempt = ++m_openAttempts;
        tellAttempt();
        m_repetitions += m_openIsWanted ? 1 : 0;
        m_openIsRepeated = true;
        return;
    }
    closeUnanswered(event.microseconds, events);
    event.kind = TraceEvent::Kind::Request;
    event.request = decodeRequest(event.data);
    m_openAttempts = isSameRequest(m_lastRequest, event.data) ? m_openAttempts + 1 : 1;
    event.attempt = m_openAttempts;
    tellAttempt();
    m_openIsWanted = isWanted(event);
    m_requests += m_openIsWanted ? 1 : 0;
    m_open = event.request;
    m_openData = event.data;
    m_openSince = event.microseconds;
    m_openStation = event.station;
    m_openIsRepeated = false;
    m_corruptBefore = m_corrupt;
}

void TraceReport::handleReply(TraceEvent& event)
{
    const Reply reply = decodeReply(event.data);
    if (!answers(reply, m_open)) {
        event.kind = TraceEvent::Kind::StrayReply;
        event.text += QStringLiteral(" (of another request)");
        event.failed = true;
        m_stray += isWanted(event) ? 1 : 0;
        return;
    }
    event.kind = TraceEvent::Kind::Reply;
    event.roundTripMs = static_cast<double>(event.microseconds - m_openSince) / 1000;
    event.failed = !reply.good();
    m_lastRequest.clear();
    if (m_openIsWanted)
        m_roundTrips.append(event.roundTripMs);
    if (m_openIsWanted && !reply.good()) {
        ++m_statuses[statusKey(reply)];
        ++m_failures[requestText(m_open) + QStringLiteral(": ") + statusText(reply)];
    }
    m_open = Request();
}

void TraceReport::closeUnanswered(qint64 microseconds, QVector<TraceEvent>& events)
{
    if (!m_open.valid)
        return;
    m_lastRequest = m_openData;
    const Request open = std::exchange(m_open, Request());
    if (!m_openIsWanted)
        return;
    const QString text = requestText(open);
    ++m_unanswered;
    ++m_failures[text + QStringLiteral(": no answer")];
    TraceEvent event;
    event.kind = TraceEvent::Kind::NoAnswer;
    event.microseconds = microseconds;
    event.station = m_openStation;
    event.request = open;
    event.attempt = m_openAttempts;
    event.failed = true;
    event.text = text + QStringLiteral(": no answer in %1")
                            .arg(msText(static_cast<double>(microseconds - m_openSince) / 1000));
    events.append(event);
}

QVector<TraceEvent> TraceReport::finish()
{
    QVector<TraceEvent> events;
    if (m_open.valid && !m_openIsRepeated) {
        const QString open = requestText(std::exchange(m_open, Request()));
        m_openAtEnd = m_openIsWanted ? open : QString();
    }
    closeUnanswered(m_lastAt, events);
    return events;
}

double TraceReport::roundTripMs(int percent) const
{
    if (m_roundTrips.isEmpty())
        return -1;
    QVector<double> sorted = m_roundTrips;
    std::sort(sorted.begin(), sorted.end());
    return sorted.at(std::max(0, (sorted.size() * percent + 99) / 100 - 1));
}

QVector<RoundTripClass> TraceReport::histogram() const
{
    QVector<RoundTripClass> classes;
    for (const double limit : kClassLimits)
        classes.append({limit, 0});
    classes.append({-1, 0});
    for (const double ms : m_roundTrips) {
        const auto found = std::lower_bound(std::begin(kClassLimits), std::end(kClassLimits), ms);
        ++classes[static_cast<int>(found - std::begin(kClassLimits))].answers;
    }
    return classes;
}

QStringList TraceReport::statistics() const
{
    QStringList lines = {
        QStringLiteral("requests %1, answered %2, without an answer %3, repeated %4, replies of "
                       "another request %5, corrupt %6")
            .arg(m_requests)
            .arg(answered())
            .arg(unanswered())
            .arg(m_repetitions)
            .arg(m_stray)
            .arg(m_corrupt),
        QStringLiteral("round trip: median %1, 99 % within %2, longest %3")
            .arg(msText(roundTripMs(50)), msText(roundTripMs(99)), msText(roundTripMs(100)))};
    if (m_longestGapMs >= 0)
        lines += QStringLiteral("longest silence: ") + msText(m_longestGapMs);
    if (!m_openAtEnd.isEmpty())
        lines.insert(1, QStringLiteral("1 not answered when the trace ends: ") + m_openAtEnd);
    int most = 0;
    for (const RoundTripClass& part : histogram())
        most = std::max(most, part.answers);
    for (const RoundTripClass& part : histogram()) {
        if (part.answers == 0)
            continue;
        const QString limit = part.limitMs < 0 ? QStringLiteral("> 1000 ms")
                                               : QStringLiteral("<= %1 ms").arg(part.limitMs);
        lines += QStringLiteral("%1 %2 %3")
                     .arg(limit, 10)
                     .arg(part.answers, 7)
                     .arg(QString(std::max(1, part.answers * kBarWidth / most), '#'));
    }
    for (auto failure = m_failures.constBegin(); failure != m_failures.constEnd(); ++failure)
        lines += QStringLiteral("failed %1x %2").arg(failure.value()).arg(failure.key());
    return lines;
}

} // namespace micro850::host
