#ifndef MICRO850_HOST_COMMANDS_ROUTE_H
#define MICRO850_HOST_COMMANDS_ROUTE_H

#include "Commands.h"
#include "Output.h"
#include "Project.h"
#include "RemotePlant.h"
#include "SharedLine.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace micro850::host {

/// How a command reaches the controllers, and what it asks for.
struct Route
{
    Project project;
    /// What messages call the project: its file, or the gateway's line.
    std::string source;
    /// None: over a line of its own.
    std::optional<GatewayPlace> gateway;
    /// Over a line that is open for several commands; null: over none.
    SharedLine* shared = nullptr;
};

/// What the arguments of a command name.
struct NamesIn
{
    /// The variables of a project among them; null when the command takes no names.
    std::function<QStringList(const Project&)> in;
    std::vector<std::string> arguments;
};

/// Finds the way: through the gateway that the options name, or that owns the port; else over the
/// port itself. Without a project file, the variables are those of the line of the gateway that is
/// named; where several lines have a variable that `names` gives, UserError tells how to choose.
/// Also throws for options that a gateway leaves no place for, such as a trace.
Route routeOf(const LineOptions& options, const char* command, const Output& output,
              const NamesIn& names = NamesIn());

/// Throws UserError when a gateway owns the port: `command` needs the port for itself.
void requireOwnPort(const Project& project, const LineOptions& options, const char* command,
                    const Output& output);

} // namespace micro850::host

#endif
