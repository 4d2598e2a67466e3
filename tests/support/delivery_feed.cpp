#include "delivery_feed.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

using nlohmann::json;

namespace {

const int kChildSocket = 3; // where the process expects the socket
const std::size_t kMostInALine = 500;
const std::size_t kLongestLog = 65536;

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

} // namespace

DeliveryFeed::DeliveryFeed(std::string program, Opening opening)
    : m_program(std::move(program)), m_opening(std::move(opening))
{
}

DeliveryFeed::~DeliveryFeed()
{
    close();
    if (m_process > 0)
        ::waitpid(m_process, nullptr, 0);
}

void DeliveryFeed::start()
{
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
        fail("socketpair");
    // A descriptor that is copied to itself would be closed in the child.
    int far = ends[1];
    if (far == kChildSocket)
        far = ::fcntl(far, F_DUPFD_CLOEXEC, kChildSocket + 1);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, far, kChildSocket);
    std::string name = m_program;
    std::string argument = "deliver";
    std::array<char*, 3> arguments = {name.data(), argument.data(), nullptr};
    const int failure =
        ::posix_spawn(&m_process, m_program.c_str(), &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) {
        errno = failure;
        fail(m_program);
    }
    ::close(far);
    if (far != ends[1])
        ::close(ends[1]);
    m_socket = ends[0];
    ::fcntl(m_socket, F_SETFL, O_NONBLOCK);
    m_isOpen = false;
    m_input.clear();
    m_output.clear();
    m_sent = 0;
    sendLine(json({{"request", "open"},
                   {"kind", m_opening.kind},
                   {"settings", m_opening.settings},
                   {"run", m_opening.run},
                   {"version", "1.0.0"}})
                 .dump());
}

void DeliveryFeed::kill()
{
    if (m_process > 0) {
        ::kill(m_process, SIGKILL);
        ::waitpid(m_process, nullptr, 0);
    }
    m_process = -1;
    close();
}

void DeliveryFeed::close()
{
    if (m_socket >= 0)
        ::close(m_socket);
    m_socket = -1;
    m_isOpen = false;
}

bool DeliveryFeed::hasEnded()
{
    if (m_process > 0 && ::waitpid(m_process, nullptr, WNOHANG) == m_process)
        m_process = -1;
    return m_process <= 0;
}

void DeliveryFeed::feed(const std::string& value)
{
    ++m_fed;
    m_waiting.push_back(value);
}

void DeliveryFeed::flush()
{
    while (m_isOpen && m_flushed < m_waiting.size()) {
        const std::size_t end = std::min(m_waiting.size(), m_flushed + kMostInALine);
        const auto first = m_kept + static_cast<std::int64_t>(m_flushed) + 1;
        std::string line = R"({"event":"values","first":)" + std::to_string(first);
        line += R"(,"values":[)";
        for (std::size_t at = m_flushed; at < end; ++at)
            line += (at > m_flushed ? "," : "") + m_waiting[at];
        m_flushed = end;
        sendLine(line + "]}");
    }
    sendOutput();
}

void DeliveryFeed::sendLine(const std::string& line)
{
    m_output += line;
    m_output += '\n';
    sendOutput();
}

void DeliveryFeed::sendOutput()
{
    while (m_socket >= 0 && m_sent < m_output.size()) {
        const ssize_t count = ::send(m_socket, m_output.data() + m_sent, m_output.size() - m_sent,
                                     MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count <= 0)
            return; // receive() finds out whether it is gone
        m_sent += static_cast<std::size_t>(count);
    }
    m_output.clear();
    m_sent = 0;
}

bool DeliveryFeed::receive()
{
    std::array<char, 65536> bytes{};
    for (;;) {
        const ssize_t count = ::recv(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            break;
        if (count <= 0) {
            close();
            return false;
        }
        m_input.append(bytes.data(), static_cast<std::size_t>(count));
    }
    std::size_t begin = 0;
    for (std::size_t end; (end = m_input.find('\n', begin)) != std::string::npos; begin = end + 1)
        handle(m_input.substr(begin, end - begin));
    m_input.erase(0, begin);
    return true;
}

void DeliveryFeed::handle(const std::string& line)
{
    const json message = json::parse(line, nullptr, false);
    const std::string event = message.is_object() ? message.value("event", "") : "";
    if (event == "kept") {
        const auto number = message.value("number", std::int64_t(0));
        for (; m_kept < number && !m_waiting.empty(); ++m_kept) {
            m_waiting.pop_front();
            m_flushed -= m_flushed > 0 ? 1 : 0;
        }
    } else if (event == "status") {
        m_status = message.value("status", json());
    } else if (event == "log") {
        if (m_log.size() < kLongestLog)
            m_log += message.value("text", "") + '\n';
    } else if (event == "opened") {
        handleOpened(message);
    }
}

// The process tells what it has of this run; the rest is sent.
void DeliveryFeed::handleOpened(const json& message)
{
    m_isOpen = true;
    m_flushed = 0;
    if (message.value("run", "") == m_opening.run) {
        const auto number = message.value("number", std::int64_t(0));
        for (; m_kept < number && !m_waiting.empty(); ++m_kept)
            m_waiting.pop_front();
    }
    json catalogue = m_opening.catalogue;
    catalogue["event"] = "catalogue";
    sendLine(catalogue.dump());
    flush();
}
