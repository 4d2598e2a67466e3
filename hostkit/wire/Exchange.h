#ifndef MICRO850_HOST_EXCHANGE_H
#define MICRO850_HOST_EXCHANGE_H

#include "Clock.h"
#include "Frame.h"
#include "Line.h"
#include "PortSettings.h"
#include "ReplyCollector.h"

#include <QtCore/QMap>

#include <functional>

namespace micro850::host {

/// What happened on the line, for one station or for all.
struct Counters
{
    qint64 sent = 0;          ///< requests, repetitions included
    qint64 answered = 0;      ///< replies that belong to their request
    qint64 timedOut = 0;      ///< requests without an answer in time
    qint64 corrupt = 0;       ///< frames with a wrong CRC
    qint64 late = 0;          ///< intact replies of another request
    qint64 retries = 0;       ///< requests sent again, and replies asked for again
    qint64 refusedByPeer = 0; ///< DLE NAK for a request of ours
    qint64 reconnects = 0;    ///< connections made anew
    qint64 bytesSent = 0;
    qint64 bytesReceived = 0;
    QMap<QString, qint64> errors; ///< replies by their status, see statusKey()

    qint64 bytes() const { return bytesSent + bytesReceived; }
};

/// One request and what became of it.
struct Answer
{
    enum class Outcome { Answered, TimedOut, DeviceGone };
    Outcome outcome = Outcome::TimedOut;
    Request request; ///< what was asked for
    QByteArray data; ///< application data of the reply
    Reply reply;
    Duration roundTrip{0};
};

/// Carries requests over a line: empties the input, sends, collects until a complete reply with the
/// transaction number in flight is there or the time is over. A reply that is corrupt or missing is
/// asked for again, as the driver's repetition of a request has the same transaction number and a
/// peer takes it for a duplicate; a request that the peer received corrupt is repeated; a reply of
/// another request is dropped. All of that within the same time.
class Exchange
{
public:
    enum class Direction { Out, In };
    using Observer = std::function<void(Direction, const QByteArray& frame, Duration now)>;

    Exchange(Line& line, const Clock& clock, const PortSettings& settings);

    /// Called with what goes out and comes in, as it stands on the line: frames, corrupt ones too,
    /// and the link controls that stand for themselves.
    void setObserver(Observer observer) { m_observer = std::move(observer); }

    /// Called when a request has gone out: for what need not come before it.
    void setMeanwhile(std::function<void()> meanwhile) { m_meanwhile = std::move(meanwhile); }

    Answer run(const QByteArray& frame, Counters& counters);
    /// Acknowledges the last reply, which the next request does otherwise: for a pause or an end.
    void acknowledge();

    /// The time a request of so many bytes is given.
    Duration timeoutFor(int requestBytes) const;

private:
    struct Attempt;
    bool sendFrame(const QByteArray& frame, Counters& counters);
    bool sendControl(char control);
    bool collect(Attempt& attempt);
    bool askWhereDue(Attempt& attempt);
    bool handle(const ReplyCollector::Event& event, Attempt& attempt);
    bool askAgain(Attempt& attempt);
    bool takeFrame(const QByteArray& data, Attempt& attempt);
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
