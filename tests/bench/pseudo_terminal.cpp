#include "pseudo_terminal.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace {

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "bench: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(2);
}

} // namespace

PseudoTerminal::PseudoTerminal()
    : m_master(::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)), m_held(-1)
{
    std::array<char, 128> name{};
    if (m_master < 0 || ::grantpt(m_master) != 0 || ::unlockpt(m_master) != 0 ||
        ::ptsname_r(m_master, name.data(), name.size()) != 0)
        fail("pseudo-terminal (is /dev/pts mounted?)");
    m_path = name.data();
    m_held = openRaw(m_path);
}

PseudoTerminal::~PseudoTerminal()
{
    ::close(m_held);
    ::close(m_master);
}

int openRaw(const std::string& path)
{
    const int descriptor = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    termios settings{};
    if (descriptor < 0 || ::tcgetattr(descriptor, &settings) != 0)
        fail(path);
    ::cfmakeraw(&settings);
    if (::tcsetattr(descriptor, TCSANOW, &settings) != 0)
        fail(path);
    return descriptor;
}

std::int64_t nanoseconds()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t(1000000000) + now.tv_nsec;
}
