#include "Exchange.h"

#include "FrameText.h"

#include <algorithm>
#include <utility>

namespace micro850::host {

namespace {

// The longest reply of a 504-byte connection, with its header, every byte doubled.
const int kLongestReply = 2 * 520;
// How often within one time-out to ask for a reply again, or to repeat a request that was refused.
// A peer gives up a message that is refused more often.
const int kLinkRetries = 3;
// The pauses between two times that a lost reply is asked for grow up to this.
const std::chrono::milliseconds kLongestPause(100);
// After an interrupt.
const std::chrono::milliseconds kInterruptedTime(500);
// A signal that comes just before a wait does not end it.
const std::chrono::milliseconds kInterruptLook(200);

// More numbers of requests than can have replies on the way.
const int kMostOpen = 32;
// A peer that answered late before makes a computed time-out at most so many times longer.
const int kMostGrowth = 4;

// Bytes that the reply has on the line, but for strings and doubled bytes; of a read at most, as
// long as no reply to one of so many elements came.
int expectedReplyBytes(const Request& request, const ReplySizes& sizes)
{
    const int frame = 24; // of a reply without values
    const int setUp = 64;
    const int element = 8;
    if (request.service == kReadTagFragmented)
        return sizes.expected(request.count,
                              std::min(frame + element * request.count, kLongestReply / 2));
    return request.service == kWriteTagFragmented ? frame : setUp;
}

} // namespace

/// The state of one request in flight.
struct Exchange::Attempt
{
    QByteArray frame; ///< with the number under which it was last sent
    Counters& counters;
    Answer& answer;
    Last self;           ///< what the next request will know of this one
    Duration now{0};     ///< when the line was last looked at
    Duration heardAt{0}; ///< the last byte
    Duration time{0};
    Duration patience{0}; ///< a silence that is longer than usual; 0 while that is not known
    Duration pause{0};    ///< after the next time of asking
    Duration askAt{0};    ///< unless bytes come
    QByteArray begun = QByteArray(); ///< of a frame, when it stopped
    int skipped = 0;                 ///< bytes of the frame that are not sent
    int questions = 0;               ///< for a reply that did not come
    int naksLeft = kLinkRetries;
    int repetitions = kLinkRetries;
    bool isRenumbered = false; ///< not the driver's number
    bool stopped = false;      ///< the frame that has begun
    bool disturbed = false;    ///< the round trip says nothing
    bool interrupted = false;  ///< so that the time is shorter
    bool done = false;

    Duration deadline() const { return self.sentAt + time; }
    // A frame without a further byte until then has lost its end.
    Duration cutOffAt() const { return heardAt + (patience > Duration(0) ? patience : time / 4); }
    Duration dueAt(bool inFrame) const
    {
        const bool mayStop = inFrame && !stopped;
        return mayStop ? cutOffAt() : askAt;
    }
    void noteBytes()
    {
        heardAt = now;
        askAt = std::max(askAt, now + patience);
        stopped = false;
    }
    void countCorrupt()
    {
        ++counters.corrupt;
        disturbed = true;
    }
    // The rest of a frame does not come. What was asked for meanwhile is no copy of it.
    void dropBegun()
    {
        countCorrupt();
        self.owed = std::max(0, self.owed - (begun.isEmpty() ? 0 : 1));
        begun.clear();
    }
};

Exchange::Exchange(Line& line, const Clock& clock, const PortSettings& settings)
    : m_line(line), m_clock(clock), m_settings(settings),
      m_byteTime(std::chrono::microseconds(settings.bitsPerByte() * 1000000 / settings.baud + 1))
{
}

Duration Exchange::timeoutFor(int requestBytes) const
{
    if (m_settings.timeoutMs != 0)
        return std::chrono::milliseconds(m_settings.timeoutMs);
    return m_settings.timeOf(requestBytes + kLongestReply) +
           delayFor(std::chrono::milliseconds(m_settings.deviceBudgetMs));
}

Duration Exchange::delayFor(Duration budget) const
{
    const Duration known = budget + 2 * m_line.transportDelay();
    const Duration longest = m_roundTrips.longest();
    return longest <= known ? known : std::min(longest, kMostGrowth * known);
}

Answer Exchange::run(const QByteArray& frame, Counters& counters)
{
    return run(frame, counters, timeoutFor(frame.size()));
}

Answer Exchange::run(const QByteArray& frame, Counters& counters, Duration timeout)
{
    const qint64 corruptBefore = counters.corrupt;
    const qint64 lateBefore = counters.late;
    const int noiseBefore = m_collector.noiseBytes();
    Answer answer = waitForReply(frame, counters, timeout);
    answer.garbled = counters.corrupt != corruptBefore || m_collector.noiseBytes() != noiseBefore;
    answer.late = counters.late != lateBefore;
    return answer;
}

Answer Exchange::waitForReply(const QByteArray& frame, Counters& counters, Duration timeout)
{
    Answer answer;
    Attempt attempt = {frame, counters, answer, Last()};
    attempt.time = timeout;
    begin(attempt);
    bool present = sendRequest(attempt);
    if (present && m_meanwhile)
        m_meanwhile();
    setPace(attempt);
    attempt.now = m_clock.now();
    for (; present && !attempt.done && attempt.now < attempt.deadline(); heedInterrupt(attempt))
        present = askWhereDue(attempt) && collect(attempt);
    answer.endedAt = attempt.now;
    if (!present) {
        answer.outcome = Answer::Outcome::DeviceGone;
        attempt.self.owed = 0;
    } else if (attempt.interrupted && !attempt.done) {
        answer.outcome = Answer::Outcome::Interrupted;
    } else if (!attempt.done) {
        ++counters.timedOut;
    }
    attempt.self.answered = attempt.done;
    attempt.self.number = answer.request.tns;
    m_lastCounters = &counters;
    // A peer answers in order: what came before an answer does not come any more.
    if (attempt.done && !attempt.disturbed)
        m_open.clear();
    else if (m_last.isOpen())
        keepOpenNumbers();
    m_last = std::move(attempt.self);
    return answer;
}

void Exchange::keepOpenNumbers()
{
    m_open.append(m_last.number);
    m_open += m_last.others;
    m_open.remove(0, std::max(0, m_open.size() - kMostOpen));
}

bool Exchange::isInUse(quint16 tns) const
{
    return m_last.has(tns) || m_open.contains(tns);
}

// A reply that is on its way gets the time to come: the outcome of a write would be unknown.
void Exchange::heedInterrupt(Attempt& attempt) const
{
    if (attempt.interrupted || !m_interrupt || !m_interrupt())
        return;
    attempt.interrupted = true;
    attempt.time =
        std::min<Duration>(attempt.time, attempt.now - attempt.self.sentAt + kInterruptedTime);
}

void Exchange::begin(Attempt& attempt)
{
    const int commandAt = 6;
    const quint8 unconnected = 0x0B;
    const bool isRepeated = !m_last.answered && attempt.frame == m_last.frame;
    const bool mayBeginSetUp = ByteSlice(attempt.frame).at(commandAt) == unconnected;
    // The driver counts for each station from the same number on.
    const bool mayBeInUse =
        &attempt.counters != m_lastCounters || m_last.isOpen() || !m_open.isEmpty();
    attempt.self.frame = attempt.frame;
    if (isRepeated || mayBeginSetUp || mayBeInUse)
        number(attempt, isRepeated);
    attempt.counters.retries += isRepeated ? 1 : 0;
    // Copies that are still to come are told from the reply; a part of one would be noise.
    if (m_last.owed == 0) {
        m_line.discardInput();
        m_collector.reset();
    }
    attempt.self.sentAt = attempt.heardAt = m_clock.now();
}

// A request that begins a set-up, or a read that the driver repeats, is sent under a number of the
// host's own: a peer would take it for the repetition of a message, and not answer. So is one whose
// number another request had, of which a reply may still come. Any other request that the driver
// repeats must not be carried out twice: it keeps the number under which it went out, and goes
// without the acknowledgement, which would make the peer forget the reply that it may still have.
void Exchange::number(Attempt& attempt, bool isRepeated)
{
    const int acknowledgement = 2;
    Request& request = attempt.answer.request;
    request = decodeRequest(uncheckedDataOf(attempt.frame));
    const bool isIdentity = request.service == kGetAttributesAll;
    const quint16 driverNumber = request.tns;
    quint16 number = driverNumber;
    if (isRepeated && !isRepeatable(request)) {
        number = m_last.number;
        attempt.skipped = acknowledgement;
        attempt.disturbed = true;
    } else if (isRepeated || isIdentity || isInUse(driverNumber)) {
        m_driverNumber = driverNumber;
        number = ownTransaction();
    }
    attempt.isRenumbered = number != driverNumber;
    if (attempt.isRenumbered)
        attempt.frame = renumbered(attempt.frame, number);
}

// Decodes the request, too, which then needs not delay it. Before the first answer nothing is
// known: the reply is asked for once, at half the time-out.
void Exchange::setPace(Attempt& attempt)
{
    Request& request = attempt.answer.request;
    request = decodeRequest(uncheckedDataOf(attempt.frame));
    if (!attempt.isRenumbered)
        m_driverNumber = request.tns;
    attempt.self.bytes =
        timeOnLine(attempt.frame.size() + expectedReplyBytes(request, m_replySizes));
    attempt.askAt = attempt.self.sentAt + attempt.time / 2;
    if (!m_roundTrips.isKnown())
        return;
    attempt.patience = m_roundTrips.patience(attempt.self.bytes, m_line.transportDelay());
    attempt.pause = attempt.patience;
    attempt.askAt = std::min(attempt.askAt, attempt.self.sentAt + attempt.patience);
}

// Asks for a reply that has not begun or that stopped in the middle. False when the device is gone.
bool Exchange::askWhereDue(Attempt& attempt)
{
    const bool begun = m_collector.inFrame();
    if (attempt.now < attempt.dueAt(begun))
        return true;
    if (begun && attempt.patience > Duration(0) && !attempt.stopped) {
        // A peer that pauses sends the rest later.
        attempt.stopped = true;
        attempt.begun = m_collector.begun();
    } else if (begun) {
        attempt.dropBegun();
        show(Direction::In, m_collector.abandon());
    }
    return askForMissing(attempt, begun);
}

// With growing pauses, because the question may be lost, too. A peer that is busy answers each one
// later.
bool Exchange::askForMissing(Attempt& attempt, bool begun)
{
    if (attempt.patience == Duration(0)) {
        if (!begun) {
            attempt.askAt = attempt.deadline();
            ++attempt.self.owed;
        }
        return askAgain(attempt);
    }
    attempt.askAt = attempt.now + attempt.pause;
    attempt.pause =
        std::min(2 * attempt.pause, std::max<Duration>(attempt.patience, kLongestPause));
    const bool isOdd = attempt.questions++ % 2 != 0;
    if (isRepeatable(attempt.answer.request) && (isOdd || attempt.naksLeft <= 0))
        return repeatRequest(attempt);
    attempt.self.owed += attempt.naksLeft > 0 ? 1 : 0;
    return askAgain(attempt);
}

bool Exchange::repeatRequest(Attempt& attempt)
{
    ++attempt.counters.retries;
    ++attempt.self.owed;
    attempt.self.others.append(ownTransaction());
    attempt.frame = renumbered(attempt.frame, attempt.self.others.last());
    return sendRequest(attempt);
}

// False when the device is gone.
bool Exchange::collect(Attempt& attempt)
{
    Duration until = std::min(attempt.deadline(), attempt.dueAt(m_collector.inFrame()));
    if (m_interrupt)
        until = std::min<Duration>(until, attempt.now + kInterruptLook);
    QByteArray bytes;
    if (!m_line.receive(bytes, std::max(Duration(0), until - attempt.now)))
        return false;
    attempt.now = m_clock.now();
    if (!bytes.isEmpty())
        attempt.noteBytes();
    attempt.counters.bytesReceived += bytes.size();
    const ReplyCollector::Events events = m_collector.feed(std::move(bytes));
    for (const ReplyCollector::Event& event : events) {
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
    if (!attempt.begun.isEmpty())
        noteRestart(event, attempt);
    show(Direction::In, event.raw);
    switch (event.kind) {
    case ReplyCollector::Kind::Frame:
        return handleFrame(event, attempt);
    case ReplyCollector::Kind::Corrupt:
        attempt.countCorrupt();
        return attempt.done || askAgain(attempt);
    case ReplyCollector::Kind::Nak:
        ++attempt.counters.refusedByPeer;
        attempt.disturbed = true;
        return attempt.done || repeatRefused(attempt);
    case ReplyCollector::Kind::Enq:
        // The peer asks about the reply, which has not come: an acknowledgement would lose it.
        return attempt.done ? sendControl(m_lastResponse) : askAgain(attempt);
    }
    return true;
}

// The refusal may be that of a repetition of the request before, which was still on its way. Only
// what may be carried out twice is sent again then.
bool Exchange::repeatRefused(Attempt& attempt)
{
    const bool mayBeOfAnother = !m_last.others.isEmpty();
    if ((mayBeOfAnother && !isRepeatable(attempt.answer.request)) || attempt.repetitions-- <= 0)
        return true;
    ++attempt.counters.retries;
    return sendRequest(attempt);
}

// A NAK makes the peer repeat the message whose acknowledgement it waits for. Without such a
// message it has no effect.
bool Exchange::askAgain(Attempt& attempt)
{
    if (attempt.naksLeft-- <= 0)
        return true;
    ++attempt.counters.retries;
    return sendControl(kNak);
}

// The peer sent a frame that had stopped from its beginning.
void Exchange::noteRestart(const ReplyCollector::Event& event, Attempt& attempt)
{
    const bool isFrame =
        event.kind == ReplyCollector::Kind::Frame || event.kind == ReplyCollector::Kind::Corrupt;
    if (!isFrame)
        return;
    const QByteArray begun = attempt.begun;
    if (event.raw.startsWith(begun)) {
        attempt.begun.clear();
        return;
    }
    attempt.dropBegun();
    show(Direction::In, begun);
}

bool Exchange::handleFrame(const ReplyCollector::Event& event, Attempt& attempt)
{
    Reply reply = decodeReply(event.data);
    // Bytes 00 before the data do not change the CRC, but they shift every field.
    if (!attempt.done && (!reply.valid || (reply.command & kReplyCommandBit) == 0)) {
        attempt.countCorrupt();
        return askAgain(attempt);
    }
    Request& request = attempt.answer.request;
    const int repetition = attempt.self.others.indexOf(reply.tns);
    const quint16 number = std::exchange(request.tns, repetition >= 0 ? reply.tns : request.tns);
    if (attempt.done || !answers(reply, request)) {
        request.tns = number;
        return handleStray(reply, attempt);
    }
    if (repetition >= 0) {
        attempt.self.others[repetition] = number;
        attempt.disturbed = true;
    }
    attempt.done = true;
    attempt.answer.outcome = Answer::Outcome::Answered;
    attempt.answer.frame = event.frame();
    attempt.answer.roundTrip = attempt.now - attempt.self.sentAt;
    noteAnswer(attempt, event.raw.size());
    ++attempt.counters.answered;
    if (!reply.good())
        attempt.counters.countError(statusKey(reply));
    attempt.answer.reply = std::move(reply);
    m_lastResponse = kAck;
    m_unacknowledged = true;
    return true;
}

// After asking it is not known whether the reply came because of that. A second copy will show that
// it did not.
void Exchange::noteAnswer(Attempt& attempt, int replyBytes)
{
    attempt.self.number = attempt.answer.request.tns;
    attempt.self.answered = true;
    attempt.self.bytes = timeOnLine(attempt.frame.size() + replyBytes);
    const Request& request = attempt.answer.request;
    if (request.service == kReadTagFragmented)
        m_replySizes.note(request.count, replyBytes);
    if (attempt.disturbed)
        return;
    if (attempt.questions == 0)
        m_roundTrips.note(attempt.answer.roundTrip, attempt.self.bytes);
    else // one long silence is no reason to wait long for all replies
        attempt.self.doubtful = std::min(attempt.answer.roundTrip, 2 * attempt.patience);
}

// The peer waits for the acknowledgement of a reply to another request, too, before it sends the
// right one.
bool Exchange::handleStray(const Reply& reply, Attempt& attempt)
{
    ++attempt.counters.late;
    attempt.disturbed = true;
    if (attempt.done && attempt.self.has(reply.tns)) {
        if (handleCopy(attempt.self, reply.tns))
            return true;
    } else if (m_last.has(reply.tns) && handleCopy(m_last, reply.tns) && attempt.questions == 0) {
        return true;
    }
    attempt.self.owed = std::max(0, attempt.self.owed - 1);
    return sendControl(kAck);
}

// True for a copy that was asked for. The peer sent it before it received the next request, which
// begins with its acknowledgement. Another one would acknowledge the reply that follows.
bool Exchange::handleCopy(Last& last, quint16 tns)
{
    if (tns == last.number && !last.answered)
        m_roundTrips.note(m_clock.now() - last.sentAt, last.bytes);
    else if (tns == last.number && last.doubtful > Duration(0))
        m_roundTrips.note(last.doubtful, last.bytes);
    last.answered = true;
    last.doubtful = Duration(0);
    if (last.owed == 0)
        return false;
    --last.owed;
    return true;
}

bool Exchange::sendRequest(Attempt& attempt)
{
    const QByteArray bytes =
        attempt.skipped == 0 ? attempt.frame : attempt.frame.mid(attempt.skipped);
    ++attempt.counters.sent;
    attempt.counters.bytesSent += bytes.size();
    m_lastResponse = kAck; // the frame begins with one
    m_unacknowledged = false;
    show(Direction::Out, bytes);
    return m_line.send(bytes);
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
