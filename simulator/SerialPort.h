#ifndef MICRO850_SIMULATOR_SERIALPORT_H
#define MICRO850_SIMULATOR_SERIALPORT_H

#include "OutputQueue.h"
#include "Port.h"
#include "PortLink.h"

#include <memory>

namespace micro850::sim {

/// A line on a new pseudo-terminal or a serial device.
class SerialPort : public Port
{
public:
    /// Opens a pseudo-terminal; path() is the path of the host's end. If `link` is not empty, makes
    /// this PortLink to it. Throws UserError.
    static std::unique_ptr<Port> pseudoTerminal(const std::string& link, const Clock& clock);
    /// Opens a device at `baud`, 8 data bits, no parity, 1 stop bit. Throws UserError.
    static std::unique_ptr<Port> device(const std::string& path, int baud, const Clock& clock);

    ~SerialPort() override;

    std::string path() const override { return m_path; }
    std::vector<pollfd> waits() const override;
    Bytes read(bool& gone) override;
    void write(const Bytes& bytes) override;

private:
    SerialPort(int descriptor, int held, std::string path, const Clock& clock);

    int m_descriptor;
    int m_held; ///< the host's end, kept open so that hosts can come and go
    std::string m_path;
    PortLink m_link;
    OutputQueue m_output;
};

} // namespace micro850::sim

#endif
