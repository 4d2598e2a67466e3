#ifndef MICRO850_SIMULATOR_COMMAND_H
#define MICRO850_SIMULATOR_COMMAND_H

#include <optional>
#include <string>

namespace micro850::sim {

/// What a person tells a running controller to do.
struct Command
{
    enum Kind {
        PowerCycle, ///< connections and link state are forgotten
        Download    ///< another tag file takes the place of the tags
    };
    Kind kind = PowerCycle;
    bool retain = false;        ///< PowerCycle: the values stay
    std::string file;           ///< Download: empty for the station's own file, read anew
    std::optional<int> station; ///< none: all
};

/// Reads a line `power-cycle [retain] [STATION]` or `download [FILE] [STATION]`; nothing for a
/// blank one. Throws UserError naming the word and the remedy.
std::optional<Command> parseCommand(const std::string& line);

} // namespace micro850::sim

#endif
