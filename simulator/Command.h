#ifndef MICRO850_SIMULATOR_COMMAND_H
#define MICRO850_SIMULATOR_COMMAND_H

#include <optional>
#include <string>

namespace micro850::sim {

/// A command to a running controller, as typed on standard input.
struct Command
{
    enum Kind {
        PowerCycle, ///< forget connections and link state
        Download,   ///< replace the tags by those of a file
        Status      ///< print connections and counts
    };
    Kind kind = PowerCycle;
    bool retain = false;        ///< PowerCycle: keep the values
    std::string file;           ///< Download: empty to reload the station's own file
    std::optional<int> station; ///< none: all
};

/// Parses a line `power-cycle [retain] [STATION]`, `download [FILE] [STATION]` or `status
/// [STATION]`. Returns nothing for a blank line. Throws UserError that names the wrong word and the
/// remedy.
std::optional<Command> parseCommand(const std::string& line);

} // namespace micro850::sim

#endif
