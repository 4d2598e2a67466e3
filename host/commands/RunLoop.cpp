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

RunLoop::RunLoop(const LineOptions& options, const Project& project)
    : m_connection(options, project), m_trace(options.trace, options.force),
      m_loop(m_connection.api(), m_connection.line(), m_connection.clock(), project),
      m_table(m_loop, project)
{
    m_loop.exchange().setObserver(m_trace.observer());
    m_loop.setInterrupt([this] { return m_interrupt.requested(); });
}

void RunLoop::run(LoopView& view, double seconds, const Output& output)
{
    // A line would be lost in the picture that the view draws again and again.
    const bool reportsLater = view.usesKeys() && isatty(STDERR_FILENO) == 1;
    const Clock& clock = m_connection.clock();
    const Duration end = clock.now() + fromSeconds(seconds);
    const auto over = [&] { return seconds > 0 && clock.now() >= end; };
    // Restores the settings of the terminal when the view has closed.
    const auto keyboard = view.usesKeys() ? std::make_unique<Keyboard>(STDIN_FILENO) : nullptr;
    try {
        while (!m_interrupt.requested() && !view.quits() && !over()) {
            m_loop.step();
            if (keyboard) {
                for (const Key& key : keyboard->pressed())
                    view.handle(key);
            }
            view.update(clock.now());
            if (!reportsLater)
                reportTraceFailure(output);
        }
    } catch (...) { // a file or the output that cannot be written
        m_loop.finish();
        throw;
    }
    m_loop.finish();
    view.close(clock.now());
    try {
        m_trace.close();
    } catch (const UserError& error) {
        m_traceFailed = true;
        output.error(textOf(error.what()));
    }
}

void RunLoop::reportTraceFailure(const Output& output)
{
    if (const std::optional<UserError> failure = m_trace.popFailure()) {
        m_traceFailed = true;
        output.error(textOf(failure->what()));
    }
}

void RunLoop::summarise(const Output& output) const
{
    if (output.json()) {
        output.data({{"summary", summaryOf(statusOf(m_loop))}}, QString());
        return;
    }
    output.note(m_table.lineState() + QStringLiteral(": ") + m_table.lineStatistics());
    for (const QString& text : m_table.stationLines(m_connection.clock().now()))
        output.note(text);
}

int RunLoop::exitStatus() const
{
    return m_table.complete() && !m_traceFailed ? kExitDone : kExitRefused;
}

} // namespace micro850::host
