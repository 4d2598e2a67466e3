#ifndef MICRO850_HOST_PROBER_H
#define MICRO850_HOST_PROBER_H

#include "Driver.h"
#include "Exchange.h"
#include "Identity.h"

namespace micro850::host {

/// The result of asking a controller for its identity.
struct ProbeResult
{
    bool answered = false;
    Identity identity;
    Duration roundTrip{0};
    QString error;      ///< why there is no identity; empty when `answered`
    bool heard = false; ///< a reply came, even if it has no identity
    /// No reply came, and nothing but the line and its settings can be blamed for that.
    bool unexplained = false;
    Counters counters;
};

/// Asks the controller at the other end of a line for its identity. That is the driver's first
/// request to any station; no other request is sent, so that no connection is opened. The number of
/// the station is not on the line.
class Prober
{
public:
    Prober(const DriverApi& api, int station);

    /// The line must be open. Asks at most twice, because a peer can take the first request for a
    /// repetition of the last message that it received, and then does not answer. It ends soon
    /// when `interrupted` returns true.
    ProbeResult probe(Line& line, const Clock& clock, const PortSettings& settings,
                      const Exchange::Observer& observer = nullptr,
                      const std::function<bool()>& interrupted = nullptr);

private:
    Protocol* request();
    ProbeResult ask(const Line& line, Exchange& exchange, Counters& counters);

    Driver m_driver;
    TagKey m_tag;
};

} // namespace micro850::host

#endif
