#ifndef MICRO850_SIMULATOR_STATIONS_H
#define MICRO850_SIMULATOR_STATIONS_H

#include "Command.h"
#include "Station.h"

#include <list>
#include <string>
#include <vector>

namespace micro850::sim {

/// All stations of the program. A station is known by its number.
class Stations
{
public:
    /// Opens one station for each `N=FILE` of `numbered`, or a single station 1 if there is none.
    /// Throws UserError.
    Stations(const StationSetup& setup, const std::vector<std::string>& numbered);

    /// The descriptors of all lines to wait for.
    std::vector<pollfd> waits() const;
    /// Receives and sends on every line. Throws UserError when a device has vanished.
    void serve();
    /// Executes a typed line for the station that it names, or for all. Reports a wrong command,
    /// which changes nothing, on standard error.
    void execute(const std::string& line);
    /// Reports the counts of every station.
    void summarise() const;

private:
    struct Numbered
    {
        Numbered(int theNumber, StationSetup setup) : number(theNumber), station(std::move(setup))
        {
        }

        int number;
        Station station;
    };

    void add(StationSetup setup, const std::string& numbered);
    void execute(const Command& command);

    std::list<Numbered> m_stations;
};

} // namespace micro850::sim

#endif
