#include "workers.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <stdexcept>

namespace workers {

namespace {

struct Child
{
    std::size_t job;
    std::FILE* report;
};

void write(std::FILE* report, const Outcome& outcome)
{
    for (std::uint64_t count : outcome.counts)
        std::fprintf(report, "%llu ", static_cast<unsigned long long>(count));
    std::fprintf(report, "\n%s", outcome.difference.c_str());
}

Outcome read(std::FILE* report, int status)
{
    std::string text;
    std::rewind(report);
    for (int c = std::fgetc(report); c != EOF; c = std::fgetc(report))
        text += static_cast<char>(c);
    std::fclose(report);
    Outcome outcome;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        outcome.difference = "the process ended with wait status " + std::to_string(status);
        return outcome;
    }
    const std::size_t end = text.find('\n');
    std::size_t at = 0;
    while (at < end) {
        outcome.counts.push_back(std::stoull(text.substr(at)));
        at = text.find(' ', at) + 1;
    }
    outcome.difference = text.substr(end + 1);
    return outcome;
}

void start(const Job& job, std::size_t number, std::map<pid_t, Child>& children)
{
    const Child child = {number, std::tmpfile()};
    std::fflush(nullptr);
    const pid_t process = child.report ? fork() : -1;
    if (process < 0)
        throw std::runtime_error("exhaust: a process cannot be started");
    if (process == 0) {
        write(child.report, job());
        _exit(std::fclose(child.report) == 0 ? 0 : 1);
    }
    children[process] = child;
}

} // namespace

std::vector<Outcome> run(const std::vector<Job>& jobs, int processes)
{
    std::vector<Outcome> outcomes(jobs.size());
    std::map<pid_t, Child> children;
    bool differs = false;
    for (std::size_t next = 0; (next < jobs.size() && !differs) || !children.empty();) {
        if (next < jobs.size() && !differs && children.size() < static_cast<std::size_t>(processes))
        {
            start(jobs[next], next, children);
            ++next;
            continue;
        }
        int status = 0;
        const auto child = children.find(wait(&status));
        if (child == children.end())
            continue;
        Outcome& outcome = outcomes[child->second.job];
        outcome = read(child->second.report, status);
        differs = differs || !outcome.difference.empty();
        children.erase(child);
    }
    return outcomes;
}

} // namespace workers
