#ifndef MICRO850_HOST_EXCHANGE_H
#define MICRO850_HOST_EXCHANGE_H

#include "Clock.h"
#include "Counters.h"
#include "Frame.h"
#include "Line.h"
#include "PortSettings.h"
#include "ReplyCollector.h"

#include <functional>

namespace micro850::host {

/// One request and its final outcome. Errors on the way to it are in Counters.
struct Answer
{
    enum class Outcome { Answered, TimedOut, DeviceGone };
    Outcome outcome = Outcome::TimedOut;
    Request request;  ///< as decoded from the frame that was sent
    QByteArray frame; ///< the reply as wireFrame() builds it; empty without one
    Reply reply;      ///< not valid without one
    Duration roundTrip{0};
    bool garbled = false; ///< bytes came that belong to no intact frame
};

/// Carries requests over a line: empties the input, sends the request, and collects bytes until the
/// complete reply with its transaction number is there or the time is over. Within this time:
/// - It asks again for a reply that is corrupt or missing. The driver's repetition would not help:
///   it has the same transaction number, and a peer ignores it as a duplicate.
/// - It repeats a request that the peer received corrupt.
/// - It drops a reply to another request.
class Exchange
{
public:
    enum class Direction { Out, In };
    using Observer = std::function<void(Direction, const QByteArray& frame, Duration now)>;

    /// Line and clock must live longer than this object. The line must be open for run().
    Exchange(Line& line, const Clock& clock, const PortSettings& settings);

    /// Sets a function that gets everything that goes out and comes in, as it is on the line:
    /// frames, corrupt ones too, and link controls outside frames.
    void setObserver(Observer observer) { m_observer = std::move(observer); }

    /// Sets a function that is called when a request has gone out: for work that need not delay it.
    void setMeanwhile(std::function<void()> meanwhile) { m_meanwhile = std::move(meanwhile); }

    /// Sends a complete frame and waits for its reply, for timeoutFor() its size.
    Answer run(const QByteArray& frame, Counters& counters);
    /// The same with another time-out.
    Answer run(const QByteArray& frame, Counters& counters, Duration timeout);
    /// Acknowledges the last reply. Call it before a pause or the end; otherwise the next request
    /// acknowledges it.
    void acknowledge();

    /// How long run() waits for the reply to a request of this many bytes.
    Duration timeoutFor(int requestBytes) const;

private:
    struct Attempt;
    Answer waitForReply(const QByteArray& frame, Counters& counters, Duration timeout);
    bool sendFrame(const QByteArray& frame, Counters& counters);
    bool sendControl(char control);
    bool collect(Attempt& attempt);
    bool askWhereDue(Attempt& attempt);
    bool handle(const ReplyCollector::Event& event, Attempt& attempt);
    bool askAgain(Attempt& attempt);
    bool handleFrame(const ReplyCollector::Event& event, Attempt& attempt);
    void show(Direction direction, const QByteArray& bytes) const;

    Line& m_line;
    const Clock& m_clock;
    PortSettings m_settings;
    ReplyCollector m_collector;
    Observer m_observer;
    std::function<void()> m_meanwhile;
    char m_lastResponse = kAck;
    bool m_unacknowledged = false;
    QByteArray m_lastFrame;
};

} // namespace micro850::host

#endif
