#ifndef MICRO850_SIMULATOR_STATION_H
#define MICRO850_SIMULATOR_STATION_H

#include "Command.h"
#include "FaultyLine.h"
#include "ListenAddress.h"
#include "Port.h"
#include "Replay.h"

#include <memory>

namespace micro850::sim {

/// How to set up one station.
struct StationSetup
{
    std::string name;   ///< put before its messages; "" for the only station
    std::string tags;   ///< tag file; "" when a trace is replayed
    std::string replay; ///< trace file, or ""
    std::string port;   ///< serial device; "" for a pseudo-terminal
    std::string link;   ///< symbolic link to the pseudo-terminal, or ""
    int baud = 38400;
    std::optional<ListenAddress> listen; ///< instead of a device: where a client finds the line
    LinkOptions options;
    std::optional<std::size_t> connections; ///< most that can be open; none: any number
    FaultScript faults;
    std::uint64_t seed = 1;
    bool quiet = false;
};

/// A controller with its end of the line. It prints the path of its line on standard output and
/// messages on standard error.
class Station
{
public:
    /// Opens the line. Throws UserError.
    explicit Station(StationSetup setup);

    /// False while the line is hung up.
    bool isOpen() const { return m_port != nullptr; }
    /// The descriptors to wait for; none while the line is hung up.
    std::vector<pollfd> waits() const { return m_port ? m_port->waits() : std::vector<pollfd>(); }
    /// Receives what has arrived and sends what is due. Throws UserError when the device has
    /// vanished.
    void serve();
    /// Throws UserError for a tag file that is wrong; the tags then stay as they were.
    void execute(const Command& command);
    /// Reports the counts of messages and faults.
    void summarise() const;

private:
    void printStatus();
    static TagTable loadTags(const StationSetup& setup);
    std::unique_ptr<Port> madePort();
    void open();
    void openAgain();
    void receive();
    std::optional<Bytes> answerFromTrace(const Bytes& message);
    void report(const std::string& text) const;

    StationSetup m_setup;
    SystemClock m_clock;
    Controller m_controller;
    FaultyLine m_line;
    std::optional<Replay> m_replay;
    std::unique_ptr<Port> m_port;
    bool m_waitsForAddress = false; ///< another program has it since the line hung up
};

} // namespace micro850::sim

#endif
