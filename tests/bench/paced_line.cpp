// paced_line DEVICE BAUD [--timer MS]: a line of BAUD bits a second, 10 bits a byte, between the
// controller at DEVICE and a client at a pseudo-terminal; prints the path. A byte arrives when its
// last bit would arrive; the two directions are independent. Each end accepts bytes at once and
// delays them, as the transmitter of a serial port does. With --timer, the client's end is a USB
// adapter with a latency timer of MS milliseconds. Runs until SIGTERM, then prints one line for
// each run of bytes in one direction: "> or <, begin of the first byte in nanoseconds, end of the
// last byte on the line, number of bytes".

#include "pseudo_terminal.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <vector>

namespace {

const std::int64_t kMillisecond = 1000000;

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

/// A timer that makes its descriptor readable at a time of nanoseconds().
class Timer
{
public:
    int descriptor() const { return m_descriptor; }
    void set(std::int64_t due) const
    {
        itimerspec when{};
        when.it_value.tv_sec = due / 1000000000;
        when.it_value.tv_nsec = due % 1000000000;
        ::timerfd_settime(m_descriptor, TFD_TIMER_ABSTIME, &when, nullptr);
    }
    /// True once after it has expired.
    bool hasExpired() const
    {
        std::uint64_t expirations = 0;
        return ::read(m_descriptor, &expirations, sizeof expirations) > 0;
    }

private:
    int m_descriptor = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
};

using Bytes = std::vector<std::uint8_t>;

/// Passes bytes to an end of the line as soon as they have arrived.
class End
{
public:
    explicit End(int descriptor) : m_descriptor(descriptor) {}
    virtual ~End() = default;
    End(const End&) = delete;
    End& operator=(const End&) = delete;

    virtual void take(const Bytes& arrived) { pass(arrived.data(), arrived.size()); }

protected:
    void pass(const std::uint8_t* bytes, std::size_t count) const
    {
        if (count > 0 && ::write(m_descriptor, bytes, count) < 0)
            std::perror("paced_line: bytes are lost");
    }

private:
    int m_descriptor;
};

/// A USB adapter at an end of the line. It collects the bytes that arrive and passes them on in a
/// packet when the packet is full, or when the latency timer expires. The timer restarts with every
/// packet. It also does so with the empty packets that an adapter sends while nothing arrives: the
/// first byte after a silence waits for the rest of a period that has begun at any moment.
class Adapter : public End
{
public:
    Adapter(int descriptor, std::int64_t period)
        : End(descriptor), m_period(period), m_restarted(nanoseconds())
    {
    }

    const Timer& timer() const { return m_timer; }

    void take(const Bytes& arrived) override
    {
        for (const std::uint8_t byte : arrived) {
            if (m_packet.empty())
                beginPacket();
            m_packet.push_back(byte);
            if (m_packet.size() == kPacket)
                passPacket();
        }
    }
    void expire()
    {
        if (m_timer.hasExpired() && !m_packet.empty())
            passPacket();
    }

private:
    static constexpr std::size_t kPacket = 62; // 64 without two bytes of status

    void beginPacket()
    {
        m_restarted += (nanoseconds() - m_restarted) / m_period * m_period; // by empty packets
        m_timer.set(m_restarted + m_period);
    }
    void passPacket()
    {
        pass(m_packet.data(), m_packet.size());
        m_packet.clear();
        m_restarted = nanoseconds();
    }

    std::int64_t m_period;
    std::int64_t m_restarted;
    Timer m_timer;
    Bytes m_packet;
};

/// One direction of the line.
class Way
{
public:
    Way(char direction, int from, End& to, std::int64_t byteTime, std::vector<Run>& runs)
        : m_direction(direction), m_from(from), m_to(to), m_byteTime(byteTime), m_runs(runs)
    {
    }

    int source() const { return m_from; }
    const Timer& timer() const { return m_timer; }

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
            m_timer.set(m_due);
        }
        m_bytes.insert(m_bytes.end(), buffer.begin(), buffer.begin() + count);
    }

    /// Passes on the bytes whose time has come.
    void deliver()
    {
        if (!m_timer.hasExpired())
            return;
        Bytes arrived;
        for (const std::int64_t now = nanoseconds(); !m_bytes.empty() && m_due <= now;) {
            arrived.push_back(m_bytes.front());
            m_bytes.pop_front();
            m_due += m_bytes.empty() ? 0 : m_byteTime;
        }
        note(static_cast<int>(arrived.size()));
        m_to.take(arrived);
        if (!m_bytes.empty())
            m_timer.set(m_due);
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

    char m_direction;
    int m_from;
    End& m_to;
    std::int64_t m_byteTime;
    std::vector<Run>& m_runs;
    Timer m_timer;
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

void carry(Way& requests, Way& replies, Adapter* adapter)
{
    sigset_t none;
    sigemptyset(&none);
    while (!stopRequested) {
        const int latency = adapter ? adapter->timer().descriptor() : -1; // poll() ignores -1
        std::array<pollfd, 5> waits = {{{requests.timer().descriptor(), POLLIN, 0},
                                        {replies.timer().descriptor(), POLLIN, 0},
                                        {requests.source(), POLLIN, 0},
                                        {replies.source(), POLLIN, 0},
                                        {latency, POLLIN, 0}}};
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
        if (waits[4].revents != 0)
            adapter->expire();
    }
}

struct Options
{
    const char* device = nullptr;
    int baud = 0;
    int timer = 0; ///< milliseconds; 0 without an adapter
};

// Prints the usage and ends the program if the arguments are wrong.
Options optionsFrom(int argc, char** argv)
{
    Options options;
    if (argc == 3 || (argc == 5 && std::strcmp(argv[3], "--timer") == 0)) {
        options.device = argv[1];
        options.baud = std::atoi(argv[2]);
        options.timer = argc == 5 ? std::atoi(argv[4]) : 0;
    }
    if (options.baud < 1 || options.timer < (argc == 5 ? 1 : 0)) {
        std::fprintf(stderr, "usage: paced_line DEVICE BAUD [--timer MS], numbers from 1\n");
        std::exit(2);
    }
    return options;
}

// The stop signal arrives only between two steps.
void blockStopSignal()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &stop, nullptr);
    std::signal(SIGTERM, requestStop);
}

} // namespace

int main(int argc, char** argv)
{
    const Options options = optionsFrom(argc, argv);
    blockStopSignal();
    hurry();

    const int controller = openRaw(options.device);
    const PseudoTerminal client;
    std::vector<Run> runs;
    const std::int64_t byteTime = std::int64_t(10) * 1000000000 / options.baud;
    const std::unique_ptr<Adapter> adapter =
        options.timer > 0
            ? std::make_unique<Adapter>(client.descriptor(), options.timer * kMillisecond)
            : nullptr;
    End port(client.descriptor());
    End device(controller);
    Way requests('>', client.descriptor(), device, byteTime, runs);
    Way replies('<', controller, adapter ? *adapter : port, byteTime, runs);
    std::printf("%s\n", client.path().c_str());
    std::fflush(stdout);
    carry(requests, replies, adapter.get());
    for (const Run& run : runs)
        std::printf("%c %lld %lld %d\n", run.direction, static_cast<long long>(run.first),
                    static_cast<long long>(run.last), run.bytes);
    return 0;
}
