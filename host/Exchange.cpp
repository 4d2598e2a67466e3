#include "Exchange.h"

namespace host {

namespace {

// The longest reply of a 504-byte connection, with its header, every byte doubled.
const int kLongestReply = 2 * 520;
// How often within one time-out a corrupt reply is asked for again, or a request repeated.
const int kLinkRetries = 3;

} // namespace

/// What is remembered while one request is in flight.
struct Exchange::Attempt
{
    const QByteArray& frame;
    Counters& counters;
    Answer answer;
    qint64 sentAt = 0;
    int asksAgain = kLinkRetries;
    int repetitions = kLinkRetries;
    bool done = false;
};

Exchange::Exchange(Line& line, const Clock& clock, const PortSettings& settings)
    : m_line(line), m_clock(clock), m_settings(settings)
{
}

int Exchange::timeoutFor(int requestBytes) const
{
    if (m_settings.timeoutMs != 0)
        return m_settings.timeoutMs;
    return m_settings.timeOf(requestBytes + kLongestReply) + m_settings.deviceBudgetMs;
}

Answer Exchange::run(const QByteArray& frame, Counters& counters)
{
    Attempt attempt = {frame, counters, Answer()};
    attempt.answer.request = decodeRequest(dataOf(frame));
    m_line.discardInput();
    m_collector.reset();
    attempt.answer.outcome = Answer::Outcome::DeviceGone;
    attempt.sentAt = m_clock.now();
    const int time = timeoutFor(frame.size());
    const qint64 deadline = attempt.sentAt + time;
    // By then a reply that is on its way has begun.
    const qint64 lateAt = attempt.sentAt + time / 2;
    if (!sendFrame(frame, counters))
        return attempt.answer;

    bool asked = false;
    for (qint64 now = m_clock.now(); now < deadline; now = m_clock.now()) {
        if (!asked && now >= lateAt) {
            asked = true;
            if (!m_collector.inFrame() && !askAgain(attempt))
                return attempt.answer;
        }
        if (!collect(attempt, static_cast<int>((asked ? deadline : lateAt) - now)))
            return attempt.answer;
        if (attempt.done)
            return attempt.answer;
    }
    ++counters.timedOut;
    attempt.answer.outcome = Answer::Outcome::TimedOut;
    return attempt.answer;
}

// False when the device is gone.
bool Exchange::collect(Attempt& attempt, int waitMs)
{
    QByteArray bytes;
    if (!m_line.receive(bytes, waitMs))
        return false;
    attempt.counters.bytesReceived += bytes.size();
    for (const ReplyCollector::Event& event : m_collector.feed(bytes)) {
        if (!handle(event, attempt))
            return false;
    }
    return true;
}

void Exchange::show(Direction direction, const QByteArray& bytes) const
{
    if (m_observer)
        m_observer(direction, bytes, m_clock.now());
}

bool Exchange::handle(const ReplyCollector::Event& event, Attempt& attempt)
{
    // An acknowledgement comes with its frame.
    if (event.kind != ReplyCollector::Kind::Ack)
        show(Direction::In, event.raw);
    switch (event.kind) {
    case ReplyCollector::Kind::Frame:
        return takeFrame(event.data, attempt);
    case ReplyCollector::Kind::Corrupt:
        ++attempt.counters.corrupt;
        return attempt.done || askAgain(attempt);
    case ReplyCollector::Kind::Nak:
        ++attempt.counters.refusedByPeer;
        return attempt.done || attempt.repetitions-- <= 0 ||
               sendFrame(attempt.frame, attempt.counters);
    case ReplyCollector::Kind::Enq:
        // Asked for the reply in flight, which has not come: to acknowledge it would lose it.
        return attempt.done ? sendControl(m_lastResponse) : askAgain(attempt);
    case ReplyCollector::Kind::Ack:
        break;
    }
    return true;
}

// A NAK makes a peer repeat the message that it waits to be acknowledged; without one it is
// nothing.
bool Exchange::askAgain(Attempt& attempt)
{
    if (attempt.asksAgain-- <= 0)
        return true;
    ++attempt.counters.retries;
    return sendControl(kNak);
}

bool Exchange::takeFrame(const QByteArray& data, Attempt& attempt)
{
    const Reply reply = decodeReply(data);
    if (attempt.done || !answers(reply, attempt.answer.request)) {
        // The peer waits for its acknowledgement all the same, before it sends what is in flight.
        ++attempt.counters.late;
        return sendControl(kAck);
    }
    attempt.done = true;
    attempt.answer.outcome = Answer::Outcome::Answered;
    attempt.answer.data = data;
    attempt.answer.reply = reply;
    attempt.answer.roundTripMs = m_clock.now() - attempt.sentAt;
    ++attempt.counters.answered;
    if (!reply.good())
        ++attempt.counters.errors[statusKey(reply)];
    m_lastResponse = kAck;
    m_unacknowledged = true;
    return true;
}

bool Exchange::sendFrame(const QByteArray& frame, Counters& counters)
{
    ++counters.sent;
    counters.retries += frame == m_lastFrame ? 1 : 0;
    m_lastFrame = frame;
    counters.bytesSent += frame.size();
    m_lastResponse = kAck; // the frame begins with one
    m_unacknowledged = false;
    show(Direction::Out, frame);
    return m_line.send(frame);
}

bool Exchange::sendControl(char control)
{
    m_lastResponse = control;
    const QByteArray bytes = QByteArray().append(kDle).append(control);
    show(Direction::Out, bytes);
    return m_line.send(bytes);
}

void Exchange::acknowledge()
{
    if (m_unacknowledged && m_line.isOpen())
        sendControl(kAck);
    m_unacknowledged = false;
}

} // namespace host
