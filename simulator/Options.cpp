#include "Options.h"

#include "StandardStreams.h"
#include "UserError.h"

#include <CLI/CLI.hpp>

#include <sstream>

namespace micro850::sim {

namespace {

void declareAcknowledgements(CLI::App& app, Options& options)
{
    LinkOptions& link = options.setup.options;
    app.add_flag("--no-duplicate-detection", options.noDuplicateDetection,
                 "Execute a repeated message again");
    app.add_option("--ack-timeout", options.ackTimeout, "Seconds to wait for an acknowledgement")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 3600.0));
    app.add_option("--enq-limit", link.enquiryLimit,
                   "Number of DLE ENQ to send for a missing acknowledgement")
        ->capture_default_str()
        ->check(CLI::Range(0, 100));
    app.add_option("--nak-limit", link.nakLimit, "Number of retransmissions of a refused message")
        ->capture_default_str()
        ->check(CLI::Range(0, 100));
}

void declareLine(CLI::App& app, Options& options)
{
    StationSetup& setup = options.setup;
    app.add_option("--port", setup.port,
                   "Serial device; without it a pseudo-terminal is opened and its path printed");
    app.add_option("--baud", setup.baud, "Speed of the serial device, 8N1")->capture_default_str();
    app.add_option("--listen", options.listen,
                   "Address to serve one client at a time at, instead of a device or "
                   "pseudo-terminal (port 0: any free one; with --station: the next ports, or with "
                   "port 0 any free one "
                   "each)")
        ->type_name("tcp://ADDRESS:PORT");
    app.add_option("--link", setup.link,
                   "Symbolic link to make to the pseudo-terminal (with --station: LINK.N); it "
                   "replaces only one that a killed simulator left");
    declareAcknowledgements(app, options);
    app.add_option("--faults", options.faults, "Fault script (JSON): what goes wrong on the line");
    app.add_option("--seed", setup.seed, "Seed of the faults that strike at a rate")
        ->capture_default_str();
}

void declare(CLI::App& app, Options& options)
{
    app.add_option("tags", options.setup.tags, "Tag file (JSON)");
    app.add_option("--station", options.stations,
                   "Number and tag file of one of several controllers, each on its own line")
        ->type_name("N=FILE");
    app.add_option("--connections", options.setup.connections,
                   "Connections that can be open at a time (default: any number)")
        ->check(CLI::Range(1, 1000));
    app.add_option("--replay", options.setup.replay,
                   "Answer from a recorded trace instead of from tags");
    declareLine(app, options);
    app.add_flag("--quiet", options.setup.quiet, "Print only errors on standard error");
    app.set_version_flag("--version", "micro850-sim " MICRO850_VERSION);
    app.footer("Commands on standard input, for station N or for all:\n"
               "  power-cycle [retain] [N]   forget connections; reset or retain the values\n"
               "  download [FILE] [N]        load other tags; without FILE reload the tag file,\n"
               "                             as SIGHUP does\n"
               "  status [N]                 print open connections and counts of messages\n"
               "Example:\n  micro850-sim examples/plant.tags.json --link /tmp/plc\n"
               "Exit status: 0 ended by a signal, 1 the line is gone, 2 usage or configuration.");
}

// A network address has no speed, and no other name.
void requireOneLine(const Options& options)
{
    if (options.listen.empty())
        return;
    if (!options.setup.port.empty())
        throw UserError("--listen and --port are two lines: give one of them");
    if (!options.setup.link.empty())
        throw UserError(
            "--link names a pseudo-terminal, and --listen opens none: give one of them");
    if (options.hasBaud)
        throw UserError("--baud is the speed of a serial device, and --listen opens none: leave "
                        "it out, or give --port");
}

} // namespace

std::optional<Options> parseOptions(int argc, char** argv)
{
    Options options;
    CLI::App app("A simulated Micro850 controller on a pseudo-terminal, serial device or TCP port.",
                 "micro850-sim");
    declare(app, options);
    try {
        app.parse(argc, argv);
        options.hasBaud = app.count("--baud") > 0;
    } catch (const CLI::Success& success) {
        std::ostringstream text;
        app.exit(success, text, text);
        writeStandardOutput(text.str());
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        throw UserError(std::string(error.what()) + " (see micro850-sim --help)");
    }
    return options;
}

StationSetup commonSetup(const Options& options)
{
    StationSetup setup = options.setup;
    setup.options.duplicateDetection = !options.noDuplicateDetection;
    setup.options.ackTimeout = fromSeconds(options.ackTimeout);
    if (!options.faults.empty())
        setup.faults = faultsFromFile(options.faults);
    const int sources = !setup.tags.empty() + !setup.replay.empty() + !options.stations.empty();
    if (sources != 1)
        throw UserError("give one of: a tag file, --station N=FILE, --replay FILE");
    requireOneLine(options);
    if (!options.listen.empty())
        setup.listen = parseListenAddress(options.listen);
    if (setup.listen && !options.stations.empty())
        setup.listen->following(static_cast<unsigned>(options.stations.size() - 1)); // or throws
    if (!options.stations.empty() && !setup.port.empty())
        throw UserError("--port serves one station; leave it out, or give one tag file");
    return setup;
}

} // namespace micro850::sim
