#include "CommandInput.h"

#include <array>
#include <unistd.h>

namespace micro850::sim {

int CommandInput::descriptor() const
{
    const bool inBackground = ::isatty(STDIN_FILENO) && ::tcgetpgrp(STDIN_FILENO) != ::getpgrp();
    return m_open && !inBackground ? STDIN_FILENO : -1;
}

std::vector<std::string> CommandInput::readLines()
{
    std::array<char, 4096> buffer;
    const ssize_t count = ::read(STDIN_FILENO, buffer.data(), buffer.size());
    m_open = count > 0;
    m_text.append(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    std::vector<std::string> lines;
    for (std::size_t end; (end = m_text.find('\n')) != std::string::npos;) {
        lines.push_back(m_text.substr(0, end));
        m_text.erase(0, end + 1);
    }
    return lines;
}

} // namespace micro850::sim
