#include "WorkerProcess.h"

#include "ChildProcess.h"
#include "UserError.h"
#include "Worker.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

namespace micro850::gateway {

namespace {

[[noreturn]] void refuse(const char* what, int error)
{
    throw UserError(std::string(what) + ": " + std::strerror(error), kExitRefused);
}

/// What the new process gets: the socket as its descriptor, no blocked or ignored signal.
class SpawnSettings
{
public:
    explicit SpawnSettings(int socket)
    {
        posix_spawn_file_actions_init(&m_actions);
        posix_spawnattr_init(&m_attributes);
        posix_spawn_file_actions_adddup2(&m_actions, socket, kChildDescriptor);
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&m_attributes, &none);
        posix_spawnattr_setsigdefault(&m_attributes, &all);
        posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnSettings()
    {
        posix_spawnattr_destroy(&m_attributes);
        posix_spawn_file_actions_destroy(&m_actions);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    const posix_spawn_file_actions_t* actions() const { return &m_actions; }
    const posix_spawnattr_t* attributes() const { return &m_attributes; }

private:
    posix_spawn_file_actions_t m_actions;
    posix_spawnattr_t m_attributes;
};

// A descriptor with the number that it has in the worker would keep its mark to be closed there.
int movedAside(int descriptor)
{
    const int moved = ::fcntl(descriptor, F_DUPFD_CLOEXEC, kChildDescriptor + 1);
    const int error = errno;
    ::close(descriptor);
    if (moved < 0)
        refuse("a socket to a worker", error);
    return moved;
}

} // namespace

WorkerProcess startProcess(const char* argument)
{
    std::array<int, 2> ends = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
        refuse("a socket to a worker", errno);
    WorkerProcess worker;
    worker.socket = ends[0];
    int other = -1;
    try {
        other = movedAside(ends[1]);
    } catch (const UserError&) {
        ::close(worker.socket);
        throw;
    }
    // The names of all processes of the service begin alike.
    std::string name = "micro850-gateway";
    std::string text = argument;
    const std::array<char*, 3> arguments = {name.data(), text.data(), nullptr};
    const SpawnSettings settings(other);
    const int error = ::posix_spawn(&worker.pid, "/proc/self/exe", settings.actions(),
                                    settings.attributes(), arguments.data(), environ);
    ::close(other);
    if (error != 0) {
        ::close(worker.socket);
        refuse("a worker cannot be started", error);
    }
    return worker;
}

WorkerProcess startWorker()
{
    return startProcess(kWorkerArgument);
}

std::optional<QString> endOf(int pid)
{
    int status = 0;
    const pid_t ended = ::waitpid(pid, &status, WNOHANG);
    if (ended == 0 || (ended < 0 && errno == EINTR))
        return std::nullopt;
    if (ended < 0)
        return QStringLiteral("it is gone");
    return WIFSIGNALED(status) ? QStringLiteral("signal %1").arg(WTERMSIG(status))
                               : QStringLiteral("exit status %1").arg(WEXITSTATUS(status));
}

} // namespace micro850::gateway
