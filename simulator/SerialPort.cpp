#include "SerialPort.h"

#include "UserError.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace micro850::sim {

namespace {

[[noreturn]] void fail(const std::string& what, const std::string& remedy)
{
    throw UserError(what + ": " + std::strerror(errno) + " (" + remedy + ')');
}

speed_t speedOf(int baud)
{
    const std::vector<std::pair<int, speed_t>> speeds = {
        {1200, B1200},   {2400, B2400},   {4800, B4800},   {9600, B9600},
        {19200, B19200}, {38400, B38400}, {57600, B57600}, {115200, B115200}};
    std::string known;
    for (const auto& [rate, speed] : speeds) {
        if (rate == baud)
            return speed;
        known += (known.empty() ? "" : ", ") + std::to_string(rate);
    }
    throw UserError("--baud " + std::to_string(baud) + " is not a speed of the line (" + known +
                    ')');
}

void makeRaw(int descriptor, const std::string& path, speed_t speed)
{
    termios settings{};
    if (::tcgetattr(descriptor, &settings) != 0)
        fail(path, "it is not a serial device");
    ::cfmakeraw(&settings);
    ::cfsetspeed(&settings, speed);
    settings.c_cflag |= CLOCAL | CREAD;
    if (::tcsetattr(descriptor, TCSANOW, &settings) != 0)
        fail(path, "the device does not take these settings");
}

} // namespace

SerialPort::SerialPort(int descriptor, int held, std::string path, const Clock& clock)
    : m_descriptor(descriptor), m_held(held), m_path(std::move(path)), m_output(clock)
{
}

SerialPort::~SerialPort()
{
    m_link = PortLink(); // removed while the terminal still has its number
    if (m_held >= 0)
        ::close(m_held);
    ::close(m_descriptor);
}

std::unique_ptr<Port> SerialPort::pseudoTerminal(const std::string& link, const Clock& clock)
{
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    std::array<char, 128> name{};
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0 ||
        ::ptsname_r(master, name.data(), name.size()) != 0)
        fail("pseudo-terminal", "is /dev/pts mounted?");
    const int slave = ::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave < 0)
        fail(name.data(), "is /dev/pts mounted?");
    std::unique_ptr<SerialPort> port(new SerialPort(master, slave, name.data(), clock));
    makeRaw(slave, name.data(), B38400);
    ::fcntl(master, F_SETFL, O_NONBLOCK);
    if (!link.empty())
        port->m_link = PortLink(link, name.data());
    return port;
}

std::unique_ptr<Port> SerialPort::device(const std::string& path, int baud, const Clock& clock)
{
    const speed_t speed = speedOf(baud);
    const int descriptor = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        fail("--port " + path, "give a serial device, or leave --port out for a pseudo-terminal");
    std::unique_ptr<Port> port(new SerialPort(descriptor, -1, path, clock));
    makeRaw(descriptor, path, speed);
    return port;
}

std::vector<pollfd> SerialPort::waits() const
{
    return {{m_descriptor, static_cast<short>(m_output.isEmpty() ? POLLIN : POLLIN | POLLOUT), 0}};
}

Bytes SerialPort::read(bool& gone)
{
    std::array<std::uint8_t, 4096> buffer;
    const ssize_t count = ::read(m_descriptor, buffer.data(), buffer.size());
    gone = count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
    return count > 0 ? Bytes(buffer.begin(), buffer.begin() + count) : Bytes();
}

void SerialPort::write(const Bytes& bytes)
{
    m_output.add(bytes);
    m_output.flush([this](const std::uint8_t* data, std::size_t count) {
        return ::write(m_descriptor, data, count);
    });
}

} // namespace micro850::sim
