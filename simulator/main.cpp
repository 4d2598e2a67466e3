// micro850-sim: a simulated controller at the other end of the wire.

#include "Engine.h"
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
    app.add_flag("--quiet", options.quiet, "No summary at the end");
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

// Serves the line until a signal comes; false when the device has vanished.
bool serve(Engine& engine, SerialPort& port)
{
    constexpr int kTick = 20; // milliseconds between two looks at the time
    while (!stopRequested) {
        pollfd wait = {port.descriptor(), POLLIN, 0};
        if (::poll(&wait, 1, kTick) > 0) {
            bool gone = false;
            const Bytes bytes = port.read(gone);
            if (gone)
                return false;
            engine.receive(bytes);
        }
        engine.tick();
        const Bytes out = engine.transmit();
        if (!out.empty())
            port.write(out);
    }
    return true;
}

void summarise(const Engine& engine)
{
    const LinkCounters& counters = engine.counters();
    std::cerr << "micro850-sim: " << counters.messages << " messages, " << counters.corrupt
              << " corrupt, " << counters.duplicates << " repeated, " << counters.undelivered
              << " replies undelivered\n";
}

int run(const Options& options)
{
    const SystemClock clock;
    Engine engine(clock, Plant::fromFile(options.tags), linkOptions(options));
    SerialPort port = options.port.empty() ? SerialPort::pseudoTerminal(options.link)
                                           : SerialPort::device(options.port, options.baud);
    std::cout << port.path() << std::endl;
    const bool ended = serve(engine, port);
    if (!options.quiet)
        summarise(engine);
    if (ended)
        return kExitDone;
    throw UserError(port.path() + ": the device has vanished; plug it in and start again",
                    kExitRefused);
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
