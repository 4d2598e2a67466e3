// Every short session and every short reply. docs/assurance.md says what is compared.

#include "replies.h"
#include "sessions.h"
#include "workers.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Options
{
    bool quick = false;
    int processes = 2;
    std::string only;

    bool wants(const char* part) const { return only.empty() || only == part; }
};

[[noreturn]] void refuse(const std::string& message)
{
    std::fprintf(stderr, "exhaust: %s\n", message.c_str());
    std::exit(2);
}

int processesOf(const std::string& text)
{
    char* end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0' || number < 1 || number > 1000)
        refuse("--jobs \"" + text + "\" is not a number of processes (for example --jobs 2)");
    return static_cast<int>(number);
}

std::string partOf(const std::string& text)
{
    if (text != "crc" && text != "replies" && text != "sessions")
        refuse("--only \"" + text + "\" is no part (use crc, replies or sessions)");
    return text;
}

Options parse(const std::vector<std::string>& arguments)
{
    Options options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const bool hasValue = i + 1 < arguments.size();
        if (arguments[i] == "--quick")
            options.quick = true;
        else if (arguments[i] == "--jobs" && hasValue)
            options.processes = processesOf(arguments[++i]);
        else if (arguments[i] == "--only" && hasValue)
            options.only = partOf(arguments[++i]);
        else
            refuse("unknown argument \"" + arguments[i] +
                   "\" (use --quick, --jobs N or --only PART)");
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

void checkCrc(Report& report)
{
    const auto steps = report.run(replies::crcJobs());
    if (report.failed())
        return;
    std::printf("steps of the CRC: %s as defined, %.1f s\n", grouped(steps[0]).c_str(),
                report.seconds());
}

void checkReplies(Report& report, bool quick)
{
    const int longest = quick ? 5 : 8;
    const auto counts = report.run(replies::jobs(longest, quick ? 100 : 1000));
    if (report.failed())
        return;
    std::printf("replies with a body of up to %d bytes or any type: %s judged as defined, and %s "
                "cut and %s "
                "changed ones; %s intact ones stored as defined, %.1f s\n",
                longest, grouped(counts[replies::Judged]).c_str(),
                grouped(counts[replies::Cut]).c_str(), grouped(counts[replies::Changed]).c_str(),
                grouped(counts[replies::Intact]).c_str(), report.seconds());
}

void checkSessions(Report& report, int stations, const std::string& tags, int length)
{
    if (report.failed())
        return;
    const auto counts = report.run(sessions::jobs(stations, tags, length));
    if (report.failed())
        return;
    std::printf("sessions of %d steps, stations: %d, tags: %s: %s as the model says; %s states, "
                "%s steps, %s values fetched, %.1f s\n",
                length, stations, tags.c_str(), grouped(counts[sessions::Sessions]).c_str(),
                grouped(counts[sessions::States]).c_str(), grouped(counts[sessions::Steps]).c_str(),
                grouped(counts[sessions::Fetched]).c_str(), report.seconds());
}

} // namespace

int main(int count, char** arguments)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const Options options = parse(std::vector<std::string>(arguments + 1, arguments + count));
    Report report(options.processes);
    if (options.wants("crc"))
        checkCrc(report);
    if (options.wants("replies") && !report.failed())
        checkReplies(report, options.quick);
    if (options.wants("sessions")) {
        checkSessions(report, 2, "AB", options.quick ? 3 : 5);
        for (const char* tag : {"A", "B"})
            checkSessions(report, 1, tag, options.quick ? 4 : 6);
        for (const char* tag : {"C", "D", "E", "F"})
            checkSessions(report, 1, tag, options.quick ? 3 : 5);
    }
    return report.failed() ? 1 : 0;
}
