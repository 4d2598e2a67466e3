#include "Route.h"

#include "Connection.h"
#include "GatewayFinder.h"
#include "UserError.h"

#include <algorithm>

namespace micro850::host {

namespace {

std::string listOf(const QVector<GatewayLine>& lines)
{
    QStringList names;
    for (const GatewayLine& line : lines)
        names += QStringLiteral("%1 (%2)").arg(line.name, line.status.line.device);
    return names.join(QStringLiteral(", ")).toStdString();
}

/// Chooses the line of a gateway that a command uses.
class LineChoice
{
public:
    LineChoice(GatewayClient& gateway, const LineOptions& options, QVector<GatewayLine> lines)
        : m_gateway(gateway), m_options(options), m_lines(std::move(lines))
    {
    }

    /// `project` is what the options name, or null.
    GatewayLine choose(const Project* project, const NamesIn& names) const;

private:
    const GatewayLine* atPort(const QString& device) const;
    GatewayLine named() const;
    GatewayLine byNames(const NamesIn& names) const;
    [[noreturn]] void refuseNames(const NamesIn& names) const;
    [[noreturn]] void refuse(const std::string& what) const;

    GatewayClient& m_gateway;
    const LineOptions& m_options;
    QVector<GatewayLine> m_lines;
};

void LineChoice::refuse(const std::string& what) const
{
    throw UserError(m_gateway.path().toStdString() + ": " + what);
}

GatewayLine LineChoice::choose(const Project* project, const NamesIn& names) const
{
    if (m_lines.isEmpty())
        refuse("the gateway has no lines");
    if (!m_options.gatewayLine.empty())
        return named();
    if (!m_options.port.empty()) {
        if (const GatewayLine* line = atPort(textOf(m_options.port)))
            return *line;
        refuse("the gateway has no line at " + m_options.port + " (its lines: " + listOf(m_lines) +
               ")");
    }
    if (project) {
        if (const GatewayLine* line = atPort(project->port.device))
            return *line;
    }
    if (m_lines.size() == 1)
        return m_lines.first();
    if (!names.arguments.empty() && !project)
        return byNames(names);
    refuse("the gateway has several lines: " + listOf(m_lines) + " (choose one with --line)");
}

GatewayLine LineChoice::named() const
{
    std::vector<std::string> names;
    for (const GatewayLine& line : m_lines) {
        if (line.name == textOf(m_options.gatewayLine))
            return line;
        names.push_back(line.name.toStdString());
    }
    throw UserError("--line: the gateway has no line \"" + m_options.gatewayLine + "\"" +
                    didYouMean(m_options.gatewayLine, names) + " (its lines: " + listOf(m_lines) +
                    ")");
}

const GatewayLine* LineChoice::atPort(const QString& device) const
{
    const auto found =
        std::find_if(m_lines.begin(), m_lines.end(), [&device](const GatewayLine& line) {
            return isSamePort(device, line.status.line.device);
        });
    return found == m_lines.end() ? nullptr : &*found;
}

GatewayLine LineChoice::byNames(const NamesIn& names) const
{
    const GatewayLine* chosen = nullptr;
    QString first;
    for (const GatewayLine& line : m_lines) {
        const QStringList here = names.in(projectOf(m_gateway, line));
        if (here.isEmpty())
            continue;
        if (chosen && here.contains(first))
            refuse("the lines " + chosen->name.toStdString() + " and " + line.name.toStdString() +
                   " both have a variable " + first.toStdString() + " (choose one with --line)");
        if (chosen)
            refuse(first.toStdString() + " is a variable of the line " +
                   chosen->name.toStdString() + ", " + here.first().toStdString() + " of " +
                   line.name.toStdString() + " (one command uses one line: choose with --line)");
        chosen = &line;
        first = here.first();
    }
    if (!chosen)
        refuseNames(names);
    return *chosen;
}

void LineChoice::refuseNames(const NamesIn& names) const
{
    std::vector<std::string> known;
    for (const GatewayLine& line : m_lines) {
        for (const Variable& variable : variablesOf(m_gateway, line.name))
            known.push_back(variable.name.toStdString());
    }
    std::string asked;
    for (const std::string& argument : names.arguments) {
        const std::string name =
            textOf(argument).section('=', 0, 0).section('[', 0, 0).toStdString();
        asked += (asked.empty() ? "" : " or ") + name + didYouMean(name, known);
    }
    refuse("no line of the gateway has a variable " + asked +
           "; for a tag of a controller choose its line with --line (lines: " + listOf(m_lines) +
           ")");
}

void refuseTrace(const LineOptions& options, const QString& path)
{
    if (!options.trace.empty())
        throw UserError("--trace: the port is owned by the gateway at " + path.toStdString() +
                        "; only the program that owns a line sees its frames (stop the gateway, "
                        "or leave --trace out)");
}

// The line is the gateway's, with its settings.
void noteIdleOptions(const LineOptions& options, const Output& output)
{
    QStringList idle;
    if (options.baud != 0)
        idle += QStringLiteral("--baud");
    if (options.timeoutMs >= 0)
        idle += QStringLiteral("--timeout");
    if (!options.lowLatency)
        idle += QStringLiteral("--no-low-latency");
    if (!options.driver.empty())
        idle += QStringLiteral("--driver");
    if (!idle.isEmpty())
        output.note(idle.join(QStringLiteral(", ")) +
                    QStringLiteral(": without effect, the gateway has set up its line itself"));
}

GatewayPlace placeOf(const QString& path, const QString& line, const char* command)
{
    return {path, line, QStringLiteral("micro850-host ") + QLatin1String(command)};
}

Route routeThrough(const LineOptions& options, const char* command, const Output& output,
                   const NamesIn& names)
{
    const QString path = textOf(options.gateway);
    refuseTrace(options, path);
    noteIdleOptions(options, output);
    const SystemClock clock;
    GatewayClient gateway(path, QStringLiteral("micro850-host ") + QLatin1String(command), clock);
    const LineChoice choice(gateway, options, linesOf(gateway, clock.now()));
    Route route;
    if (options.project.empty()) {
        const GatewayLine line = choice.choose(nullptr, names);
        route.project = projectOf(gateway, line);
        route.source = path.toStdString() + ": line " + line.name.toStdString();
        route.gateway = placeOf(path, line.name, command);
        return route;
    }
    route.project = projectOf(options);
    route.source = options.project;
    route.gateway = placeOf(path, choice.choose(&route.project, names).name, command);
    return route;
}

std::optional<PortOwner> ownerOfPort(const Project& project, const Output& output)
{
    if (project.port.device.isEmpty())
        return std::nullopt;
    const SystemClock clock;
    return ownerOf(project.port.device, gatewaySockets(), clock,
                   [&output](const QString& text) { output.note(text); });
}

} // namespace

Route routeOf(const LineOptions& options, const char* command, const Output& output,
              const NamesIn& names)
{
    if (!options.gateway.empty())
        return routeThrough(options, command, output, names);
    if (!options.gatewayLine.empty())
        throw UserError("--line: it chooses a line of a gateway (name its socket with --gateway "
                        "PATH)");
    Route route;
    route.project = projectOf(options);
    route.source = options.project;
    if (SharedLine* const shared = SharedLine::current()) {
        route.project.port = shared->port();
        route.shared = shared;
        return route;
    }
    noteDefaults(options, route.project, output);
    if (const std::optional<PortOwner> owner = ownerOfPort(route.project, output)) {
        refuseTrace(options, owner->path);
        output.note(route.project.port.device +
                    QStringLiteral(": through the gateway of this "
                                   "port, ") +
                    owner->path);
        noteIdleOptions(options, output);
        route.gateway = placeOf(owner->path, owner->line.name, command);
    }
    return route;
}

void requireOwnPort(const Project& project, const LineOptions& options, const char* command,
                    const Output& output)
{
    if (!options.gateway.empty())
        throw UserError("--gateway: " + std::string(command) +
                        " needs the port for itself (stop the gateway, and leave the option out)");
    if (const std::optional<PortOwner> owner = ownerOfPort(project, output))
        throw UserError(project.port.device.toStdString() +
                            ": the port is owned by the gateway at " + owner->path.toStdString() +
                            "; " + command +
                            " needs it for itself (stop the gateway, or see the line with "
                            "micro850-host poll)",
                        kExitRefused);
}

} // namespace micro850::host
