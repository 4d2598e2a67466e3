// paced_line DEVICE BAUD: a line of BAUD bits a second, 10 bits a byte, between the controller at
// DEVICE and a client at a pseudo-terminal; prints the path. A byte arrives when its last bit would
// arrive; the two directions are independent. Each end accepts bytes at once and delays them, as
// the transmitter of a serial port does. Runs until SIGTERM, then prints one line for each run of
// bytes in one direction: "> or <, begin of the first byte in nanoseconds, end of the last byte,
// number of bytes".

#include "pseudo_terminal.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <vector>

namespace {

volatile std::sig_atomic_t stopRequested = 0;

void requestStop(int)
{
    stopRequested = 1;
}

/// A run of bytes in one direction.
struct Run
{
    char direction;
    std::int64_t first;
    std::int64_t last;
    int bytes;
};

/// One direction of the line.
class Way
{
public:
    Way(char direction, int from, int to, std::int64_t byteTime, std::vector<Run>& runs)
        : m_direction(direction), m_from(from), m_to(to), m_byteTime(byteTime), m_runs(runs),
          m_timer(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC))
    {
    }

    int source() const { return m_from; }
    int timer() const { return m_timer; }

    /// Reads what the sender has written.
    void take()
    {
        std::array<std::uint8_t, 4096> buffer;
        const ssize_t count = ::read(m_from, buffer.data(), buffer.size());
        if (count <= 0)
            return;
        const std::int64_t now = nanoseconds();
        if (m_runs.empty() || m_runs.back().direction != m_direction)
            m_runs.push_back({m_direction, now, now, 0});
        if (m_bytes.empty()) {
            m_due = std::max(now, m_due) + m_byteTime;
            setTimer();
        }
        m_bytes.insert(m_bytes.end(), buffer.begin(), buffer.begin() + count);
    }

    /// Passes on the bytes whose time has come.
    void deliver()
    {
        std::uint64_t expirations = 0;
        if (::read(m_timer, &expirations, sizeof expirations) < 0)
            return;
        std::vector<std::uint8_t> arrived;
        for (const std::int64_t now = nanoseconds(); !m_bytes.empty() && m_due <= now;) {
            arrived.push_back(m_bytes.front());
            m_bytes.pop_front();
            m_due += m_bytes.empty() ? 0 : m_byteTime;
        }
        note(static_cast<int>(arrived.size()));
        if (!arrived.empty() && ::write(m_to, arrived.data(), arrived.size()) < 0)
            std::perror("paced_line: bytes are lost");
        if (!m_bytes.empty())
            setTimer();
    }

private:
    void note(int bytes)
    {
        for (auto run = m_runs.rbegin(); run != m_runs.rend(); ++run) {
            if (run->direction != m_direction)
                continue;
            run->last = nanoseconds();
            run->bytes += bytes;
            return;
        }
    }

    void setTimer() const
    {
        itimerspec when{};
        when.it_value.tv_sec = m_due / 1000000000;
        when.it_value.tv_nsec = m_due % 1000000000;
        ::timerfd_settime(m_timer, TFD_TIMER_ABSTIME, &when, nullptr);
    }

    char m_direction;
    int m_from;
    int m_to;
    std::int64_t m_byteTime;
    std::vector<Run>& m_runs;
    int m_timer;
    std::deque<std::uint8_t> m_bytes;
    std::int64_t m_due = 0; ///< end of the byte that is on the line, or of the last byte
};

// Asks for a real-time priority, so that the line is on time. Not every system allows it.
void hurry()
{
    sched_param priority{};
    priority.sched_priority = 10;
    ::sched_setscheduler(0, SCHED_FIFO, &priority);
    ::prctl(PR_SET_TIMERSLACK, 1);
}

void carry(Way& requests, Way& replies)
{
    sigset_t none;
    sigemptyset(&none);
    while (!stopRequested) {
        std::array<pollfd, 4> waits = {{{requests.timer(), POLLIN, 0},
                                        {replies.timer(), POLLIN, 0},
                                        {requests.source(), POLLIN, 0},
                                        {replies.source(), POLLIN, 0}}};
        if (::ppoll(waits.data(), waits.size(), nullptr, &none) <= 0)
            continue;
        if (waits[0].revents != 0)
            requests.deliver();
        if (waits[1].revents != 0)
            replies.deliver();
        if (waits[2].revents != 0)
            requests.take();
        if (waits[3].revents != 0)
            replies.take();
    }
}

} // namespace

int main(int argc, char** argv)
{
    const int baud = argc == 3 ? std::atoi(argv[2]) : 0;
    if (baud < 1) {
        std::fprintf(stderr, "usage: paced_line DEVICE BAUD\n");
        return 2;
    }
    // The stop signal arrives only between two steps.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &stop, nullptr);
    std::signal(SIGTERM, requestStop);
    hurry();

    const int controller = openRaw(argv[1]);
    const PseudoTerminal client;
    std::vector<Run> runs;
    const std::int64_t byteTime = std::int64_t(10) * 1000000000 / baud;
    Way requests('>', client.descriptor(), controller, byteTime, runs);
    Way replies('<', controller, client.descriptor(), byteTime, runs);
    std::printf("%s\n", client.path().c_str());
    std::fflush(stdout);
    carry(requests, replies);
    for (const Run& run : runs)
        std::printf("%c %lld %lld %d\n", run.direction, static_cast<long long>(run.first),
                    static_cast<long long>(run.last), run.bytes);
    return 0;
}
