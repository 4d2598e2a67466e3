#ifndef MICRO850_BENCH_CLIENT_H
#define MICRO850_BENCH_CLIENT_H

#include "pseudo_terminal.h"

#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>

/// The task of every client: the device, its speed, the number of registers or elements, the number
/// of reads.
struct Task
{
    const char* device;
    int baud;
    int values;
    int reads;
};

/// Prints the usage and ends the program if the arguments are wrong.
inline Task taskFrom(int argc, char** argv)
{
    Task task = {nullptr, 0, 0, 0};
    if (argc == 5)
        task = {argv[1], std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4])};
    if (task.baud < 1 || task.values < 1 || task.reads < 1) {
        std::fprintf(stderr, "usage: %s DEVICE BAUD VALUES READS, all numbers from 1\n", argv[0]);
        std::exit(2);
    }
    return task;
}

/// Measures all reads except the first, which opens the device and connects.
class Stopwatch
{
public:
    void start()
    {
        m_start = nanoseconds();
        ::getrusage(RUSAGE_SELF, &m_before);
    }
    /// Prints for one read: its time, the processor's time for the program and for the system's
    /// part, and how often the program slept and was woken.
    void report(int reads) const
    {
        rusage now{};
        ::getrusage(RUSAGE_SELF, &now);
        const auto each = [reads](double sum) { return sum / reads; };
        std::printf("microseconds %.3f user %.3f system %.3f wakeups %.3f\n",
                    each(static_cast<double>(nanoseconds() - m_start) / 1000),
                    each(microseconds(now.ru_utime) - microseconds(m_before.ru_utime)),
                    each(microseconds(now.ru_stime) - microseconds(m_before.ru_stime)),
                    each(static_cast<double>(now.ru_nvcsw - m_before.ru_nvcsw)));
    }

private:
    static double microseconds(const timeval& time)
    {
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
    }

    std::int64_t m_start = 0;
    rusage m_before{};
};

#endif
