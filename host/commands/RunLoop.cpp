#include "RunLoop.h"

#include "LineStatus.h"
#include "NamePattern.h"
#include "UserError.h"

#include <unistd.h>

namespace micro850::host {

Project withMatching(Project project, const std::string& pattern, const std::string& file)
{
    QVector<Variable> matching;
    for (const Variable& variable : project.variables) {
        if (nameMatches(variable.name, textOf(pattern)))
            matching.append(variable);
    }
    if (matching.isEmpty()) {
        throw UserError("--match: no variable of " + file + " matches \"" + pattern +
                        "\" (a part of a name, or a pattern with * and ?)");
    }
    project.variables = matching;
    return project;
}

RunLoop::RunLoop(const LineOptions& options, const Route& route)
{
    const Project& project = route.project;
    if (route.gateway) {
        m_plant = std::make_unique<RemotePlant>(*route.gateway, project, m_clock);
    } else {
        m_connection = std::make_unique<Connection>(options, project);
        // After the line is open, so that an earlier trace is not lost to a wrong port.
        m_trace = std::make_unique<TraceRecorder>(options.trace, options.force);
        auto loop =
            std::make_unique<PollLoop>(m_connection->api(), m_connection->line(), m_clock, project);
        loop->exchange().setObserver(m_trace->observer());
        m_plant = std::move(loop);
    }
    m_plant->setInterrupt([this] { return m_interrupt.requested(); });
    m_table = std::make_unique<LiveTable>(*m_plant, project);
}

RunLoop::~RunLoop() = default;

void RunLoop::run(LoopView& view, double seconds, const Output& output)
{
    // A line would be lost in the picture that the view draws again and again.
    const bool reportsLater = view.usesKeys() && isatty(STDERR_FILENO) == 1;
    const Clock& clock = m_clock;
    const Duration end = clock.now() + fromSeconds(seconds);
    const auto over = [&] { return seconds > 0 && clock.now() >= end; };
    // Restores the settings of the terminal when the view has closed.
    const auto keyboard = view.usesKeys() ? std::make_unique<Keyboard>(STDIN_FILENO) : nullptr;
    try {
        while (!m_interrupt.requested() && !view.quits() && !over()) {
            m_plant->step();
            if (keyboard) {
                for (const Key& key : keyboard->pressed())
                    view.handle(key);
            }
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
