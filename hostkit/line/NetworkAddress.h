#ifndef MICRO850_HOST_NETWORKADDRESS_H
#define MICRO850_HOST_NETWORKADDRESS_H

#include <QtCore/QString>

namespace micro850::host {

/// The address of a serial line behind a device server: `tcp://HOST:PORT` for the bytes alone,
/// `rfc2217://HOST:PORT` where this host also sets speed and signals at the far end.
struct NetworkAddress
{
    enum class Protocol { Raw, Rfc2217 };
    Protocol protocol = Protocol::Raw;
    QString host; ///< a name, an IPv4 address, or an IPv6 address without its brackets
    int port = 0;

    /// "192.0.2.7:2000", "[::1]:2000", for messages.
    QString text() const;
};

/// Whether a user means an address: the text begins with a word and ://. Every other text names a
/// device of this machine, colons or not.
bool isNetworkAddress(const QString& device);

/// The address in such a text. Throws UserError with the remedy for one that is not valid.
NetworkAddress networkAddress(const QString& device);

} // namespace micro850::host

#endif
