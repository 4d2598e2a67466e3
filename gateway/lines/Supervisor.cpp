#include "Supervisor.h"

#include "ChildProcess.h"
#include "UserError.h"

#include <csignal>

namespace micro850::gateway {

namespace {

// One value of the largest variable.
const int kLongestLine = 16 * 1024 * 1024;
// The project of a line, and requests.
const qint64 kMostToWorker = qint64(512) * 1024 * 1024;
// How a process ended is known a moment after its socket is closed.
const int kReapIntervalMs = 5;
const std::chrono::milliseconds kReapTime(200);
const std::chrono::seconds kTimeToCloseAll(1);

} // namespace

Supervisor::Supervisor(Owner& owner, const Clock& clock, const SupervisionSettings& settings)
    : m_owner(owner), m_clock(clock), m_settings(settings),
      m_pause(settings.firstPause, settings.longestPause)
{
    m_reaper.setInterval(kReapIntervalMs);
    QObject::connect(&m_reaper, &QTimer::timeout, &m_reaper, [this] { lookForEnd(); });
}

Supervisor::~Supervisor()
{
    if (m_worker.pid > 0)
        ::kill(m_worker.pid, SIGKILL);
}

void Supervisor::tick(bool mayStart)
{
    const Duration now = m_clock.now();
    if (m_state == State::Paused && mayStart && now >= m_startAt)
        start();
    if (m_state != State::Running)
        return;
    const Duration limit = std::max(m_settings.heartbeatLimit, m_patience);
    // When this process itself stood still, what the worker sent meanwhile waits in the socket.
    if (now - m_lastHeard >= limit) {
        handleInput();
        if (m_state != State::Running)
            return;
    }
    if (now - m_lastHeard >= limit)
        kill(QStringLiteral("it did not answer for %1 s")
                 .arg(static_cast<double>(wholeMilliseconds(limit)) / 1000));
    else if (isSteady())
        m_pause.reset();
}

void Supervisor::hurry()
{
    m_startAt = m_clock.now();
    m_pause.reset();
}

void Supervisor::start()
{
    const Duration now = m_clock.now();
    m_reason.clear();
    m_toldEnd = false;
    m_patience = Duration(0);
    m_startedAt = m_lastHeard = now;
    ++m_starts;
    try {
        m_worker = m_settings.start();
    } catch (const UserError& error) {
        m_worker = WorkerProcess();
        tellEnd(QString::fromUtf8(error.what()));
        return;
    }
    m_state = State::Running;
    m_channel = std::make_unique<host::Channel>(m_worker.socket, kLongestLine, kMostToWorker);
    m_input = std::make_unique<QSocketNotifier>(m_worker.socket, QSocketNotifier::Read);
    m_room = std::make_unique<QSocketNotifier>(m_worker.socket, QSocketNotifier::Write);
    m_room->setEnabled(false);
    QObject::connect(m_input.get(), &QSocketNotifier::activated, m_input.get(),
                     [this] { handleInput(); });
    QObject::connect(m_room.get(), &QSocketNotifier::activated, m_room.get(),
                     [this] { handleRoom(); });
    send(m_owner.opening());
}

bool Supervisor::send(const QByteArray& line)
{
    if (m_state != State::Running || !m_channel->send(line))
        return false;
    watchForRoom();
    return true;
}

void Supervisor::watchForRoom()
{
    m_room->setEnabled(m_channel->hasOutput());
}

qint64 Supervisor::waitingBytes() const
{
    return isRunning() ? m_channel->output().size() : 0;
}

// A worker that is gone is noticed by the input.
void Supervisor::handleRoom()
{
    m_channel->flush();
    watchForRoom();
}

bool Supervisor::isSteady() const
{
    return isRunning() && m_clock.now() - m_startedAt >= m_settings.steadyAfter;
}

void Supervisor::grant(Duration patience)
{
    m_patience = patience;
}

void Supervisor::handleInput()
{
    const bool isOpen = m_channel->receive();
    while (m_state == State::Running) {
        const std::optional<host::LineReader::Line> line = m_channel->next();
        if (!line)
            break;
        m_lastHeard = m_clock.now();
        m_patience = Duration(0);
        try {
            if (line->tooLong)
                throw UserError("a line that is too long");
            m_owner.handleLine(line->text);
        } catch (const UserError& error) {
            kill(QStringLiteral("it sent what no worker sends: ") +
                 QString::fromUtf8(error.what()));
            return;
        }
    }
    if (!isOpen && m_state == State::Running)
        beginEnd();
}

void Supervisor::kill(const QString& why)
{
    if (m_worker.pid > 0)
        ::kill(m_worker.pid, SIGKILL);
    m_reason = why;
    beginEnd();
    tellEnd(QString());
}

// The notifiers can be on the stack: they are only disabled and destroyed later.
void Supervisor::closeChannel()
{
    for (auto* notifier : {&m_input, &m_room}) {
        if (!*notifier)
            continue;
        (*notifier)->setEnabled(false);
        (*notifier).release()->deleteLater();
    }
}

void Supervisor::beginEnd()
{
    m_state = State::Ending;
    m_endingSince = m_clock.now();
    closeChannel();
    m_reaper.start();
    lookForEnd();
}

// A worker that closed its socket but does not end is killed. No other worker is started before it
// has ended: it may still have the line.
void Supervisor::lookForEnd()
{
    const std::optional<QString> how =
        m_worker.pid > 0 ? endOf(m_worker.pid) : std::make_optional(QString());
    const Duration waited = m_clock.now() - m_endingSince;
    if (!how) {
        if (waited >= kReapTime)
            tellEnd(QString());
        if (waited >= kTimeToCloseAll)
            ::kill(m_worker.pid, SIGKILL);
        return;
    }
    m_reaper.stop();
    m_channel.reset();
    m_worker = WorkerProcess();
    tellEnd(*how);
    m_state = State::Paused;
}

void Supervisor::tellEnd(const QString& how)
{
    if (m_toldEnd)
        return;
    m_toldEnd = true;
    const Duration pause = m_pause.next();
    m_startAt = m_clock.now() + pause;
    m_owner.handleEnd(m_reason.isEmpty() ? how : m_reason, pause);
}

int Supervisor::retire()
{
    const int pid = m_worker.pid;
    m_state = State::Retired;
    m_reaper.stop();
    closeChannel();
    m_channel.reset();
    m_worker = WorkerProcess();
    if (pid > 0)
        ::kill(pid, kEndSignal);
    return pid;
}

} // namespace micro850::gateway
