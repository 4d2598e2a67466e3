#include "ListeningSocket.h"

#include "Descriptor.h"
#include "UserError.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace micro850::gateway {

namespace {

[[noreturn]] void fail(const QByteArray& path, const std::string& what, const std::string& remedy)
{
    throw UserError("socket " + path.toStdString() + ": " + what + " (" + remedy + ')',
                    kExitRefused);
}

[[noreturn]] void failWithErrno(const QByteArray& path, const std::string& remedy)
{
    fail(path, std::strerror(errno), remedy);
}

sockaddr_un addressOf(const QByteArray& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.isEmpty() || path.size() >= static_cast<int>(sizeof(address.sun_path)))
        fail(path,
             "a path of 1 to " + std::to_string(sizeof(address.sun_path) - 1) + " bytes is needed",
             "choose a shorter \"path\" of the socket");
    std::memcpy(address.sun_path, path.constData(), static_cast<std::size_t>(path.size()));
    return address;
}

// Several gateways that start at once look at the path one after the other.
class FolderLock
{
public:
    explicit FolderLock(const QByteArray& path)
        : m_folder(::open(QFile::encodeName(QFileInfo(QFile::decodeName(path)).path()).constData(),
                          O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        if (m_folder.number() < 0)
            fail(path, std::string("its folder: ") + std::strerror(errno),
                 "create the folder, or give another \"path\" of the socket");
        // Whoever may read the folder can hold the lock; gateways do so for a moment.
        for (int i = 0; ::flock(m_folder.number(), LOCK_EX | LOCK_NB) != 0; ++i) {
            if (i == kMostTries)
                fail(path, "another program has locked its folder", "end that program");
            ::usleep(kPauseMicroseconds);
        }
    }

private:
    static constexpr int kMostTries = 100;
    static constexpr useconds_t kPauseMicroseconds = 10000;

    Descriptor m_folder;
};

void removeStale(const QByteArray& path)
{
    struct stat found
    {
    };
    if (::lstat(path.constData(), &found) != 0)
        return;
    if (!S_ISSOCK(found.st_mode))
        fail(path, "a file that is no socket is there",
             "remove it, or give another \"path\" of the socket");
    const Descriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = addressOf(path);
    const int connected =
        ::connect(probe.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (connected == 0 || errno == EAGAIN)
        fail(path, "another gateway is listening there",
             "stop it, or give another \"path\" of the socket");
    if (errno != ECONNREFUSED && errno != ENOENT)
        failWithErrno(path, "check who owns the socket");
    if (::unlink(path.constData()) != 0 && errno != ENOENT)
        failWithErrno(path, "remove what a dead gateway left there");
}

} // namespace

ListeningSocket::ListeningSocket(const QString& path) : m_path(path)
{
    const QByteArray name = QFile::encodeName(path);
    try {
        bindTo(name);
    } catch (...) {
        if (m_socket >= 0)
            ::close(m_socket);
        throw;
    }
    m_reserve = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

// The mode must be right from the first moment on: who connected before a change stays.
void ListeningSocket::bindTo(const QByteArray& path)
{
    const sockaddr_un address = addressOf(path);
    [[maybe_unused]] const FolderLock lock(path);
    removeStale(path);
    m_socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_socket < 0)
        failWithErrno(path, "check the limit of open files");
    const mode_t allButUserAndGroup = 0117;
    const mode_t before = ::umask(allButUserAndGroup);
    const int bound = ::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::umask(before);
    if (bound != 0)
        failWithErrno(path, "the user of the service must be able to write in its folder");
    struct stat made
    {
    };
    if (::lstat(path.constData(), &made) == 0) {
        m_device = made.st_dev;
        m_inode = made.st_ino;
    }
    if (::listen(m_socket, SOMAXCONN) != 0)
        failWithErrno(path, "check the limits of the system");
}

ListeningSocket::~ListeningSocket()
{
    const QByteArray path = QFile::encodeName(m_path);
    struct stat found
    {
    };
    if (::lstat(path.constData(), &found) == 0 && found.st_dev == m_device &&
        found.st_ino == m_inode)
        ::unlink(path.constData());
    ::close(m_socket);
    if (m_reserve >= 0)
        ::close(m_reserve);
}

int ListeningSocket::accept()
{
    const int client = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client >= 0 || (errno != EMFILE && errno != ENFILE) || m_reserve < 0)
        return client;
    // The client would wait for ever, and the socket report it for ever.
    ::close(m_reserve);
    const int turnedAway = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (turnedAway >= 0)
        ::close(turnedAway);
    m_reserve = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    return -1;
}

} // namespace micro850::gateway
