// Marks a client's own part of the gap between two transactions, through LD_PRELOAD: the time from
// the return of the read() that brought the last byte of a reply to the entry of the next write().
// Writes a line for each gap to the file that BENCH_MARKS names, in nanoseconds of CLOCK_MONOTONIC:
// return of the read, entry of the write, time between them in calls that empty the input.
// Under callgrind, started with --collect-atstart=no, only the instructions between the marks are
// counted, in as many gaps as BENCH_COUNTED_GAPS says.

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <sys/types.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include <valgrind/callgrind.h>

namespace {

const std::size_t kMostMarks = 1 << 16;
const int kSettling = 12; // gaps until the connection is made and the cycle runs

struct Mark
{
    std::int64_t returned;
    std::int64_t entered;
    std::int64_t emptying;
};

template<typename Function> Function next(const char* name)
{
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

std::int64_t nanoseconds()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t(1000000000) + now.tv_nsec;
}

class Marks
{
public:
    // The memory is touched now, so that no page is added within a gap.
    Marks() : m_marks(kMostMarks, Mark{0, 0, 0})
    {
        const char* const gaps = std::getenv("BENCH_COUNTED_GAPS");
        m_toCount = gaps ? std::atoi(gaps) : 0;
    }
    Marks(const Marks&) = delete;
    Marks& operator=(const Marks&) = delete;
    ~Marks()
    {
        const char* const path = std::getenv("BENCH_MARKS");
        std::FILE* const file = path ? std::fopen(path, "w") : nullptr;
        if (!file)
            return;
        for (std::size_t i = 0; i < m_number; ++i)
            std::fprintf(file, "%lld %lld %lld\n", static_cast<long long>(m_marks[i].returned),
                         static_cast<long long>(m_marks[i].entered),
                         static_cast<long long>(m_marks[i].emptying));
        std::fclose(file);
    }

    // The client has one line: every terminal but the standard streams is taken for it.
    bool isLine(int descriptor)
    {
        if (descriptor <= STDERR_FILENO || descriptor >= int(m_known.size()))
            return false;
        char& known = m_known[static_cast<std::size_t>(descriptor)];
        if (known == kUnknown)
            known = ::isatty(descriptor) == 1 ? kLine : kOther;
        return known == kLine;
    }
    void forget(int descriptor)
    {
        if (descriptor >= 0 && descriptor < int(m_known.size()))
            m_known[static_cast<std::size_t>(descriptor)] = kUnknown;
    }

    void noteRead(std::int64_t returned, int bytes)
    {
        m_returned = returned;
        m_emptying = 0;
        m_received += bytes;
        // Replies of a cycle are equally long, but for a transaction number that is doubled.
        if (m_received != m_expected || m_gaps < kSettling || m_toCount == 0 || m_counting)
            return;
        --m_toCount;
        m_counting = true;
        CALLGRIND_TOGGLE_COLLECT;
    }
    void endCounting()
    {
        if (!m_counting)
            return;
        CALLGRIND_TOGGLE_COLLECT;
        m_counting = false;
    }
    void noteWrite(std::int64_t entered)
    {
        if (m_received > 0 && m_number < m_marks.size())
            m_marks[m_number++] = {m_returned, entered, m_emptying};
        m_gaps += m_received > 0 ? 1 : 0;
        m_expected = m_received > 0 ? m_received : m_expected;
        m_received = 0;
    }
    void noteEmptying(std::int64_t time) { m_emptying += time; }

private:
    static constexpr char kUnknown = 0;
    static constexpr char kLine = 1;
    static constexpr char kOther = 2;

    std::vector<Mark> m_marks;
    std::array<char, 1024> m_known{};
    std::size_t m_number = 0;
    std::int64_t m_returned = 0;
    std::int64_t m_emptying = 0;
    int m_gaps = 0;
    int m_toCount = 0;  ///< gaps whose instructions are still to be counted
    int m_received = 0; ///< bytes of the present reply
    int m_expected = 0; ///< bytes of the reply before it
    bool m_counting = false;
};

Marks& marks()
{
    static Marks one;
    return one;
}

// Makes the object before the client's first call.
const Marks& made = marks();

} // namespace

extern "C" ssize_t read(int descriptor, void* buffer, std::size_t size)
{
    static const auto real = next<ssize_t (*)(int, void*, std::size_t)>("read");
    const ssize_t count = real(descriptor, buffer, size);
    if (count > 0 && marks().isLine(descriptor))
        marks().noteRead(nanoseconds(), static_cast<int>(count));
    return count;
}

extern "C" ssize_t write(int descriptor, const void* buffer, std::size_t size)
{
    static const auto real = next<ssize_t (*)(int, const void*, std::size_t)>("write");
    if (marks().isLine(descriptor)) {
        marks().endCounting();
        marks().noteWrite(nanoseconds());
    }
    return real(descriptor, buffer, size);
}

extern "C" int tcflush(int descriptor, int queue)
{
    static const auto real = next<int (*)(int, int)>("tcflush");
    const std::int64_t entered = nanoseconds();
    const int result = real(descriptor, queue);
    marks().noteEmptying(nanoseconds() - entered);
    return result;
}

extern "C" int close(int descriptor)
{
    static const auto real = next<int (*)(int)>("close");
    marks().forget(descriptor);
    return real(descriptor);
}
