// micro850-sim: simulated controllers at the other end of the wire.

#include "Station.h"
#include "UserError.h"

#include <CLI/CLI.hpp>
#include <array>
#include <csignal>
#include <iostream>
#include <list>
#include <poll.h>
#include <unistd.h>

namespace {

using namespace micro850;
using namespace micro850::sim;

volatile std::sig_atomic_t stopRequested = 0;
volatile std::sig_atomic_t downloadRequested = 0;

void requestStop(int)
{
    stopRequested = 1;
}

void requestDownload(int)
{
    downloadRequested = 1;
}

struct Options
{
    StationSetup setup;
    std::vector<std::string> stations;
    std::string faults;
    bool noDuplicateDetection = false;
    double ackTimeout = 1.0;
};

void declareLine(CLI::App& app, Options& options)
{
    StationSetup& setup = options.setup;
    app.add_option("--port", setup.port,
                   "Serial device; without it a pseudo-terminal is opened and its path printed");
    app.add_option("--baud", setup.baud, "Speed of the serial device, 8N1")->capture_default_str();
    app.add_option("--link", setup.link,
                   "Symbolic link to make to the pseudo-terminal (with --station: LINK.N)");
    app.add_flag("--no-duplicate-detection", options.noDuplicateDetection,
                 "Execute a repeated message again");
    app.add_option("--ack-timeout", options.ackTimeout, "Seconds to wait for an acknowledgement")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 3600.0));
    app.add_option("--enq-limit", setup.options.enquiryLimit,
                   "DLE ENQ sent for a missing acknowledgement")
        ->capture_default_str()
        ->check(CLI::Range(0, 100));
    app.add_option("--nak-limit", setup.options.nakLimit, "Retransmissions of a refused message")
        ->capture_default_str()
        ->check(CLI::Range(0, 100));
    app.add_option("--faults", options.faults, "Fault script (JSON): what goes wrong on the line");
    app.add_option("--seed", setup.seed, "Seed of the faults that strike at a rate")
        ->capture_default_str();
}

void declare(CLI::App& app, Options& options)
{
    app.add_option("tags", options.setup.tags, "Tag file (JSON)");
    app.add_option("--station", options.stations,
                   "Number and tag file of one of several controllers, each on a line of its own")
        ->type_name("N=FILE");
    app.add_option("--replay", options.setup.replay,
                   "Answer from a recorded trace instead of from tags");
    declareLine(app, options);
    app.add_flag("--quiet", options.setup.quiet, "Only errors on standard error");
    app.footer(
        "Commands on standard input, for station N or all:\n"
        "  power-cycle [retain] [N]   forget connections; values initial or retained\n"
        "  download [FILE] [N]        other tags; without FILE the tag file anew, as SIGHUP does\n"
        "Example:\n  micro850-sim examples/plant.tags.json --link /tmp/plc\n"
        "Exit status: 0 ended by a signal, 1 the line is gone, 2 usage or configuration.");
}

using Stations = std::list<std::pair<int, Station>>;

int stationNumber(const std::string& text)
{
    const std::string digits = text.substr(0, text.find('='));
    const bool isNumber = !digits.empty() && digits.size() < 10 &&
                          digits.find_first_not_of("0123456789") == std::string::npos;
    if (!isNumber || digits.size() + 1 >= text.size())
        throw UserError("--station " + text + ": not a number and a tag file (--station 1=FILE)");
    return std::stoi(digits);
}

void addStation(Stations& stations, StationSetup setup, const std::string& text)
{
    const int number = stationNumber(text);
    for (const auto& station : stations) {
        if (station.first == number)
            throw UserError("--station " + text + ": station " + std::to_string(number) +
                            " is there twice; remove or renumber one");
    }
    setup.tags = text.substr(text.find('=') + 1);
    setup.name = "station " + std::to_string(number);
    if (!setup.link.empty())
        setup.link += '.' + std::to_string(number);
    stations.emplace_back(std::piecewise_construct, std::forward_as_tuple(number),
                          std::forward_as_tuple(std::move(setup)));
}

Stations makeStations(const Options& options)
{
    StationSetup setup = options.setup;
    setup.options.duplicateDetection = !options.noDuplicateDetection;
    setup.options.ackTimeout = Duration(static_cast<std::int64_t>(options.ackTimeout * 1e6));
    if (!options.faults.empty())
        setup.faults = faultsFromFile(options.faults);
    const int sources = !setup.tags.empty() + !setup.replay.empty() + !options.stations.empty();
    if (sources != 1)
        throw UserError("give one of: a tag file, --station N=FILE, --replay FILE");
    if (!options.stations.empty() && !setup.port.empty())
        throw UserError("--port serves one station; leave it out, or give one tag file");
    Stations stations;
    for (const std::string& text : options.stations)
        addStation(stations, setup, text);
    if (stations.empty())
        stations.emplace_back(std::piecewise_construct, std::forward_as_tuple(1),
                              std::forward_as_tuple(std::move(setup)));
    return stations;
}

/// Lines of standard input. A process in the background of a terminal lets it be, as reading would
/// stop it.
class CommandInput
{
public:
    int descriptor() const
    {
        const bool isOthers = ::isatty(STDIN_FILENO) && ::tcgetpgrp(STDIN_FILENO) != ::getpgrp();
        return m_open && !isOthers ? STDIN_FILENO : -1;
    }

    /// The lines that are complete, once descriptor() can be read.
    std::vector<std::string> readLines()
    {
        std::array<char, 4096> buffer;
        const ssize_t count = ::read(STDIN_FILENO, buffer.data(), buffer.size());
        m_open = count > 0;
        m_text.append(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
        std::vector<std::string> lines;
        for (std::size_t end; (end = m_text.find('\n')) != std::string::npos;) {
            lines.push_back(m_text.substr(0, end));
            m_text.erase(0, end + 1);
        }
        return lines;
    }

private:
    bool m_open = true;
    std::string m_text;
};

// A wrong command is reported and changes nothing.
void executeLine(const std::string& line, Stations& stations)
{
    try {
        const std::optional<Command> command = parseCommand(line);
        bool found = !command;
        for (auto& [number, station] : stations) {
            if (!command || (command->station && *command->station != number))
                continue;
            station.execute(*command);
            found = true;
        }
        if (!found)
            throw UserError("there is no station " + std::to_string(*command->station));
    } catch (const UserError& error) {
        std::cerr << "micro850-sim: " << error.what() << '\n';
    }
}

void waitForInput(const Stations& stations, const CommandInput& input, int milliseconds,
                  bool& readable)
{
    std::vector<pollfd> waits = {{input.descriptor(), POLLIN, 0}};
    for (const auto& station : stations)
        waits.push_back({station.second.descriptor(), POLLIN, 0});
    const int ready = ::poll(waits.data(), waits.size(), milliseconds);
    readable = ready > 0 && waits[0].revents != 0;
}

int run(const Options& options)
{
    // milliseconds between two looks at the time; delays and gaps of faults want finer ones
    const int tick = options.faults.empty() ? 20 : 1;
    Stations stations = makeStations(options);
    CommandInput input;
    while (!stopRequested) {
        bool readable = false;
        waitForInput(stations, input, tick, readable);
        for (const std::string& line : readable ? input.readLines() : std::vector<std::string>())
            executeLine(line, stations);
        if (downloadRequested) {
            downloadRequested = 0;
            executeLine("download", stations);
        }
        for (auto& station : stations)
            station.second.serve();
    }
    for (const auto& station : stations)
        station.second.summarise();
    return kExitDone;
}

int program(int argc, char** argv)
{
    Options options;
    CLI::App app("A simulated Micro850 controller on a pseudo-terminal or serial device.",
                 "micro850-sim");
    declare(app, options);
    app.set_version_flag("--version", "micro850-sim " MICRO850_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success);
    } catch (const CLI::ParseError& error) {
        throw UserError(std::string(error.what()) + " (see micro850-sim --help)");
    }
    std::signal(SIGINT, requestStop);
    std::signal(SIGTERM, requestStop);
    std::signal(SIGHUP, requestDownload);
    std::signal(SIGPIPE, SIG_IGN);
    return run(options);
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return program(argc, argv);
    } catch (const UserError& error) {
        std::cerr << "micro850-sim: " << error.what() << '\n';
        return error.status();
    } catch (const std::exception& error) {
        std::cerr << "micro850-sim: " << error.what() << '\n';
        return kExitRefused;
    }
}
