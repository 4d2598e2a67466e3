// gateway_soak: a gateway with four lines on which everything goes wrong, and readers that come,
// stall and go. Each value that a reader gets must have been the controller's at its time. Memory
// must stay bounded. It runs in real time, with real processes.

#include "simulator_thread.h"

#include "Dice.h"
#include "UserError.h"
#include "every_fault.h"
#include "gateway_process.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <poll.h>
#include <unistd.h>

namespace {

using namespace micro850;
using nlohmann::json;
using std::chrono::milliseconds;
using Time = std::chrono::system_clock::time_point;

const int kLines = 4;
const int kTags = 20;
const int kElements = 5; ///< of each tag; all have the same value
const int kReaders = 12;
const milliseconds kChange(2); ///< between two changes of each line
/// A reply counts until the last repetition of its request has timed out; the clocks are compared
/// in milliseconds.
const milliseconds kOldest(5000);
const milliseconds kRounding(2);
const double kMostGrowthMiB = 8; ///< of each process; what waits for slow readers included
// A sanitizer keeps memory that was freed.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool kJudgesMemory = false;
#else
const bool kJudgesMemory = true;
#endif

struct Options
{
    std::int64_t values = 20000;
    std::uint64_t seed = 1;
    double rate = 0.005;
};

std::string tagName(int tag)
{
    return "T" + std::to_string(tag);
}

Time stampOf(const std::string& text)
{
    std::tm day{};
    int ms = 0;
    if (std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%d.%3dZ", &day.tm_year, &day.tm_mon, &day.tm_mday,
                    &day.tm_hour, &day.tm_min, &day.tm_sec, &ms) != 7)
        throw UserError("\"" + text + "\" is no time");
    day.tm_year -= 1900;
    day.tm_mon -= 1;
    return std::chrono::system_clock::from_time_t(::timegm(&day)) + milliseconds(ms);
}

/// A controller on a line with faults. Every value that it ever has is another number.
class Line
{
public:
    Line(const std::string& folder, int number, const Options& options)
        : m_current(kTags, 0), m_dice(options.seed * 100 + static_cast<std::uint64_t>(number)),
          m_simulator(writeTags(folder), folder + "/plc" + std::to_string(number))
    {
        m_values.push_back({-1, Time::min(), Time::max()}); // 0 is the first value of all
        m_simulator.faults(everyFault(options.rate));
    }

    json project() const
    {
        json variables = json::array();
        for (int tag = 0; tag < kTags; ++tag)
            variables.push_back({{"tag", tagName(tag)},
                                 {"length", kElements},
                                 {"intervalMs", tag % 2 == 0 ? 0 : 50}});
        return {{"port", {{"device", m_simulator.path()}, {"timeoutMs", 200}}},
                {"staleAfterMs", 1000},
                {"variables", variables}};
    }
    unsigned strikes() { return m_simulator.strikes(); }

    /// Gives one tag its next value; now and then pulls the cable, or puts it back.
    void change()
    {
        const auto tag = static_cast<std::size_t>(m_dice.below(kTags));
        const auto value = static_cast<std::uint32_t>(m_values.size());
        Bytes bytes;
        for (int shift = 0; shift < 32; shift += 8)
            bytes.push_back(static_cast<std::uint8_t>(value >> shift));
        m_values.push_back({static_cast<int>(tag), std::chrono::system_clock::now(), Time::max()});
        m_simulator.with([&](sim::Controller& controller) {
            controller.tags()
                .find(tagName(static_cast<int>(tag)))
                ->elements.assign(kElements, bytes);
        });
        m_values[m_current[tag]].until = std::chrono::system_clock::now();
        m_current[tag] = value;
        moveCable();
    }
    /// What is wrong with a value that a reader got; empty when nothing is.
    std::string problemOf(const json& value) const
    {
        const json& elements = value.at("value");
        if (elements.is_null())
            return value.at("quality") == "never" ? "" : "no value, and quality is not never";
        const Time time = stampOf(value.at("time").get<std::string>());
        std::size_t oldest = m_values.size();
        for (const json& element : elements) {
            const auto number = element.get<std::size_t>();
            const std::string problem = problemOf(number, value.at("name"), time);
            if (!problem.empty())
                return problem;
            oldest = std::min(oldest, number);
        }
        // The stamp is that of the oldest element: a single read may have brought newer ones.
        return m_values[oldest].from > time + kRounding ? "the controller had it only later" : "";
    }

private:
    struct Value
    {
        int tag;
        Time from;
        Time until;
    };

    // 0 is the first value of all tags.
    std::string problemOf(std::size_t number, const std::string& name, Time time) const
    {
        if (number >= m_values.size())
            return "the controller never had it";
        const Value& had = m_values[number];
        if (number != 0 && tagName(had.tag) != name)
            return "it is another tag's";
        return number != 0 && had.until != Time::max() && time > had.until + kOldest
                   ? "the controller had it no longer"
                   : "";
    }
    static std::string writeTags(const std::string& folder)
    {
        json tags = json::array();
        for (int tag = 0; tag < kTags; ++tag)
            tags.push_back({{"name", tagName(tag)}, {"type", "DINT"}, {"length", kElements}});
        const std::string path = folder + "/tags.json";
        std::ofstream(path) << json({{"tags", tags}}).dump() << '\n';
        return path;
    }
    void moveCable()
    {
        if (m_pulled && std::chrono::system_clock::now() > *m_pulled + std::chrono::seconds(1)) {
            m_pulled.reset();
            m_simulator.putCableBack();
        } else if (!m_pulled && m_dice.hits(0.0001)) {
            m_pulled = std::chrono::system_clock::now();
            m_simulator.pullCable();
        }
    }

    std::vector<Value> m_values;
    std::vector<std::size_t> m_current; ///< the number of each tag's value
    std::optional<Time> m_pulled;
    sim::Dice m_dice;
    SimulatorThread m_simulator;
};

/// A client for some seconds. It may stall: then it does not read for a while.
class Visitor
{
public:
    Visitor(const std::string& socket, sim::Dice& dice) : m_reader(socket)
    {
        const auto now = std::chrono::steady_clock::now();
        m_leaves = now + milliseconds(500 + dice.below(20000));
        m_reads = now + milliseconds(dice.hits(0.2) ? dice.below(5000) : 0);
        m_reader.send(R"({"id": 1, "request": "subscribe"})");
    }

    int descriptor() const { return m_reader.descriptor(); }
    bool stalls() const { return std::chrono::steady_clock::now() < m_reads; }
    bool leaves() const { return std::chrono::steady_clock::now() >= m_leaves; }
    bool receive(const std::function<void(const std::string&)>& handle)
    {
        return m_reader.receive(handle);
    }

private:
    GatewayReader m_reader;
    std::chrono::steady_clock::time_point m_leaves;
    std::chrono::steady_clock::time_point m_reads;
};

class Soak
{
public:
    explicit Soak(const Options& options) : m_options(options), m_dice(options.seed)
    {
        std::string folder = "/tmp/gateway_soak.XXXXXX";
        if (!::mkdtemp(folder.data()))
            throw UserError("no temporary folder can be made in /tmp");
        m_folder = folder;
        GatewayProcess::Lines lines;
        for (int i = 0; i < kLines; ++i) {
            m_lines.push_back(std::make_unique<Line>(m_folder, i, options));
            lines.emplace_back("line" + std::to_string(i), m_lines.back()->project());
        }
        m_gateway = std::make_unique<GatewayProcess>(
            MICRO850_GATEWAY, lines,
            json{{"history", {{"file", "FOLDER/history.sqlite"}, {"keepMegabytes", 8}}}});
    }
    ~Soak()
    {
        m_gateway.reset();
        m_lines.clear();
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
    Soak(const Soak&) = delete;
    Soak& operator=(const Soak&) = delete;

    /// True when no rule was violated.
    bool run()
    {
        const std::int64_t settled = std::max<std::int64_t>(5000, m_options.values / 5);
        std::vector<Usage> before;
        while (m_values < m_options.values && m_violations < 20) {
            step();
            if (before.empty() && m_values >= settled)
                before = m_gateway->usages();
            if (std::chrono::steady_clock::now() > m_lastValue + std::chrono::seconds(30))
                violation("no value came for 30 s");
        }
        const std::vector<Usage> after = m_gateway->usages();
        if (before.size() != after.size() || after.size() != kLines + 1)
            violation("a worker is missing");
        for (std::size_t i = 0; i < std::min(before.size(), after.size()); ++i) {
            const double growth = (after[i].resident - before[i].resident) / (1 << 20);
            std::cerr << "gateway_soak: process " << i << ": " << after[i].resident / (1 << 20)
                      << " MiB, grown by " << growth << " MiB, " << after[i].seconds
                      << " s of a processor\n";
            if (kJudgesMemory && growth > kMostGrowthMiB)
                violation("memory of process " + std::to_string(i) + " grew");
        }
        report();
        return m_violations == 0;
    }

private:
    void step()
    {
        const auto now = std::chrono::steady_clock::now();
        if (now >= m_nextChange) {
            m_nextChange = now + kChange;
            for (const auto& line : m_lines)
                line->change();
        }
        for (std::size_t i = m_visitors.size(); i < kReaders; ++i) {
            m_visitors.push_back(std::make_unique<Visitor>(m_gateway->socket(), m_dice));
            ++m_came;
        }
        std::vector<pollfd> waits;
        for (const auto& visitor : m_visitors)
            waits.push_back({visitor->stalls() ? -1 : visitor->descriptor(), POLLIN, 0});
        ::poll(waits.data(), waits.size(), 1);
        for (std::size_t i = m_visitors.size(); i-- > 0;) {
            const auto handle = [this](const std::string& line) { check(line); };
            const bool stays = waits[i].revents == 0 || m_visitors[i]->receive(handle);
            if (!stays)
                violation("the gateway let a reader go");
            if (!stays || m_visitors[i]->leaves())
                m_visitors.erase(m_visitors.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    void check(const std::string& text)
    {
        const json message = json::parse(text);
        if (message.contains("error"))
            violation(text);
        if (message.value("event", "") != "values")
            return;
        m_leftOut += message.value("leftOut", 0);
        for (const json& value : message.at("values")) {
            const auto line =
                static_cast<std::size_t>(std::stoi(value.at("line").get<std::string>().substr(4)));
            const std::string problem = m_lines.at(line)->problemOf(value);
            if (!problem.empty())
                violation(value.dump() + ": " + problem);
            ++m_values;
            m_lastValue = std::chrono::steady_clock::now();
        }
    }
    void violation(const std::string& what)
    {
        if (++m_violations <= 20)
            std::cerr << "gateway_soak: value " << m_values << ": " << what << '\n';
        m_lastValue = std::chrono::steady_clock::now();
    }
    void report()
    {
        unsigned strikes = 0;
        for (const auto& line : m_lines)
            strikes += line->strikes();
        std::cout << "gateway_soak: seed " << m_options.seed << ", " << m_values << " values to "
                  << m_came << " readers, " << m_leftOut << " left out of slow ones, " << strikes
                  << " faults, " << m_violations << " violations" << std::endl;
    }

    Options m_options;
    sim::Dice m_dice;
    std::string m_folder;
    std::vector<std::unique_ptr<Line>> m_lines;
    std::unique_ptr<GatewayProcess> m_gateway;
    std::vector<std::unique_ptr<Visitor>> m_visitors;
    std::chrono::steady_clock::time_point m_nextChange;
    std::chrono::steady_clock::time_point m_lastValue = std::chrono::steady_clock::now();
    std::int64_t m_values = 0;
    std::int64_t m_leftOut = 0;
    int m_came = 0;
    int m_violations = 0;
};

} // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app("A gateway with four lines on which everything goes wrong.", "gateway_soak");
    app.add_option("--values", options.values, "Values to deliver")
        ->take_last()
        ->capture_default_str()
        ->check(CLI::Range(std::int64_t(1000), std::int64_t(1000000000)));
    app.add_option("--seed", options.seed, "Seed of the faults")->capture_default_str();
    app.add_option("--rate", options.rate, "Share of messages that a fault strikes")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 0.5));
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success);
    } catch (const CLI::ParseError& error) {
        std::cerr << "gateway_soak: " << error.what() << " (see gateway_soak --help)\n";
        return kExitUsage;
    }
    try {
        return Soak(options).run() ? kExitDone : kExitRefused;
    } catch (const UserError& error) {
        std::cerr << "gateway_soak: " << error.what() << '\n';
        return error.status();
    }
}
