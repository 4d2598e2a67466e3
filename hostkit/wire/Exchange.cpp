#include "Exchange.h"

#include "FrameText.h"

#include <algorithm>

namespace micro850::host {

namespace {

// The longest reply of a 504-byte connection, with its header, every byte doubled.
const int kLongestReply = 2 * 520;
// How often within one time-out to ask for a corrupt reply again, or to repeat a request.
const int kLinkRetries = 3;

} // namespace

/// The state of one request in flight.
struct Exchange::Attempt
{
    const QByteArray& frame;
    Counters& counters;
    Answer answer;
    Duration sentAt{0};
    Duration heardAt{0}; ///< the last byte
    Duration time{0};
    bool asked = false;
    int asksAgain = kLinkRetries;
    int repetitions = kLinkRetries;
    bool done = false;

    Duration deadline() const { return sentAt + time; }
    // A reply that has not begun by then is late.
    Duration lateAt() const { return sentAt + time / 2; }
    // A frame without a further byte until then has lost its end.
    Duration cutOffAt() const { return heardAt + time / 4; }
};

Exchange::Exchange(Line& line, const Clock& clock, const PortSettings& settings)
    : m_line(line), m_clock(clock), m_settings(settings)
{
}

Duration Exchange::timeoutFor(int requestBytes) const
{
    if (m_settings.timeoutMs != 0)
        return std::chrono::milliseconds(m_settings.timeoutMs);
    return m_settings.timeOf(requestBytes + kLongestReply) +
           std::chrono::milliseconds(m_settings.deviceBudgetMs);
}

Answer Exchange::run(const QByteArray& frame, Counters& counters)
{
    return run(frame, counters, timeoutFor(frame.size()));
}

Answer Exchange::run(const QByteArray& frame, Counters& counters, Duration timeout)
{
    const qint64 corruptBefore = counters.corrupt;
    const int noiseBefore = m_collector.noiseBytes();
    Answer answer = waitForReply(frame, counters, timeout);
    answer.garbled = counters.corrupt != corruptBefore || m_collector.noiseBytes() != noiseBefore;
    return answer;
}

Answer Exchange::waitForReply(const QByteArray& frame, Counters& counters, Duration timeout)
{
    Attempt attempt = {frame, counters, Answer()};
    m_line.discardInput();
    m_collector.reset();
    attempt.answer.outcome = Answer::Outcome::DeviceGone;
    attempt.sentAt = m_clock.now();
    attempt.time = timeout;
    const bool sent = sendFrame(frame, counters);
    attempt.answer.request = decodeRequest(uncheckedDataOf(frame));
    if (!sent)
        return attempt.answer;
    if (m_meanwhile)
        m_meanwhile();
    while (m_clock.now() < attempt.deadline()) {
        if (!askWhereDue(attempt) || !collect(attempt) || attempt.done)
            return attempt.answer;
    }
    ++counters.timedOut;
    attempt.answer.outcome = Answer::Outcome::TimedOut;
    return attempt.answer;
}

// Asks once for a reply that has not begun. A reply that stopped in the middle counts as corrupt.
// False when the device is gone.
bool Exchange::askWhereDue(Attempt& attempt)
{
    const Duration now = m_clock.now();
    if (m_collector.inFrame()) {
        if (now < attempt.cutOffAt())
            return true;
        ++attempt.counters.corrupt;
        show(Direction::In, m_collector.abandon());
        return askAgain(attempt);
    }
    if (attempt.asked || now < attempt.lateAt())
        return true;
    attempt.asked = true;
    return askAgain(attempt);
}

// False when the device is gone.
bool Exchange::collect(Attempt& attempt)
{
    Duration until = attempt.deadline();
    if (m_collector.inFrame())
        until = std::min(until, attempt.cutOffAt());
    else if (!attempt.asked)
        until = std::min(until, attempt.lateAt());
    QByteArray bytes;
    if (!m_line.receive(bytes, std::max(Duration(0), until - m_clock.now())))
        return false;
    if (!bytes.isEmpty())
        attempt.heardAt = m_clock.now();
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
        return handleFrame(event, attempt);
    case ReplyCollector::Kind::Corrupt:
        ++attempt.counters.corrupt;
        return attempt.done || askAgain(attempt);
    case ReplyCollector::Kind::Nak:
        ++attempt.counters.refusedByPeer;
        return attempt.done || attempt.repetitions-- <= 0 ||
               sendFrame(attempt.frame, attempt.counters);
    case ReplyCollector::Kind::Enq:
        // The peer asks about the reply, which has not come: an acknowledgement would lose it.
        return attempt.done ? sendControl(m_lastResponse) : askAgain(attempt);
    case ReplyCollector::Kind::Ack:
        break;
    }
    return true;
}

// A NAK makes the peer repeat the message whose acknowledgement it waits for. Without such a
// message it has no effect.
bool Exchange::askAgain(Attempt& attempt)
{
    if (attempt.asksAgain-- <= 0)
        return true;
    ++attempt.counters.retries;
    return sendControl(kNak);
}

bool Exchange::handleFrame(const ReplyCollector::Event& event, Attempt& attempt)
{
    const Reply reply = decodeReply(event.data);
    // Bytes 00 before the data do not change the CRC, but they shift every field.
    if (!attempt.done && (!reply.valid || (reply.command & kReplyCommandBit) == 0)) {
        ++attempt.counters.corrupt;
        return askAgain(attempt);
    }
    if (attempt.done || !answers(reply, attempt.answer.request)) {
        // The peer waits for this acknowledgement, too, before it sends the right reply.
        ++attempt.counters.late;
        return sendControl(kAck);
    }
    attempt.done = true;
    attempt.answer.outcome = Answer::Outcome::Answered;
    attempt.answer.frame = event.frame();
    attempt.answer.reply = reply;
    attempt.answer.roundTrip = m_clock.now() - attempt.sentAt;
    ++attempt.counters.answered;
    if (!reply.good())
        attempt.counters.countError(statusKey(reply));
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
    const QByteArray bytes = linkControl(control);
    show(Direction::Out, bytes);
    return m_line.send(bytes);
}

void Exchange::acknowledge()
{
    if (m_unacknowledged && m_line.isOpen())
        sendControl(kAck);
    m_unacknowledged = false;
}

} // namespace micro850::host
