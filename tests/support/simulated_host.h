#ifndef MICRO850_TESTS_SIMULATED_HOST_H
#define MICRO850_TESTS_SIMULATED_HOST_H

#include "DriverLibrary.h"
#include "FaultyLine.h"
#include "PollLoop.h"
#include "simulated_line.h"

#include <memory>

/// The reference host with the real driver, and a simulated controller on a line with faults, on
/// virtual time.
struct SimulatedHost
{
    virtual ~SimulatedHost() = default;
    /// Whether the host shows a value that a tag never had.
    virtual bool showsAForeignValue() = 0;
    /// Steps until the condition holds; false after a minute of virtual time. Counts the steps
    /// after which a foreign value is shown.
    template<typename Condition> bool runUntil(Condition condition)
    {
        const micro850::Duration end = clock.now() + std::chrono::minutes(1);
        for (int steps = 0; !condition(); ++steps) {
            if (clock.now() > end || steps > 100000)
                return false;
            loop->step();
            foreignValues += showsAForeignValue() ? 1 : 0;
        }
        return true;
    }

    micro850::VirtualClock clock;
    micro850::sim::Controller controller{clock, micro850::sim::TagTable()};
    micro850::sim::FaultyLine line{clock, controller};
    SimulatedLine port{clock, line};
    micro850::host::DriverLibrary library{QStringLiteral(MICRO850_LIBRARY)};
    micro850::host::Project project;
    std::unique_ptr<micro850::host::PollLoop> loop;
    int foreignValues = 0;
};

#endif
