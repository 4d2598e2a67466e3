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

void TraceReport::handle(const ReplyCollector::Event& event, const TraceRecord& record,
                         QVector<TraceEvent>& events)
{
    const bool sent = record.direction == Direction::Sent;
    TraceEvent handled = {TraceEvent::Kind::Control, record.direction, record.time.count(),
                          event.data.bytes(),        QString(),        -1};
    switch (event.kind) {
    case ReplyCollector::Kind::Frame:
        handled.text = frameText(event.frame());
        if (sent)
            handleRequest(handled);
        else
            handleReply(handled);
        break;
    case ReplyCollector::Kind::Corrupt:
        ++m_corrupt;
        handled.kind = TraceEvent::Kind::Corrupt;
        handled.text = QStringLiteral("corrupt frame");
        break;
    case ReplyCollector::Kind::Nak:
        // Without a corrupt reply the host sends it when it has waited long enough.
        m_openIsRepeated = m_openIsRepeated || (sent && m_corrupt == m_corruptBefore);
        handled.text = controlText(event.kind);
        break;
    case ReplyCollector::Kind::Enq:
        handled.text = controlText(event.kind);
        break;
    }
    events.append(handled);
}

void TraceReport::handleRequest(TraceEvent& event)
{
    if (m_open.valid && event.data == m_openData) {
        event.kind = TraceEvent::Kind::Repetition;
        event.text += QStringLiteral(" (again)");
        ++m_repetitions;
        m_openIsRepeated = true;
        return;
    }
    closeUnanswered();
    event.kind = TraceEvent::Kind::Request;
    ++m_requests;
    m_open = decodeRequest(event.data);
    m_openData = event.data;
    m_openSince = event.microseconds;
    m_openIsRepeated = false;
    m_corruptBefore = m_corrupt;
}

void TraceReport::handleReply(TraceEvent& event)
{
    const Reply reply = decodeReply(event.data);
    if (!answers(reply, m_open)) {
        event.kind = TraceEvent::Kind::StrayReply;
        event.text += QStringLiteral(" (of another request)");
        ++m_stray;
        return;
    }
    event.kind = TraceEvent::Kind::Reply;
    event.roundTripMs = static_cast<double>(event.microseconds - m_openSince) / 1000;
    m_roundTrips.append(event.roundTripMs);
    if (!reply.good()) {
        ++m_statuses[statusKey(reply)];
        ++m_failures[requestText(m_open) + QStringLiteral(": ") + statusText(reply)];
    }
    m_open = Request();
}

void TraceReport::closeUnanswered()
{
    if (!m_open.valid)
        return;
    const QString text = requestText(m_open);
    ++m_unanswered;
    ++m_failures[text + QStringLiteral(": no answer")];
    m_open = Request();
}

void TraceReport::finish()
{
    if (m_open.valid && !m_openIsRepeated)
        m_openAtEnd = requestText(std::exchange(m_open, Request()));
    closeUnanswered();
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
