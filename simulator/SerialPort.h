#ifndef MICRO850_SIMULATOR_SERIALPORT_H
#define MICRO850_SIMULATOR_SERIALPORT_H

#include "Bytes.h"

#include <string>

namespace micro850::sim {

/// The controller's end of a line: a pseudo-terminal of its own, or a serial device.
class SerialPort
{
public:
    /// Opens a pseudo-terminal; path() is the other end's. `link`, if not empty, becomes a symbolic
    /// link to it. Throws UserError.
    static SerialPort pseudoTerminal(const std::string& link);
    /// Opens a device at `baud`, 8 data bits, no parity, 1 stop bit. Throws UserError.
    static SerialPort device(const std::string& path, int baud);

    SerialPort(SerialPort&& other) noexcept;
    SerialPort& operator=(SerialPort&&) = delete;
    ~SerialPort();

    const std::string& path() const { return m_path; }
    int descriptor() const { return m_descriptor; }

    /// What has come; empty when nothing has. `gone` tells that the device has vanished.
    Bytes read(bool& gone);
    /// Sends all bytes; what a peer that is not there does not take is lost, as on a wire.
    void write(const Bytes& bytes);

private:
    SerialPort(int descriptor, int held, std::string path, std::string link);

    int m_descriptor;
    int m_held; ///< the other end, held open so that a host may come and go
    std::string m_path;
    std::string m_link;
};

} // namespace micro850::sim

#endif
