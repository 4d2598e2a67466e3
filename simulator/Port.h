#ifndef MICRO850_SIMULATOR_PORT_H
#define MICRO850_SIMULATOR_PORT_H

#include "Bytes.h"

#include <poll.h>
#include <string>
#include <vector>

namespace micro850::sim {

/// The controller's end of a line. No call waits.
class Port
{
public:
    Port() = default;
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;
    virtual ~Port() = default;

    /// Where a host finds the line: the path of a device, or an address.
    virtual std::string path() const = 0;
    /// The descriptors to wait for. Call read() and write() when one of them is ready.
    virtual std::vector<pollfd> waits() const = 0;
    /// Returns the bytes that have arrived. `gone` is set when the line has vanished for good.
    virtual Bytes read(bool& gone) = 0;
    /// Sends the bytes after those that wait. Bytes that nobody takes are lost, as on a wire.
    virtual void write(const Bytes& bytes) = 0;
};

} // namespace micro850::sim

#endif
