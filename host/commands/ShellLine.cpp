#include "ShellLine.h"

#include "UserError.h"

#include <algorithm>

namespace micro850::host {

namespace {

// The options by which a command would have a line of its own.
std::string optionOfLine(const LineOptions& options)
{
    const std::pair<bool, const char*> named[] = {{!options.port.empty(), "--port"},
                                                  {!options.gateway.empty(), "--gateway"},
                                                  {!options.gatewayLine.empty(), "--line"},
                                                  {options.baud != 0, "--baud"},
                                                  {options.timeoutMs >= 0, "--timeout"},
                                                  {!options.lowLatency, "--no-low-latency"},
                                                  {!options.driver.empty(), "--driver"},
                                                  {!options.trace.empty(), "--trace"},
                                                  {options.force, "--force"}};
    for (const auto& [isNamed, name] : named) {
        if (isNamed)
            return name;
    }
    return std::string();
}

} // namespace

/// A plant whose steps are those of the shell's line.
class ShellLine::Attached : public AttachedPlant
{
public:
    Attached(ShellLine& shell, const Project& project)
        : AttachedPlant(shell.loop(project), project, shell.m_clock), m_shell(shell)
    {
        m_shell.m_plants.insert(this);
    }
    ~Attached() override { m_shell.m_plants.erase(this); }
    Attached(const Attached&) = delete;
    Attached& operator=(const Attached&) = delete;
    void step() override { m_shell.step(); }

private:
    ShellLine& m_shell;
};

ShellLine::ShellLine(const LineOptions& options, const Route& route)
    : m_options(options), m_route(route), m_bare(route.project)
{
    m_bare.variables.clear();
    if (!m_route.gateway)
        open();
}

ShellLine::~ShellLine()
{
    suspend();
}

void ShellLine::open()
{
    m_connection = std::make_unique<Connection>(m_options, m_bare);
    if (!m_trace) // after the line is open, so that an earlier trace is not lost to a wrong port
        m_trace = std::make_unique<TraceRecorder>(m_options.trace, m_options.force);
    m_loop = std::make_unique<PollLoop>(m_connection->api(), m_connection->line(), m_clock, m_bare);
    m_loop->exchange().setObserver(m_trace->observer());
    // It never ends a transaction: what follows needs the loop.
    m_loop->setInterrupt([this] {
        if (m_meanwhile)
            m_meanwhile();
        return false;
    });
    m_loop->setWait([this](Duration time) { wait(time); });
}

void ShellLine::adopt(LineOptions& options) const
{
    const std::string own = optionOfLine(options);
    if (!own.empty()) {
        throw UserError(own + ": the shell has its line already, " + port().text().toStdString() +
                        " (leave the option out, or give it to a shell of its own)");
    }
    LineOptions adopted;
    adopted.project = options.project.empty() ? m_options.project : options.project;
    adopted.projectIsFound = m_options.projectIsFound;
    if (m_route.gateway) {
        adopted.gateway = m_route.gateway->path.toStdString();
        adopted.gatewayLine = m_route.gateway->line.toStdString();
    } else {
        adopted.port = port().device.toStdString();
        adopted.baud = m_options.baud;
        adopted.timeoutMs = m_options.timeoutMs;
        adopted.lowLatency = m_options.lowLatency;
        adopted.driver = m_options.driver;
    }
    options = adopted;
}

PollLoop& ShellLine::loop(const Project& project)
{
    if (!m_loop)
        open();
    for (const StationSettings& station : project.stations)
        m_loop->addStation(station);
    m_loop->probeSoon();
    return *m_loop;
}

std::unique_ptr<Plant> ShellLine::attach(const Project& project)
{
    return std::make_unique<Attached>(*this, project);
}

void ShellLine::step()
{
    for (AttachedPlant* const plant : m_plants)
        plant->ask();
    m_loop->step();
    for (AttachedPlant* const plant : m_plants)
        plant->collect();
}

// Of an idle loop: at most until one of the plants has something to ask for.
void ShellLine::wait(Duration time)
{
    const Duration now = m_clock.now();
    for (const AttachedPlant* const plant : m_plants)
        time = std::min(time, std::max(plant->wakeAt(), now) - now);
    if (m_wait)
        m_wait(time);
    else
        m_connection->line().pause(time);
}

void ShellLine::rest()
{
    if (m_loop && m_plants.empty())
        m_loop->exchange().acknowledge();
}

void ShellLine::suspend()
{
    if (m_loop)
        m_loop->finish();
    m_loop.reset();
    m_connection.reset();
}

void ShellLine::close()
{
    suspend();
    if (m_trace)
        m_trace->close();
}

bool ShellLine::watchInBackground(WatchOrder order)
{
    if (m_watches)
        m_watches(std::move(order));
    return m_watches != nullptr;
}

} // namespace micro850::host
