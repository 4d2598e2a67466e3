#ifndef MICRO850_SIMULATOR_LISTENADDRESS_H
#define MICRO850_SIMULATOR_LISTENADDRESS_H

#include <cstdint>
#include <string>

namespace micro850::sim {

/// An address of this machine at which a controller can be reached.
struct ListenAddress
{
    std::string host; ///< numeric, as the system writes it: "127.0.0.1" or "::1"
    std::uint16_t port = 0;

    bool isIpv6() const { return host.find(':') != std::string::npos; }
    /// False if other machines may reach it.
    bool isLoopback() const;
    /// Like tcp://[::1]:2000.
    std::string text() const;
    /// The address with the port that is so many further. Throws UserError beyond the last port.
    ListenAddress following(unsigned count) const;
};

/// Parses tcp://127.0.0.1:2000 or tcp://[::1]:2000. Port 0 stands for any free one. Throws
/// UserError, also for a name: whoever opens a port to others names the address.
ListenAddress parseListenAddress(const std::string& text);

} // namespace micro850::sim

#endif
