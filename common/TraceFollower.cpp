#include "TraceFollower.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <istream>
#include <streambuf>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace micro850 {

namespace {

const std::chrono::milliseconds kPause(100);

/// The bytes of a file, without an end as long as the file may grow.
class GrowingFile : public std::streambuf
{
public:
    GrowingFile(const std::string& path, const std::function<bool()>& isEnding)
        : m_path(path), m_isEnding(isEnding), m_file(::open(path.c_str(), O_RDONLY | O_CLOEXEC))
    {
        if (m_file < 0)
            fail();
    }
    ~GrowingFile() override { ::close(m_file); }
    GrowingFile(const GrowingFile&) = delete;
    GrowingFile& operator=(const GrowingFile&) = delete;

    bool isReplaced() const { return m_replaced; }
    /// True when the file has had no byte so far.
    bool isEmpty() const { return m_read == 0; }

protected:
    int_type underflow() override
    {
        for (;;) {
            const ssize_t got = ::read(m_file, m_part.data(), m_part.size());
            if (got < 0 && errno != EINTR)
                fail();
            if (got > 0) {
                m_read += got;
                setg(m_part.data(), m_part.data(), m_part.data() + got);
                return traits_type::to_int_type(m_part[0]);
            }
            m_replaced = wasReplaced();
            if (m_replaced || m_isEnding())
                return traits_type::eof();
            std::this_thread::sleep_for(kPause);
        }
    }
    // Only back to the begin, from where the kind of the file was looked at.
    pos_type seekpos(pos_type position, std::ios_base::openmode) override
    {
        if (position != pos_type(0) || m_read != egptr() - eback())
            return pos_type(off_type(-1));
        setg(eback(), eback(), egptr());
        return position;
    }

private:
    [[noreturn]] void fail() const
    {
        throw UserError(m_path + ": cannot be read: " + std::strerror(errno) + " (check the path)");
    }
    bool wasReplaced() const
    {
        struct stat open = {};
        struct stat named = {};
        if (::fstat(m_file, &open) != 0)
            fail();
        const bool isThere = ::stat(m_path.c_str(), &named) == 0;
        return open.st_size < m_read ||
               (isThere && (named.st_ino != open.st_ino || named.st_dev != open.st_dev));
    }

    const std::string& m_path;
    const std::function<bool()>& m_isEnding;
    int m_file;
    std::array<char, 1 << 16> m_part{};
    off_t m_read = 0;
    bool m_replaced = false;
};

} // namespace

FollowEnd followTrace(const std::string& path, const TraceHandler& handle,
                      const std::function<bool()>& isEnding)
{
    requireTraceFile(path);
    GrowingFile file(path, isEnding);
    std::istream in(&file);
    // What a reading throws must not become the stream's own state.
    in.exceptions(std::ios_base::badbit);
    try {
        readTrace(in, path, handle);
    } catch (const UserError&) {
        // Nothing came, or the begin of the next recording was taken for more of this one.
        if (!file.isReplaced() && !file.isEmpty())
            throw;
    }
    return file.isReplaced() ? FollowEnd::Replaced : FollowEnd::Asked;
}

} // namespace micro850
