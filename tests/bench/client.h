#ifndef MICRO850_BENCH_CLIENT_H
#define MICRO850_BENCH_CLIENT_H

#include "pseudo_terminal.h"

#include <cstdio>
#include <cstdlib>

/// What every client is told: which device at which speed, how many registers or elements, how
/// often.
struct Task
{
    const char* device;
    int baud;
    int values;
    int reads;
};

/// Ends the program with the usage where the arguments are wrong.
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

/// Measures the reads, but for the first, which opens and connects what the others use.
class Stopwatch
{
public:
    void start() { m_start = nanoseconds(); }
    /// Prints what one read took.
    void report(int reads) const
    {
        std::printf("microseconds %.3f\n",
                    static_cast<double>(nanoseconds() - m_start) / 1000 / reads);
    }

private:
    std::int64_t m_start = 0;
};

#endif
