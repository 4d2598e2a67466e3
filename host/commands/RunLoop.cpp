#include "RunLoop.h"

#include "LineStatus.h"
#include "NamePattern.h"
#include "RemoteSession.h"
#include "Session.h"
#include "TagAddress.h"
#include "UserError.h"

#include <unistd.h>

namespace micro850::host {

Project withMatching(Project project, const std::string& pattern, const std::string& file)
{
    QVector<Variable> matching;
    std::vector<std::string> names;
    for (const Variable& variable : project.variables) {
        names.push_back(shownName(variable.name).toStdString());
        if (nameMatches(variable.name, textOf(pattern)))
            matching.append(variable);
    }
    if (matching.isEmpty()) {
        throw UserError("--match: no variable of " + file + " matches \"" + pattern + "\"" +
                        didYouMean(pattern, names) +
                        " (a part of a name, or a pattern with * and ?)");
    }
    project.variables = matching;
    return project;
}

RunLoop::RunLoop(const LineOptions& options, const Route& route)
    : m_clock(route.shared ? route.shared->clock() : m_ownClock), m_route(route)
{
    const Project& project = route.project;
    if (route.gateway) {
        m_plant = std::make_unique<RemotePlant>(*route.gateway, project, m_clock);
    } else if (route.shared) {
        m_plant = route.shared->attach(project);
    } else {
        m_connection = std::make_unique<Connection>(options, project);
        // After the line is open, so that an earlier trace is not lost to a wrong port.
        m_trace = std::make_unique<TraceRecorder>(options.trace, options.force);
        auto loop =
            std::make_unique<PollLoop>(m_connection->api(), m_connection->line(), m_clock, project);
        loop->exchange().setObserver(m_trace->observer(&loop->exchange()));
        m_loop = loop.get();
        m_plant = std::move(loop);
    }
    m_plant->setInterrupt([this] { return m_interrupt.requested(); });
    m_table = std::make_unique<LiveTable>(*m_plant, project);
}

RunLoop::~RunLoop() = default;

void RunLoop::run(LoopView& view, double seconds, const Output& output)
{
    // A line would be lost in the picture that the view draws again and again.
    const bool reportsLater = view.ownsTerminal() && isatty(STDERR_FILENO) == 1;
    const Clock& clock = m_clock;
    const Duration end = clock.now() + fromSeconds(seconds);
    const auto over = [&] { return seconds > 0 && clock.now() >= end; };
    try {
        while (!m_interrupt.requested() && !view.quits() && !over()) {
            m_plant->step();
            view.update(clock.now());
            if (!reportsLater)
                reportTraceFailure(output);
        }
    } catch (...) { // a file or the output that cannot be written
        m_plant->finish();
        throw;
    }
    m_plant->finish();
    view.close(clock.now());
    try {
        if (m_trace)
            m_trace->close();
    } catch (const UserError& error) {
        m_traceFailed = true;
        output.error(textOf(error.what()));
    }
}

void RunLoop::useTags(const std::function<void(TagAccess&)>& task,
                      const std::function<void(const QString&)>& fail)
{
    const auto interrupt = [this] { return m_interrupt.requested(); };
    PollLoop* const loop = m_route.shared ? &m_route.shared->loop(m_route.project) : m_loop;
    if (loop) {
        Session session(*loop, m_route.project);
        session.setInterrupt(interrupt);
        task(session);
        return;
    }
    try {
        const GatewayPlace& place = *m_route.gateway;
        GatewayClient gateway(place.path, place.client, m_clock);
        RemoteSession session(gateway, place.line);
        session.setInterrupt(interrupt);
        task(session);
    } catch (const UserError& error) {
        fail(QString::fromUtf8(error.what()));
    }
}

void RunLoop::reportTraceFailure(const Output& output)
{
    if (!m_trace)
        return;
    if (const std::optional<UserError> failure = m_trace->popFailure()) {
        m_traceFailed = true;
        output.error(textOf(failure->what()));
    }
}

void RunLoop::summarise(const Output& output) const
{
    if (output.json()) {
        output.data({{"summary", summaryOf(statusOf(*m_plant))}}, QString());
        return;
    }
    output.note(m_table->lineState() + QStringLiteral(": ") + m_table->lineStatistics());
    if (const QString overload = m_table->overload(); !overload.isEmpty())
        output.note(overload);
    for (const QString& text : m_table->stationLines(m_clock.now()))
        output.note(text);
}

int RunLoop::exitStatus() const
{
    return m_table->complete() && !m_traceFailed ? kExitDone : kExitRefused;
}

} // namespace micro850::host
