// soak: the reference host and the driver with a simulated controller, on virtual time and on a
// line where every kind of fault happens. Every write must be confirmed and be in the controller,
// or be reported as failed. No value may be shown that its tag never had. Memory must stay bounded.

#include "simulated_line.h"

#include "DriverLibrary.h"
#include "Output.h"
#include "PollLoop.h"
#include "UserError.h"
#include "every_fault.h"
#include "fixed_time_of_day.h"

#include <CLI/CLI.hpp>

#include <fstream>
#include <iostream>
#include <malloc.h>
#include <memory>
#include <unistd.h>

namespace {

using namespace micro850;
using micro850::host::Operation;

const int kReadTags = 8;
// Transactions between two changes of the values in the controller, and until memory no longer
// grows.
const qint64 kChange = 64;
const qint64 kSettled = 10000;
// Transactions between two updates of the progress.
const qint64 kShown = 1000;
const double kMostGrowthMiB = 1;

struct Options
{
    qint64 transactions = 20000;
    std::uint64_t seed = 1;
    double rate = 0.01;
    std::string list;
    bool noDuplicateDetection = false;
};

struct WriteTag
{
    const char* name;
    const char* type;
    int id = 0;
    Bytes value;
};

/// Memory that is allocated and not freed; 0 under a sanitizer, whose allocator does not report it.
double allocatedMiB()
{
    return static_cast<double>(::mallinfo2().uordblks) / (1 << 20);
}

double residentMiB()
{
    long pages = 0;
    std::ifstream statm("/proc/self/statm");
    statm >> pages >> pages;
    return static_cast<double>(pages) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1 << 20);
}

class Soak
{
public:
    explicit Soak(const Options& options);

    /// True when no rule was violated.
    bool run();

private:
    void step();
    void changeValues();
    void checkValues();
    void serveWrites(bool startMore);
    void handleOutcome(WriteTag& tag, const Operation& operation);
    void drain();
    void note(const WriteTag& tag, const std::string& outcome);
    void violation(const std::string& what);
    void report();

    const Options m_options;
    FixedTimeOfDay m_timeOfDay{QTime(12, 0)};
    micro850::VirtualClock m_clock;
    sim::Controller m_controller;
    sim::FaultyLine m_line;
    SimulatedLine m_port{m_clock, m_line};
    micro850::host::DriverLibrary m_library{QStringLiteral(MICRO850_LIBRARY)};
    micro850::host::Project m_project;
    std::unique_ptr<micro850::host::PollLoop> m_loop;
    std::ofstream m_list;
    std::vector<WriteTag> m_writes = {{"W0", "INT", 0, {}},  {"W1", "DINT", 0, {}},
                                      {"W2", "LINT", 0, {}}, {"W3", "SHORT_STRING", 0, {}},
                                      {"W4", "REAL", 0, {}}, {"W5", "USINT", 0, {}}};
    qint64 m_transactions = 0;
    qint64 m_nextChange = kChange;
    qint64 m_nextShown = 0;
    micro850::host::Progress m_progress{micro850::host::Output(false, false),
                                        QStringLiteral("soak"),
                                        static_cast<int>(m_options.transactions)};
    int m_generation = 0;
    quint64 m_written = 0;
    quint64 m_confirmed = 0;
    quint64 m_refused = 0;
    quint64 m_failed = 0;
    quint64 m_violations = 0;
    double m_settledMiB = 0;
};

sim::LinkOptions linkOptions(const Options& options)
{
    sim::LinkOptions link;
    link.duplicateDetection = !options.noDuplicateDetection;
    return link;
}

Soak::Soak(const Options& options)
    : m_options(options), m_controller(m_clock, sim::TagTable(), linkOptions(options)),
      m_line(m_clock, m_controller,
             sim::faultsFromText("{\"faults\": [" + everyFault(options.rate) + "]}", "soak"),
             options.seed)
{
    std::string tags;
    std::string variables;
    for (int i = 0; i < kReadTags; ++i) {
        const std::string name = "T" + std::to_string(i);
        tags +=
            R"({"name": ")" + name + R"(", "type": "INT", "value": )" + std::to_string(i) + "}, ";
        variables += std::string(i == 0 ? "" : ", ") + R"({"tag": ")" + name + R"("})";
    }
    for (const WriteTag& tag : m_writes)
        tags += std::string(R"({"name": ")") + tag.name + R"(", "type": ")" + tag.type + R"("}, )";
    tags += R"({"name": "last", "type": "INT"})";
    m_controller.download(sim::TagTable::fromText("{\"tags\": [" + tags + "]}", "soak"));
    m_project = micro850::host::Project::fromText(
        QString::fromStdString(R"({"port": {"timeoutMs": 200}, "staleAfterMs": 2000,
                                   "stations": [{"number": 1}], "variables": [)" +
                               variables + "]}"),
        "soak");
    m_loop =
        std::make_unique<micro850::host::PollLoop>(m_library.api(), m_port, m_clock, m_project);
    for (const WriteTag& tag : m_writes)
        m_loop->declare({1, tag.name});
    if (!options.list.empty()) {
        m_list.open(options.list);
        if (!m_list)
            throw UserError("--list " + options.list + ": cannot be written");
    }
}

void Soak::violation(const std::string& what)
{
    m_progress.clear();
    if (++m_violations <= 20)
        std::cerr << "soak: transaction " << m_transactions << ": " << what << '\n';
}

bool Soak::run()
{
    while (m_transactions < m_options.transactions) {
        step();
        serveWrites(true);
        if (m_transactions >= m_nextShown) {
            m_nextShown = m_transactions + kShown;
            m_progress.show(static_cast<int>(m_transactions));
        }
        if (m_settledMiB == 0 && m_transactions >= std::min(kSettled, m_options.transactions / 2))
            m_settledMiB = allocatedMiB();
    }
    m_progress.clear();
    m_line.clear();
    drain();
    const double growth = allocatedMiB() - m_settledMiB;
    if (growth > kMostGrowthMiB)
        violation("memory grew by " + std::to_string(growth) + " MiB");
    if (m_confirmed + m_refused + m_failed != m_written)
        violation("the result of a write was never reported");
    report();
    return m_violations == 0;
}

void Soak::step()
{
    m_loop->step();
    m_transactions = m_loop->stations().first().counters().sent;
    if (m_transactions >= m_nextChange) {
        m_nextChange = m_transactions + kChange;
        changeValues();
    }
    checkValues();
}

// Every value of tag i is i modulo the number of tags.
void Soak::changeValues()
{
    m_generation = (m_generation + 1) % 4000;
    for (int i = 0; i < kReadTags; ++i) {
        const int value = i + kReadTags * m_generation;
        m_controller.tags().find("T" + std::to_string(i))->elements[0] = {
            static_cast<std::uint8_t>(value & 0xFF), static_cast<std::uint8_t>(value >> 8)};
    }
}

void Soak::checkValues()
{
    for (const int variable : m_loop->values().popChanged()) {
        if (variable >= kReadTags || !m_loop->values().wasRead(variable))
            continue;
        const std::string text = m_loop->values().text(variable).toStdString();
        bool isNumber = false;
        const int value = QString::fromStdString(text).toInt(&isNumber);
        if (!isNumber || value % kReadTags != variable)
            violation("T" + std::to_string(variable) + " shows " + text);
    }
}

void Soak::serveWrites(bool startMore)
{
    for (WriteTag& tag : m_writes) {
        if (tag.id != 0) {
            const Operation* operation = m_loop->outcome(tag.id);
            if (!operation)
                continue;
            handleOutcome(tag, *operation);
            m_loop->forget(tag.id);
            tag.id = 0;
        }
        if (!startMore)
            continue;
        tag.value = valueFromText(cipTypeNamed(tag.type), std::to_string(++m_written % 256));
        tag.id = m_loop->write({1, tag.name}, 0, toByteArray(tag.value));
    }
}

void Soak::handleOutcome(WriteTag& tag, const Operation& operation)
{
    if (operation.state == Operation::State::Done) {
        ++m_confirmed;
        const bool present = m_controller.tags().find(tag.name)->elements[0] == tag.value;
        if (!present)
            violation(std::string(tag.name) + ": a confirmed write is not in the controller");
        note(tag, present ? "confirmed and present" : "confirmed and not present");
        return;
    }
    const bool refused = operation.state == Operation::State::Refused;
    ++(refused ? m_refused : m_failed);
    note(tag, (refused ? "refused: " : "failed: ") + operation.error.toStdString());
}

void Soak::note(const WriteTag& tag, const std::string& outcome)
{
    if (m_list.is_open())
        m_list << "transaction " << m_transactions << ": write of "
               << textFromValue(cipTypeNamed(tag.type), tag.value) << " to " << tag.name << ' '
               << outcome << '\n';
}

// On a good line every write must end and every value become fresh.
void Soak::drain()
{
    const Duration end = m_clock.now() + std::chrono::minutes(2);
    const auto pending = [this] {
        for (const WriteTag& tag : m_writes) {
            if (tag.id != 0)
                return true;
        }
        for (int i = 0; i < kReadTags; ++i) {
            if (m_loop->quality(i) != micro850::host::Quality::Good)
                return true;
        }
        return false;
    };
    while (pending() && m_clock.now() < end) {
        step();
        serveWrites(false);
    }
    if (pending())
        violation("not back to normal two minutes after the last fault");
}

void Soak::report()
{
    const micro850::host::Counters& counters = m_loop->stations().first().counters();
    std::cout << "soak: seed " << m_options.seed << ", " << m_transactions << " transactions in "
              << m_clock.now() / std::chrono::seconds(1) << " s of virtual time; answered "
              << counters.answered << ", timed out " << counters.timedOut << ", corrupt "
              << counters.corrupt << ", late " << counters.late << ", connections opened again "
              << counters.reconnects << ", line reopened " << m_loop->lineReconnects()
              << "\nsoak: faults:";
    unsigned all = 0;
    for (const auto& [kind, count] : m_line.counts()) {
        std::cout << ' ' << sim::faultNames()[static_cast<std::size_t>(kind)] << ' ' << count;
        all += count;
    }
    std::cout << "; " << all << " in all\nsoak: " << m_written << " writes: " << m_confirmed
              << " confirmed and present, " << m_refused << " reported refused, " << m_failed
              << " reported failed\nsoak: " << m_violations << " violations" << std::endl;
    std::cerr << "soak: allocated " << m_settledMiB << " MiB once settled, " << allocatedMiB()
              << " MiB at the end; resident " << residentMiB() << " MiB\n";
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app("Driver and reference host on a line on which everything goes wrong.", "soak");
    app.add_option("--transactions", options.transactions, "Transactions to run")
        ->take_last()
        ->capture_default_str()
        ->check(CLI::Range(qint64(1000), qint64(1000000000)));
    app.add_option("--seed", options.seed, "Seed of the faults")->capture_default_str();
    app.add_option("--rate", options.rate, "Share of messages that a fault strikes")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 0.5));
    app.add_option("--list", options.list, "File that gets the outcome of each write");
    app.add_flag("--no-duplicate-detection", options.noDuplicateDetection,
                 "The controller executes a repeated message again");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success);
    } catch (const CLI::ParseError& error) {
        std::cerr << "soak: " << error.what() << " (see soak --help)\n";
        return kExitUsage;
    }
    try {
        return Soak(options).run() ? kExitDone : kExitRefused;
    } catch (const UserError& error) {
        std::cerr << "soak: " << error.what() << '\n';
        return error.status();
    }
}
