#include "Worker.h"

#include "AnnouncedLine.h"
#include "Channel.h"
#include "ChildProcess.h"
#include "DriverLibrary.h"
#include "LineFactory.h"
#include "UserError.h"
#include "VisibleText.h"
#include "WorkerRequests.h"

#include <sys/poll.h>

#include <algorithm>
#include <iostream>

namespace micro850::gateway {

namespace {

// The first message has a project file; each of its bytes can need several in JSON.
const int kLongestOpen = 512 * 1024 * 1024;
// Beyond it, news wait as the numbers of their variables.
const qint64 kMostWaiting = qint64(64) * 1024 * 1024;
const qint64 kEnoughWaiting = qint64(128) * 1024;
const std::chrono::seconds kHeartbeat(1);
// A device server that takes its time, with several addresses.
const std::chrono::seconds kOpeningTime(60);

/// A worker's end of the socket. It notes when the other end is closed.
class Pipe
{
public:
    explicit Pipe(int descriptor) : m_channel(descriptor, kLongestOpen, kMostWaiting) {}

    bool isClosed() const { return m_closed || serviceIsGone(); }
    /// The first line. Empty when the other end is closed before it comes.
    QByteArray first()
    {
        while (!isClosed()) {
            wait(kHeartbeat);
            receive();
            if (const std::optional<host::LineReader::Line> line = m_channel.next())
                return line->text;
        }
        return QByteArray();
    }
    void receive()
    {
        if (!m_closed && !m_channel.receive())
            close();
    }
    std::optional<host::LineReader::Line> next() { return m_channel.next(); }
    void send(const QByteArray& line)
    {
        if (!m_closed && !m_channel.send(line))
            close();
    }
    void flush()
    {
        if (!m_closed && !m_channel.flush())
            close();
    }
    /// False while so much waits that news had better be put together later.
    bool takesNews() const { return m_channel.output().size() < kEnoughWaiting; }
    bool hasOutput() const { return m_channel.hasOutput(); }
    /// Waits for input, for room when something waits to be sent, or for the time to pass.
    void wait(Duration time)
    {
        pollfd socket = {m_channel.descriptor(), POLLIN, 0};
        if (m_channel.hasOutput())
            socket.events |= POLLOUT;
        ::poll(&socket, 1, static_cast<int>(wholeMilliseconds(time + Duration(999))));
    }

private:
    void close()
    {
        m_closed = true;
        limitTimeToEnd();
    }

    host::Channel m_channel;
    bool m_closed = false;
};

/// Polls a line and serves the socket, between the transactions and while one waits.
class Worker
{
public:
    Worker(Pipe& pipe, const QString& line, const host::Project& project);
    void run();

private:
    void serve();
    void publish();
    void beat();
    void wait(Duration time);

    Pipe& m_pipe;
    SystemClock m_clock;
    host::DriverLibrary m_library;
    AnnouncedLine m_line;
    host::PollLoop m_loop;
    LineReport m_report;
    WorkerRequests m_requests;
    Duration m_nextBeat{0};
};

Worker::Worker(Pipe& pipe, const QString& line, const host::Project& project)
    : m_pipe(pipe), m_library(QString()),
      m_line(host::lineFor(project.port),
             [this, isNetwork = project.port.isNetwork()] {
                 if (isNetwork && m_pipe.takesNews())
                     m_pipe.send(host::lineOf(
                         {{"event", "opening"}, {"patienceMs", wholeMilliseconds(kOpeningTime)}}));
             }),
      m_loop(m_library.api(), m_line, m_clock, project), m_report(line, project, m_loop, m_clock),
      m_requests(m_loop, project, m_report,
                 [this](const Json& reply) { m_pipe.send(host::lineOf(reply)); })
{
    m_loop.setPublish([this] { serve(); });
    m_loop.setWait([this](Duration time) { wait(time); });
    m_loop.exchange().setInterrupt([this] {
        serve();
        return m_pipe.isClosed();
    });
}

// The next request is not begun before the reply to the last one was sent: when the process dies,
// the service knows that only the oldest request can have been begun.
void Worker::run()
{
    while (!m_pipe.isClosed() && !m_loop.interrupted() && !m_loop.changedTag()) {
        m_loop.step();
        serve();
        if (!m_pipe.hasOutput())
            m_requests.runNext();
    }
    m_loop.finish();
    m_line.close();
    if (m_loop.changedTag())
        throw UserError("the controller has another program: the type of " +
                            inQuotes(m_loop.changedTag()->name.toStdString()) + " changed",
                        kExitRefused);
}

void Worker::serve()
{
    m_pipe.receive();
    while (const std::optional<host::LineReader::Line> line = m_pipe.next())
        m_requests.add(line->text);
    m_pipe.flush();
    m_report.collect();
    publish();
    beat();
}

void Worker::publish()
{
    while (m_report.hasValues() && m_pipe.takesNews() && !m_pipe.isClosed())
        m_pipe.send(m_report.popValues());
}

// When the service does not read, all of this waits: it would be old when it is read.
void Worker::beat()
{
    if (!m_pipe.takesNews())
        return;
    for (const QByteArray& event : m_report.popStates())
        m_pipe.send(event);
    const Duration now = m_clock.now();
    if (now < m_nextBeat)
        return;
    m_nextBeat = now + kHeartbeat;
    for (const QByteArray& event : m_report.ages())
        m_pipe.send(event);
}

void Worker::wait(Duration time)
{
    if (m_requests.hasWaiting() && !m_requests.isRunning() && !m_pipe.hasOutput())
        return;
    m_pipe.wait(std::min(time, std::max(Duration(0), m_nextBeat - m_clock.now())));
}

int serveLine(Pipe& pipe)
{
    const QByteArray first = pipe.first();
    if (pipe.isClosed())
        return kExitDone;
    const JsonNode open = host::messageIn(first, "open");
    const QString name = QString::fromStdString(open.at("line").text());
    host::Project project =
        host::Project::fromText(QString::fromStdString(open.at("project").text()),
                                QString::fromStdString(open.text("file", "project")));
    project.setInterval(host::kDefaultIntervalMs);
    Worker(pipe, name, project).run();
    return kExitDone;
}

} // namespace

int runWorker(int descriptor)
{
    setChildSignals();
    Pipe pipe(descriptor);
    try {
        return serveLine(pipe);
    } catch (const std::exception& error) {
        pipe.send(host::lineOf({{"event", "failed"}, {"text", error.what()}}));
        return kExitRefused;
    }
}

} // namespace micro850::gateway
