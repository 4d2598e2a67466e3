#ifndef MICRO850_BENCH_CLIENT_H
#define MICRO850_BENCH_CLIENT_H

#include "pseudo_terminal.h"

#include <cstdio>
#include <cstdlib>

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
    void start() { m_start = nanoseconds(); }
    /// Prints the time of one read.
    void report(int reads) const
    {
        std::printf("microseconds %.3f\n",
                    static_cast<double>(nanoseconds() - m_start) / 1000 / reads);
    }

private:
    std::int64_t m_start = 0;
};

#endif
