#ifndef MICRO850_GATEWAY_LINES_SUPERVISOR_H
#define MICRO850_GATEWAY_LINES_SUPERVISOR_H

#include "Channel.h"
#include "GrowingPause.h"
#include "WorkerProcess.h"

#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <functional>
#include <memory>

namespace micro850::gateway {

/// How workers are watched. Tests set shorter times.
struct SupervisionSettings
{
    /// A worker that sends nothing for so long hangs.
    Duration heartbeatLimit = std::chrono::seconds(10);
    /// The pauses before a worker is started again.
    Duration firstPause = std::chrono::seconds(1);
    Duration longestPause = std::chrono::seconds(30);
    /// A worker that ran for so long works: the next pause is the first one again.
    Duration steadyAfter = std::chrono::seconds(60);
    /// A worker has so long to close its connections.
    Duration timeToEnd = std::chrono::seconds(5);
    std::function<WorkerProcess()> start = startWorker;
};

/// Keeps the worker of a line running: starts it, passes lines to it and from it, ends one that
/// hangs, and starts another one after a pause. It never waits for the worker.
class Supervisor
{
public:
    /// What the worker does; called from the event loop and from tick().
    class Owner
    {
    public:
        virtual ~Owner() = default;
        /// The first line to a worker.
        virtual QByteArray opening() = 0;
        /// A line came. Throws UserError for one that no worker sends: the worker is ended.
        virtual void handleLine(const QByteArray& line) = 0;
        /// The worker ended, or hangs and is being ended. The next one is started after `pause`.
        virtual void handleEnd(const QString& how, Duration pause) = 0;
    };

    /// The arguments must live longer than this object.
    Supervisor(Owner& owner, const Clock& clock, const SupervisionSettings& settings);
    /// A worker that is left is killed.
    ~Supervisor();
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;

    /// Does what is due: a start if `mayStart`, the end of a worker that hangs. Call it several
    /// times a second.
    void tick(bool mayStart);
    /// The next worker is started without a pause, and the pause after it is the first one again:
    /// the end of the last one was wanted.
    void hurry();
    /// False when no worker runs.
    bool send(const QByteArray& line);
    /// Bytes that the worker has not taken yet.
    qint64 waitingBytes() const;
    bool isRunning() const { return m_state == State::Running; }
    /// True when the worker has run for so long that it is known to work.
    bool isSteady() const;
    /// The worker is about to do something that can take this long.
    void grant(Duration patience);
    /// Since when the worker is silent; since its start before it sent anything.
    Duration lastHeard() const { return m_lastHeard; }
    int pid() const { return m_worker.pid; }
    int starts() const { return m_starts; }
    /// Why the last worker reported that it cannot go on; for handleEnd().
    void noteReason(const QString& reason) { m_reason = reason; }

    /// Lets the worker end by itself. Returns its process, below 0 when there is none; the caller
    /// asks for its end. The supervisor starts no other one.
    int retire();

private:
    enum class State {
        Paused, ///< until m_startAt
        Running,
        Ending, ///< its socket is closed or it was killed; how it ended is not known yet
        Retired
    };
    void start();
    void handleInput();
    void handleRoom();
    void kill(const QString& why);
    void beginEnd();
    void lookForEnd();
    void tellEnd(const QString& how);
    void watchForRoom();
    void closeChannel();

    Owner& m_owner;
    const Clock& m_clock;
    const SupervisionSettings& m_settings;
    State m_state = State::Paused;
    WorkerProcess m_worker;
    std::unique_ptr<host::Channel> m_channel;
    std::unique_ptr<QSocketNotifier> m_input;
    std::unique_ptr<QSocketNotifier> m_room;
    QTimer m_reaper;
    host::GrowingPause m_pause;
    Duration m_startAt{0};
    Duration m_startedAt{0};
    Duration m_lastHeard{0};
    Duration m_patience{0};
    Duration m_endingSince{0};
    bool m_toldEnd = false;
    QString m_reason;
    int m_starts = 0;
};

} // namespace micro850::gateway

#endif
