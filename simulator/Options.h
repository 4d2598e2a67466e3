#ifndef MICRO850_SIMULATOR_OPTIONS_H
#define MICRO850_SIMULATOR_OPTIONS_H

#include "Station.h"

#include <optional>
#include <string>
#include <vector>

namespace micro850::sim {

/// The options of the program micro850-sim.
struct Options
{
    StationSetup setup;                ///< as given by the options that apply to all stations
    std::vector<std::string> stations; ///< each `N=FILE`
    std::string faults;                ///< fault script, or ""
    std::string listen;                ///< address, or ""
    bool hasBaud = false;              ///< the speed was given
    bool noDuplicateDetection = false;
    double ackTimeout = 1.0; ///< seconds
};

/// Parses the command line. Prints help or version itself and then returns nothing. Throws
/// UserError.
std::optional<Options> parseOptions(int argc, char** argv);

/// What all stations have in common; the whole setup if there is no --station. Reads the fault
/// script. Throws UserError when the options contradict each other.
StationSetup commonSetup(const Options& options);

} // namespace micro850::sim

#endif
