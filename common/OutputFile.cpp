#include "OutputFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace micro850 {

namespace {

// Whether the name, or the permission to use it, is at fault. Otherwise it is the disk.
bool isFaultOfName(int error)
{
    switch (error) {
    case ENOENT:
    case EACCES:
    case EPERM:
    case EISDIR:
    case ENOTDIR:
    case ENAMETOOLONG:
    case ELOOP:
    case ETXTBSY:
    case ENXIO:
    case ENODEV:
        return true;
    default:
        return false;
    }
}

} // namespace

void failToWrite(const std::string& name, int error)
{
    throw UserError(name + ": cannot be written: " + std::strerror(error),
                    isFaultOfName(error) ? kExitUsage : kExitRefused);
}

void writeAll(int descriptor, const std::string& bytes, const std::string& name)
{
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = ::write(descriptor, bytes.data() + written, bytes.size() - written);
        if (count > 0) {
            written += static_cast<std::size_t>(count);
        } else if (count < 0 && errno == EAGAIN) {
            pollfd wait = {descriptor, POLLOUT, 0}; // another program made the pipe non-blocking
            ::poll(&wait, 1, -1);
        } else if (count == 0 || errno != EINTR) {
            failToWrite(name, count == 0 ? EIO : errno);
        }
    }
}

void requireFile(const std::string& path, const std::string& instead)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode))
        return;
    throw UserError(path +
                    (S_ISDIR(status.st_mode) ? ": is a directory (" : ": is a pipe or a device (") +
                    instead + ')');
}

OutputFile::OutputFile(int descriptor, std::string name)
    : m_descriptor(descriptor), m_name(std::move(name))
{
    struct stat status = {};
    m_regular = ::fstat(m_descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

// A pipe is opened for reading too, so that this does not wait for a reader; the descriptor that
// only writes then notices when there is none.
OutputFile OutputFile::open(const std::string& path)
{
    const int descriptor =
        ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    if (descriptor < 0)
        failToWrite(path, errno);
    OutputFile file(descriptor, path);
    if (::isatty(descriptor) == 1)
        throw UserError(path + ": is a terminal or a serial line (name a file)");
    ::fcntl(descriptor, F_SETFL, 0);
    struct stat status = {};
    if (::fstat(descriptor, &status) != 0 || !S_ISFIFO(status.st_mode))
        return file;
    const int pipe = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (pipe < 0)
        failToWrite(path, errno);
    return OutputFile(pipe, path);
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : m_descriptor(std::exchange(other.m_descriptor, -1)), m_name(std::move(other.m_name)),
      m_regular(other.m_regular)
{
}

OutputFile::~OutputFile()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

// Some network disks have no locks; the file is then used without one.
void OutputFile::lock()
{
    if (::flock(m_descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        throw UserError(m_name + ": another program is writing to it (name another file, or end "
                                 "that program)",
                        kExitRefused);
}

void OutputFile::write(const std::string& bytes)
{
    const off_t before = m_regular ? ::lseek(m_descriptor, 0, SEEK_END) : -1;
    try {
        writeAll(m_descriptor, bytes, m_name);
    } catch (const UserError&) {
        // A part of the bytes would look like a whole record to a reader.
        if (before >= 0 && ::ftruncate(m_descriptor, before) == 0)
            ::lseek(m_descriptor, before, SEEK_SET);
        throw;
    }
}

void OutputFile::close()
{
    const int descriptor = std::exchange(m_descriptor, -1);
    if (descriptor >= 0 && ::close(descriptor) != 0 && errno != EINTR)
        failToWrite(m_name, errno);
}

} // namespace micro850
