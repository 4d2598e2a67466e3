#ifndef MICRO850_HOST_COMMANDS_SHELLLINE_H
#define MICRO850_HOST_COMMANDS_SHELLLINE_H

#include "AttachedPlant.h"
#include "Connection.h"
#include "Route.h"
#include "SharedLine.h"
#include "TraceRecorder.h"

#include <functional>
#include <memory>
#include <optional>
#include <set>

namespace micro850::host {

/// The line of a shell: one connection for all its commands.
class ShellLine final : public SharedLine
{
public:
    /// Opens the line, unless a gateway has it. Throws UserError as the commands do.
    ShellLine(const LineOptions& options, const Route& route);
    ~ShellLine() override;

    void adopt(LineOptions& options) const override;
    const PortSettings& port() const override { return m_route.project.port; }
    bool hasGateway() const { return m_route.gateway.has_value(); }
    const Clock& clock() const override { return m_clock; }
    /// Opens the line if it was suspended.
    PollLoop& loop(const Project& project) override;
    std::unique_ptr<Plant> attach(const Project& project) override;
    /// One step for all plants that are attached.
    void step();
    /// Nobody uses the line for a while: ends what a controller would wait for.
    void rest();
    /// Closes the line until the next use, for commands that need the port for themselves. No plant
    /// may be attached.
    void suspend();
    /// Ends in order. Throws UserError when the trace could not be written.
    void close();

    /// Sets a function that is called while a reply is waited for, and one that waits at most for a
    /// time when there is nothing to do.
    void setMeanwhile(std::function<void()> meanwhile) { m_meanwhile = std::move(meanwhile); }
    void setWait(std::function<void(Duration)> wait) { m_wait = std::move(wait); }
    /// Sets a function that takes watches into the background.
    void setWatches(std::function<void(WatchOrder)> watches) { m_watches = std::move(watches); }
    bool watchInBackground(WatchOrder order) override;

private:
    class Attached;
    void open();
    void wait(Duration time);

    LineOptions m_options;
    Route m_route;
    SystemClock m_clock;
    Project m_bare; ///< the project without its variables
    std::unique_ptr<TraceRecorder> m_trace;
    std::unique_ptr<Connection> m_connection; ///< null through a gateway and while suspended
    std::unique_ptr<PollLoop> m_loop;
    std::set<AttachedPlant*> m_plants;
    std::function<void()> m_meanwhile;
    std::function<void(Duration)> m_wait;
    std::function<void(WatchOrder)> m_watches;
};

} // namespace micro850::host

#endif
