#include "Stations.h"

#include "UserError.h"

#include <algorithm>
#include <iostream>

namespace micro850::sim {

namespace {

int parseNumber(const std::string& numbered)
{
    const std::string digits = numbered.substr(0, numbered.find('='));
    const bool isNumber = !digits.empty() && digits.size() < 10 &&
                          digits.find_first_not_of("0123456789") == std::string::npos;
    if (!isNumber || digits.size() + 1 >= numbered.size())
        throw UserError("--station " + numbered +
                        ": not a number and a tag file (--station 1=FILE)");
    return std::stoi(digits);
}

} // namespace

Stations::Stations(const StationSetup& setup, const std::vector<std::string>& numbered)
{
    for (const std::string& text : numbered)
        add(setup, text);
    if (m_stations.empty())
        m_stations.emplace_back(1, setup);
}

void Stations::add(StationSetup setup, const std::string& numbered)
{
    const int number = parseNumber(numbered);
    const auto isSame = [number](const Numbered& each) { return each.number == number; };
    if (std::any_of(m_stations.begin(), m_stations.end(), isSame))
        throw UserError("--station " + numbered + ": station " + std::to_string(number) +
                        " is given twice; remove or renumber one");
    setup.tags = numbered.substr(numbered.find('=') + 1);
    setup.name = "station " + std::to_string(number);
    if (!setup.link.empty())
        setup.link += '.' + std::to_string(number);
    if (setup.listen)
        setup.listen = setup.listen->following(static_cast<unsigned>(m_stations.size()));
    m_stations.emplace_back(number, std::move(setup));
}

std::vector<pollfd> Stations::waits() const
{
    std::vector<pollfd> waits;
    for (const Numbered& each : m_stations) {
        const std::vector<pollfd> more = each.station.waits();
        waits.insert(waits.end(), more.begin(), more.end());
    }
    return waits;
}

void Stations::serve()
{
    for (Numbered& each : m_stations)
        each.station.serve();
}

void Stations::execute(const std::string& line)
{
    try {
        if (const std::optional<Command> command = parseCommand(line))
            execute(*command);
    } catch (const UserError& error) {
        std::cerr << "micro850-sim: " << error.what() << '\n';
    }
}

void Stations::execute(const Command& command)
{
    bool found = false;
    for (Numbered& each : m_stations) {
        if (command.station && *command.station != each.number)
            continue;
        each.station.execute(command);
        found = true;
    }
    if (!found)
        throw UserError("there is no station " + std::to_string(*command.station));
}

void Stations::summarise() const
{
    for (const Numbered& each : m_stations)
        each.station.summarise();
}

} // namespace micro850::sim
