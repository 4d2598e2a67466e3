#ifndef MICRO850_SIMULATOR_STATION_H
#define MICRO850_SIMULATOR_STATION_H

#include "Command.h"
#include "FaultyLine.h"
#include "Replay.h"
#include "SerialPort.h"

#include <memory>

namespace micro850::sim {

/// What one station is made of.
struct StationSetup
{
    std::string name;   ///< in front of messages, "" for the only station
    std::string tags;   ///< tag file; "" when a trace is replayed
    std::string replay; ///< trace file, or ""
    std::string port;   ///< serial device; "" for a pseudo-terminal
    std::string link;   ///< symbolic link to the pseudo-terminal, or ""
    int baud = 38400;
    LinkOptions options;
    FaultScript faults;
    std::uint64_t seed = 1;
    bool quiet = false;
};

/// A controller with its end of the line. What it has to say goes to standard error, the path of
/// its line to standard output.
class Station
{
public:
    /// Opens the line. Throws UserError.
    explicit Station(StationSetup setup);

    /// To be waited for; below 0 while the line is hung up.
    int descriptor() const { return m_port ? m_port->descriptor() : -1; }
    /// Takes what has come and sends what is due. Throws UserError when the device has vanished.
    void serve();
    /// Throws UserError for a tag file that is wrong; the tags stay as they were then.
    void execute(const Command& command);
    void summarise() const;

private:
    static TagTable tagTableOf(const StationSetup& setup);
    void open();
    void receive();
    std::optional<Bytes> replayed(const Bytes& message);
    void say(const std::string& text) const;

    StationSetup m_setup;
    SystemClock m_clock;
    Controller m_controller;
    FaultyLine m_line;
    std::optional<Replay> m_replay;
    std::unique_ptr<SerialPort> m_port;
};

} // namespace micro850::sim

#endif
