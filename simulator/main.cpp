// micro850-sim: a simulated controller at the other end of the wire.

#include "Engine.h"
#include "FaultyLine.h"
#include "SerialPort.h"
#include "UserError.h"

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <memory>
#include <poll.h>
#include <unistd.h>

namespace {

using namespace micro850;
using namespace micro850::sim;

volatile std::sig_atomic_t stopRequested = 0;

void requestStop(int)
{
    stopRequested = 1;
}

struct Options
{
    std::string tags;
    std::string port;
    std::string link;
    int baud = 38400;
    bool noDuplicateDetection = false;
    double ackTimeout = 1.0;
    int enquiryLimit = 3;
    int nakLimit = 3;
    std::string faults;
    std::uint64_t seed = 1;
    bool quiet = false;
};

void declare(CLI::App& app, Options& options)
{
    app.add_option("tags", options.tags, "Tag file (JSON)")->required();
    app.add_option("--port", options.port,
                   "Serial device; without it a pseudo-terminal is opened and its path printed");
    app.add_option("--baud", options.baud, "Speed of the serial device, 8N1")
        ->capture_default_str();
    app.add_option("--link", options.link, "Symbolic link to make to the pseudo-terminal");
    app.add_flag("--no-duplicate-detection", options.noDuplicateDetection,
                 "Execute a repeated message again");
    app.add_option("--ack-timeout", options.ackTimeout, "Seconds to wait for an acknowledgement")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 3600.0));
    app.add_option("--enq-limit", options.enquiryLimit,
                   "DLE ENQ sent for a missing acknowledgement")
        ->capture_default_str()
        ->check(CLI::Range(0, 100));
    app.add_option("--nak-limit", options.nakLimit, "Retransmissions of a refused message")
        ->capture_default_str()
        ->check(CLI::Range(0, 100));
    app.add_option("--faults", options.faults, "Fault script (JSON): what goes wrong on the line");
    app.add_option("--seed", options.seed, "Seed of the faults that strike at a rate")
        ->capture_default_str();
    app.add_flag("--quiet", options.quiet, "No report of faults and no summary at the end");
    app.footer("Example:\n  micro850-sim examples/plant.tags.json --link /tmp/plc\n"
               "Exit status: 0 ended by a signal, 1 the line is gone, 2 usage or configuration.");
}

LinkOptions linkOptions(const Options& options)
{
    LinkOptions link;
    link.duplicateDetection = !options.noDuplicateDetection;
    link.ackTimeout = Duration(static_cast<std::int64_t>(options.ackTimeout * 1e6));
    link.enquiryLimit = options.enquiryLimit;
    link.nakLimit = options.nakLimit;
    return link;
}

SerialPort openPort(const Options& options)
{
    return options.port.empty() ? SerialPort::pseudoTerminal(options.link)
                                : SerialPort::device(options.port, options.baud);
}

/// A controller and its end of the line.
class Station
{
public:
    explicit Station(const Options& options)
        : m_options(options),
          m_engine(m_clock, Plant::fromFile(options.tags), linkOptions(options)),
          m_line(m_clock, m_engine,
                 options.faults.empty() ? FaultScript() : faultsFromFile(options.faults),
                 options.seed)
    {
        m_line.setObserver([this](const FaultyLine::Event& event) {
            if (!m_options.quiet)
                std::cerr << "micro850-sim: " << describe(event) << '\n';
        });
        open();
    }

    int descriptor() const { return m_port ? m_port->descriptor() : -1; }

    /// Takes what has come and sends what is due.
    void serve()
    {
        if (!m_port && !m_line.isHungUp())
            open();
        if (m_port)
            receive();
        m_line.tick();
        const Bytes out = m_line.transmit();
        if (m_port && !out.empty())
            m_port->write(out);
        if (m_line.isHungUp())
            m_port.reset();
    }

    void summarise() const
    {
        const LinkCounters& counters = m_engine.counters();
        std::cerr << "micro850-sim: " << counters.messages << " messages, " << counters.corrupt
                  << " corrupt, " << counters.duplicates << " repeated, " << counters.undelivered
                  << " replies undelivered\n";
        if (m_options.faults.empty())
            return;
        std::cerr << "micro850-sim: faults with seed " << m_options.seed << ':';
        for (const auto& [kind, count] : m_line.counts())
            std::cerr << ' ' << faultNames()[static_cast<std::size_t>(kind)] << ' ' << count;
        std::cerr << (m_line.counts().empty() ? " none\n" : "\n");
    }

private:
    void open()
    {
        m_port = std::make_unique<SerialPort>(openPort(m_options));
        std::cout << m_port->path() << std::endl;
    }

    void receive()
    {
        bool gone = false;
        const Bytes bytes = m_port->read(gone);
        if (gone)
            throw UserError(m_port->path() +
                                ": the device has vanished; plug it in and start again",
                            kExitRefused);
        m_line.receive(bytes);
    }

    const Options& m_options;
    const SystemClock m_clock;
    Engine m_engine;
    FaultyLine m_line;
    std::unique_ptr<SerialPort> m_port;
};

int run(const Options& options)
{
    constexpr int kTick = 20; // milliseconds between two looks at the time
    constexpr int kFaultyTick = 1;
    Station station(options);
    while (!stopRequested) {
        pollfd wait = {station.descriptor(), POLLIN, 0};
        ::poll(&wait, 1, options.faults.empty() ? kTick : kFaultyTick);
        station.serve();
    }
    if (!options.quiet)
        station.summarise();
    return kExitDone;
}

} // namespace

// Declaring the options throws only when two have one name.
int main(int argc, char** argv) // NOLINT(bugprone-exception-escape)
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
        std::cerr << "micro850-sim: " << error.what() << " (see micro850-sim --help)\n";
        return kExitUsage;
    }
    std::signal(SIGINT, requestStop);
    std::signal(SIGTERM, requestStop);
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return run(options);
    } catch (const UserError& error) {
        std::cerr << "micro850-sim: " << error.what() << '\n';
        return error.status();
    }
}
