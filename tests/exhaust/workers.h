#ifndef MICRO850_TESTS_EXHAUST_WORKERS_H
#define MICRO850_TESTS_EXHAUST_WORKERS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// Work in processes of their own, because the driver is one object of a process.
namespace workers {

/// What a job found: its counts, and the first difference, empty if there is none.
struct Outcome
{
    std::vector<std::uint64_t> counts;
    std::string difference;
};

typedef std::function<Outcome()> Job;

/// Runs every job in a child process, `processes` of them at a time, and returns their outcomes in
/// the order of the jobs. A child that dies is a difference. After a difference no job is started.
std::vector<Outcome> run(const std::vector<Job>& jobs, int processes);

} // namespace workers

#endif
