#include "PortLink.h"

#include "UserError.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace micro850::sim {

namespace {

// Where the link leads; "" if it is not a link.
std::string targetOf(const std::string& name)
{
    std::array<char, 256> target{};
    const ssize_t size = ::readlink(name.c_str(), target.data(), target.size());
    return size < 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(size));
}

bool isPseudoTerminal(const std::string& path)
{
    const std::string folder = "/dev/pts/";
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
           path.find_first_not_of("0123456789", folder.size()) == std::string::npos;
}

// Whether the terminal was there when the link was made. A later one has only got the number of the
// one that the link was made to. The kernel sets the time of change when it makes a terminal.
bool isInUse(const std::string& name, const std::string& terminal)
{
    struct stat ofLink = {};
    struct stat ofTerminal = {};
    if (::lstat(name.c_str(), &ofLink) != 0 || ::stat(terminal.c_str(), &ofTerminal) != 0)
        return false;
    const timespec& made = ofLink.st_mtim;
    const timespec& opened = ofTerminal.st_ctim;
    return opened.tv_sec < made.tv_sec ||
           (opened.tv_sec == made.tv_sec && opened.tv_nsec <= made.tv_nsec);
}

// Removes the link if it leads to this target. Between a look at a name and its removal the name
// can become another file's. Therefore the file is renamed first and looked at again.
void removeLink(const std::string& name, const std::string& target)
{
    if (targetOf(name) != target)
        return;
    const std::string aside = name + ".removed-" + std::to_string(::getpid());
    if (::rename(name.c_str(), aside.c_str()) != 0)
        return;
    if (targetOf(aside) == target) {
        ::unlink(aside.c_str());
        return;
    }
    // Not ours: put it back without replacing what has the name by now.
    if (::link(aside.c_str(), name.c_str()) == 0)
        ::unlink(aside.c_str());
    else if (errno != EEXIST)
        ::rename(aside.c_str(), name.c_str()); // a folder, or a disk without hard links
}

[[noreturn]] void refuse(const std::string& name, const std::string& why)
{
    throw UserError("--link " + name + ": " + why + " (choose another name)");
}

// Removes what a killed simulator left, or throws.
void takeOver(const std::string& name, const std::string& terminal)
{
    const std::string target = targetOf(name);
    if (target.empty())
        refuse(name, "there is a file of this name");
    if (!isPseudoTerminal(target))
        refuse(name, "there is a link of this name to " + target);
    if (target != terminal && isInUse(name, target))
        refuse(name, "leads to " + target + ", which is in use");
    removeLink(name, target);
}

} // namespace

PortLink::PortLink(const std::string& name, const std::string& terminal)
{
    bool made = ::symlink(terminal.c_str(), name.c_str()) == 0;
    if (!made && errno == EEXIST) {
        takeOver(name, terminal);
        made = ::symlink(terminal.c_str(), name.c_str()) == 0;
        if (!made && errno == EEXIST)
            refuse(name, "there is a file of this name");
    }
    if (!made)
        throw UserError("--link " + name + ": " + std::strerror(errno) +
                        " (choose a name in a folder that can be written)");
    m_name = name;
    m_terminal = terminal;
}

PortLink::PortLink(PortLink&& other) noexcept
    : m_name(std::exchange(other.m_name, std::string())), m_terminal(std::move(other.m_terminal))
{
}

PortLink& PortLink::operator=(PortLink&& other) noexcept
{
    std::swap(m_name, other.m_name);
    std::swap(m_terminal, other.m_terminal);
    return *this;
}

PortLink::~PortLink()
{
    if (!m_name.empty())
        removeLink(m_name, m_terminal);
}

} // namespace micro850::sim
