#ifndef MICRO850_HOST_COMMANDS_RUNLOOP_H
#define MICRO850_HOST_COMMANDS_RUNLOOP_H

#include "Connection.h"
#include "Interrupt.h"
#include "LiveTable.h"
#include "Output.h"
#include "PollLoop.h"
#include "Route.h"
#include "TagAccess.h"
#include "TraceRecorder.h"

namespace micro850::host {

/// What a command does while the poll loop runs: it shows or records values.
class LoopView
{
public:
    virtual ~LoopView() = default;
    /// True when the view draws on the whole terminal and reads its keys.
    virtual bool ownsTerminal() const { return false; }
    /// True once the user has asked to end.
    virtual bool quits() const { return false; }
    /// Called after each step of the loop.
    virtual void update(Duration now) = 0;
    /// Called once, after the last step.
    virtual void close(Duration) {}
};

/// The project with only the variables whose names match the pattern, so that no other is read.
/// Throws UserError when none does; its message names the project file.
Project withMatching(Project project, const std::string& pattern, const std::string& file);

/// Polls a project for poll, watch and log, over a line of its own or through a gateway, from the
/// first step to the summary.
class RunLoop
{
public:
    /// Opens line and driver, or the way to the gateway. Throws UserError when one of them is
    /// missing. The route must live longer than this object.
    RunLoop(const LineOptions& options, const Route& route);
    ~RunLoop();
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    Plant& plant() { return *m_plant; }
    const LiveTable& table() const { return *m_table; }

    /// Steps the loop until so many seconds have passed (0: no limit), the view quits, or the user
    /// presses Ctrl-C. A trace that cannot be written is reported and ends, not the loop.
    void run(LoopView& view, double seconds, const Output& output);
    /// Calls `task` with single reads and writes beside the polling, which goes on meanwhile, and
    /// `fail` with the reason when the gateway cannot be reached for them.
    void useTags(const std::function<void(TagAccess&)>& task,
                 const std::function<void(const QString&)>& fail);
    /// Reports how the line and the stations did.
    void summarise(const Output& output) const;
    /// Done when every variable was read at least once, and the trace has every record.
    int exitStatus() const;

private:
    void reportTraceFailure(const Output& output);

    Interrupt m_interrupt; // before the line is open, so that it is closed in order
    const SystemClock m_ownClock;
    const Clock& m_clock;                     ///< of what the plant is polled with
    std::unique_ptr<Connection> m_connection; ///< null through a gateway
    std::unique_ptr<TraceRecorder> m_trace;   ///< null through a gateway
    bool m_traceFailed = false;
    const Route& m_route;
    std::unique_ptr<Plant> m_plant;
    PollLoop* m_loop = nullptr; ///< the plant; null through a gateway and on a shared line
    std::unique_ptr<LiveTable> m_table;
};

} // namespace micro850::host

#endif
