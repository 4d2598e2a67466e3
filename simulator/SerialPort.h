#ifndef MICRO850_SIMULATOR_SERIALPORT_H
#define MICRO850_SIMULATOR_SERIALPORT_H

#include "Bytes.h"
#include "PortLink.h"

#include <string>

namespace micro850::sim {

/// The controller's end of a line: a new pseudo-terminal, or a serial device.
class SerialPort
{
public:
    /// Opens a pseudo-terminal; path() is the path of the host's end. If `link` is not empty, makes
    /// this PortLink to it. Throws UserError.
    static SerialPort pseudoTerminal(const std::string& link);
    /// Opens a device at `baud`, 8 data bits, no parity, 1 stop bit. Throws UserError.
    static SerialPort device(const std::string& path, int baud);

    SerialPort(SerialPort&& other) noexcept;
    SerialPort& operator=(SerialPort&&) = delete;
    ~SerialPort();

    const std::string& path() const { return m_path; }
    int descriptor() const { return m_descriptor; }

    /// Returns the bytes that have arrived, without waiting. `gone` is set when the device has
    /// vanished.
    Bytes read(bool& gone);
    /// Sends all bytes. Bytes that nobody reads are lost, as on a wire.
    void write(const Bytes& bytes);

private:
    SerialPort(int descriptor, int held, std::string path);

    int m_descriptor;
    int m_held; ///< the host's end, kept open so that hosts can come and go
    std::string m_path;
    PortLink m_link;
};

} // namespace micro850::sim

#endif
