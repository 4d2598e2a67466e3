#ifndef MICRO850_SIMULATOR_COMMANDINPUT_H
#define MICRO850_SIMULATOR_COMMANDINPUT_H

#include <string>
#include <vector>

namespace micro850::sim {

/// The lines that are typed on standard input.
class CommandInput
{
public:
    /// The descriptor to wait for; below 0 when nothing is to be read: at the end of the input, or
    /// while the program runs in the background of a terminal, where reading would stop it.
    int descriptor() const;
    /// Reads what has been typed and returns the complete lines. Call it when descriptor() is
    /// readable.
    std::vector<std::string> readLines();

private:
    bool m_open = true;
    std::string m_text; ///< of the line that is not complete
};

} // namespace micro850::sim

#endif
