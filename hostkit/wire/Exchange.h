#ifndef MICRO850_HOST_EXCHANGE_H
#define MICRO850_HOST_EXCHANGE_H

#include "Clock.h"
#include "Counters.h"
#include "Frame.h"
#include "Line.h"
#include "OwnTransactions.h"
#include "PortSettings.h"
#include "ReplyCollector.h"
#include "ReplySizes.h"
#include "RoundTrips.h"

#include <QtCore/QVector>

#include <functional>

namespace micro850::host {

/// One request and its final outcome. Errors on the way to it are in Counters.
struct Answer
{
    enum class Outcome { Answered, TimedOut, DeviceGone, Interrupted };
    Outcome outcome = Outcome::TimedOut;
    Request request;  ///< as decoded from the frame that was sent
    QByteArray frame; ///< the reply as wireFrame() builds it; empty without one
    Reply reply;      ///< not valid without one
    Duration roundTrip{0};
    Duration endedAt{0};  ///< when the last bytes came, or when the time was over
    bool garbled = false; ///< bytes came that belong to no intact frame
    bool late = false;    ///< intact replies of other requests came
};

/// Carries requests over a line: empties the input, sends the request, and collects bytes until the
/// complete reply with its transaction number is there or the time is over. Within this time:
/// - It asks again for a reply that is corrupt or missing, as soon as one usually has come. The
///   driver's repetition would not help: it has the same transaction number, and a peer ignores it
///   as a duplicate.
/// - It repeats a request that the peer received corrupt. It also repeats one that changes nothing
///   in the peer, under another number, when asking again did not help: the request itself may have
///   been lost, or the peer's memory of it.
/// - It drops a reply to another request, also the second copy of one that it asked for again.
/// The request that begins a connection's set-up gets a number of the host's own, because each
/// program begins with the same number. So does a read that the driver repeats.
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

    /// Sets whose requests the next ones are, for those who observe. Below 0: nobody's.
    void setStation(int station) { m_station = station; }
    int station() const { return m_station; }

    /// Sets a function that is called when a request has gone out: for work that need not delay it.
    void setMeanwhile(std::function<void()> meanwhile) { m_meanwhile = std::move(meanwhile); }

    /// Sets a function that is asked several times a second while a reply is waited for. When it
    /// returns true, run() waits only a moment longer.
    void setInterrupt(std::function<bool()> interrupt) { m_interrupt = std::move(interrupt); }

    /// Sends a complete frame and waits for its reply, for timeoutFor() its size.
    Answer run(const QByteArray& frame, Counters& counters);
    /// The same with another time-out.
    Answer run(const QByteArray& frame, Counters& counters, Duration timeout);
    /// Acknowledges the last reply. Call it before a pause or the end; otherwise the next request
    /// acknowledges it.
    void acknowledge();

    /// How long run() waits for the reply to a request of this many bytes. It grows with the time
    /// that the line itself takes and that replies have taken.
    Duration timeoutFor(int requestBytes) const;
    /// The part of it that is the peer's and the line's, if the peer needs at most the time
    /// `budget`.
    Duration delayFor(Duration budget) const;
    /// A transaction number for a request of the host's own.
    quint16 ownTransaction() { return m_own.next(m_driverNumber); }
    /// A number for a request that nothing may follow. No program begins with it.
    quint16 lastTransaction() { return m_own.last(m_driverNumber); }

private:
    struct Attempt;
    /// What is known of the request before the one in flight.
    struct Last
    {
        QByteArray frame;        ///< as given to run()
        quint16 number = 0;      ///< transaction number; of several the one that was answered
        QVector<quint16> others; ///< those of its repetitions
        Duration sentAt{0};
        Duration bytes{0}; ///< of request and reply on the line
        /// The round trip, when it is not known whether the reply came because it was asked for
        /// again; else 0.
        Duration doubtful{0};
        int owed = 0; ///< copies of its reply that may still come
        bool answered = true;
        bool has(quint16 tns) const { return tns == number || others.contains(tns); }
        /// True when a reply or a copy of it may still come.
        bool isOpen() const { return !answered || owed > 0; }
    };
    Answer waitForReply(const QByteArray& frame, Counters& counters, Duration timeout);
    void begin(Attempt& attempt);
    void number(Attempt& attempt, bool isRepeated);
    bool isInUse(quint16 tns) const;
    void keepOpenNumbers();
    bool sendRequest(Attempt& attempt);
    bool sendControl(char control);
    void heedInterrupt(Attempt& attempt) const;
    bool collect(Attempt& attempt);
    bool askWhereDue(Attempt& attempt);
    bool askForMissing(Attempt& attempt, bool begun);
    bool repeatRequest(Attempt& attempt);
    bool repeatRefused(Attempt& attempt);
    void setPace(Attempt& attempt);
    bool handle(const ReplyCollector::Event& event, Attempt& attempt);
    bool askAgain(Attempt& attempt);
    bool handleFrame(const ReplyCollector::Event& event, Attempt& attempt);
    bool handleStray(const Reply& reply, Attempt& attempt);
    bool handleCopy(Last& last, quint16 tns);
    void noteRestart(const ReplyCollector::Event& event, Attempt& attempt);
    void noteAnswer(Attempt& attempt, int replyBytes);
    Duration timeOnLine(int bytes) const { return bytes * m_byteTime; }
    void show(Direction direction, const QByteArray& bytes) const;

    Line& m_line;
    const Clock& m_clock;
    PortSettings m_settings;
    ReplyCollector m_collector;
    Observer m_observer;
    int m_station = -1;
    std::function<void()> m_meanwhile;
    std::function<bool()> m_interrupt;
    char m_lastResponse = kAck;
    bool m_unacknowledged = false;
    Duration m_byteTime;
    RoundTrips m_roundTrips;
    OwnTransactions m_own;
    quint16 m_driverNumber = 0; ///< of the driver's last request
    Last m_last;
    const Counters* m_lastCounters = nullptr; ///< of its station
    /// Numbers of requests before m_last whose replies may still come; at most some tens.
    QVector<quint16> m_open;
    ReplySizes m_replySizes;
};

} // namespace micro850::host

#endif
