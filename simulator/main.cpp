// micro850-sim: simulated controllers at the other end of the wire.

#include "CommandInput.h"
#include "Options.h"
#include "StandardStreams.h"
#include "Stations.h"
#include "UserError.h"
#include "VisibleText.h"

#include <csignal>
#include <iostream>
#include <poll.h>

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

void installSignalHandlers()
{
    std::signal(SIGINT, requestStop);
    std::signal(SIGTERM, requestStop);
    std::signal(SIGHUP, requestDownload);
}

/// Waits until a line or the command input is ready, but no longer than so many milliseconds.
/// Returns true when a command can be read.
bool waitForInput(const Stations& stations, const CommandInput& input, int milliseconds)
{
    std::vector<pollfd> waits = stations.waits();
    waits.push_back({input.descriptor(), POLLIN, 0});
    const int ready = ::poll(waits.data(), waits.size(), milliseconds);
    return ready > 0 && waits.back().revents != 0;
}

int run(const Options& options)
{
    // Milliseconds between two checks of the time. Delays and gaps of faults need finer ones.
    const int tick = options.faults.empty() ? 20 : 1;
    Stations stations(commonSetup(options), options.stations);
    CommandInput input;
    while (!stopRequested) {
        if (waitForInput(stations, input, tick)) {
            for (const std::string& line : input.readLines())
                stations.execute(line);
        }
        if (downloadRequested) {
            downloadRequested = 0;
            stations.execute("download");
        }
        stations.serve();
    }
    stations.summarise();
    return kExitDone;
}

int program(int argc, char** argv)
{
    const std::optional<Options> options = parseOptions(argc, argv);
    if (!options)
        return kExitDone;
    installSignalHandlers();
    return run(*options);
}

} // namespace

int main(int argc, char** argv)
{
    prepareStandardStreams();
    try {
        return program(argc, argv);
    } catch (const UserError& error) {
        std::cerr << "micro850-sim: " << error.what() << '\n';
        return error.status();
    } catch (const std::exception& error) {
        std::cerr << "micro850-sim: " << visible(error.what()) << '\n';
        return kExitRefused;
    }
}
