// Every short reply. docs/assurance.md says what is compared.

#include "replies.h"
#include "workers.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct Options
{
    bool quick = false;
    int processes = 2;
};

[[noreturn]] void refuse(const std::string& message)
{
    std::fprintf(stderr, "exhaust: %s\n", message.c_str());
    std::exit(2);
}

Options parse(int count, char** arguments)
{
    Options options;
    for (int i = 1; i < count; ++i) {
        const std::string argument = arguments[i];
        if (argument == "--quick") {
            options.quick = true;
        } else if (argument == "--jobs" && i + 1 < count) {
            options.processes = std::atoi(arguments[++i]);
            if (options.processes < 1)
                refuse("--jobs takes a number of processes, for example --jobs 2");
        } else {
            refuse("unknown argument \"" + argument + "\" (use --quick or --jobs N)");
        }
    }
    return options;
}

/// Runs jobs, adds up what they counted and prints it after their first difference.
class Report
{
public:
    explicit Report(int processes) : m_processes(processes) {}

    std::vector<std::uint64_t> run(const std::vector<workers::Job>& jobs)
    {
        const auto start = std::chrono::steady_clock::now();
        std::vector<std::uint64_t> sums;
        for (const workers::Outcome& outcome : workers::run(jobs, m_processes)) {
            if (!outcome.difference.empty() && !m_failed) {
                std::printf("%s\n", outcome.difference.c_str());
                m_failed = true;
            }
            sums.resize(std::max(sums.size(), outcome.counts.size()));
            for (std::size_t i = 0; i < outcome.counts.size(); ++i)
                sums[i] += outcome.counts[i];
        }
        m_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        return sums;
    }
    double seconds() const { return m_seconds; }
    bool failed() const { return m_failed; }

private:
    int m_processes;
    double m_seconds = 0;
    bool m_failed = false;
};

// 1234567 as "1,234,567".
std::string grouped(std::uint64_t number)
{
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3; at -= 3)
        text.insert(at - 3, ",");
    return text;
}

void checkReplies(Report& report, bool quick)
{
    const auto steps = report.run({replies::checkCrcSteps});
    if (report.failed())
        return;
    std::printf("steps of the CRC: %s as defined, %.1f s\n", grouped(steps[0]).c_str(),
                report.seconds());
    const int longest = quick ? 5 : 8;
    const auto counts = report.run(replies::jobs(longest, quick ? 100 : 1000));
    if (report.failed())
        return;
    std::printf("replies with a body of up to %d bytes: %s judged as defined, and %s cut and %s "
                "changed ones; %s intact ones stored as defined, %.1f s\n",
                longest, grouped(counts[replies::Judged]).c_str(),
                grouped(counts[replies::Cut]).c_str(), grouped(counts[replies::Changed]).c_str(),
                grouped(counts[replies::Intact]).c_str(), report.seconds());
}

} // namespace

int main(int count, char** arguments)
{
    const Options options = parse(count, arguments);
    Report report(options.processes);
    checkReplies(report, options.quick);
    return report.failed() ? 1 : 0;
}
