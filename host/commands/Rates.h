#ifndef MICRO850_HOST_COMMANDS_RATES_H
#define MICRO850_HOST_COMMANDS_RATES_H

#include "Clock.h"
#include "CommandLine.h"
#include "Output.h"
#include "Project.h"

namespace micro850::host {

/// The help of --interval for poll and watch.
extern const char* const kReadIntervalHelp;

/// How often poll, watch and log read the variables.
struct RateOptions
{
    double interval = -1; ///< seconds; below 0: not given
    bool fast = false;

    void addTo(CommandOptions& command, const char* intervalHelp);
    /// The interval of --interval; 0 without one.
    Duration givenInterval() const { return fromSeconds(interval > 0 ? interval : 0); }
    /// Gives the variables that name none their interval: the one that is given, or `otherwise`.
    /// With --fast, every variable is read as often as the line allows.
    void applyTo(Project& project,
                 Duration otherwise = std::chrono::milliseconds(kDefaultIntervalMs)) const;
    /// Notes which of the options do not change how often a gateway reads its variables.
    void noteGateway(const Output& output) const;
};

} // namespace micro850::host

#endif
