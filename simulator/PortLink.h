#ifndef MICRO850_SIMULATOR_PORTLINK_H
#define MICRO850_SIMULATOR_PORTLINK_H

#include <string>

namespace micro850::sim {

/// A symbolic link to a pseudo-terminal, for as long as the object lives. It never replaces or
/// removes anything but a link of its own kind, whoever makes or removes names at the same time.
class PortLink
{
public:
    /// No link.
    PortLink() = default;
    /// Makes the link `name` to the pseudo-terminal `terminal`. A link that a killed simulator left
    /// is taken over: one to a pseudo-terminal that is gone, or whose number a later one has.
    /// Throws UserError if the name is used for anything else.
    PortLink(const std::string& name, const std::string& terminal);
    PortLink(PortLink&& other) noexcept;
    PortLink& operator=(PortLink&& other) noexcept;
    /// Removes the link, unless the name is another file's by now.
    ~PortLink();

private:
    std::string m_name; ///< "" for no link
    std::string m_terminal;
};

} // namespace micro850::sim

#endif
