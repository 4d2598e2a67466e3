#ifndef MICRO850_HOST_PROBER_H
#define MICRO850_HOST_PROBER_H

#include "Driver.h"
#include "Exchange.h"
#include "Identity.h"

namespace micro850::host {

/// What became of asking who is there.
struct ProbeResult
{
    bool answered = false;
    Identity identity;
    Duration roundTrip{0};
    QString error; ///< why there is no identity
};

/// Asks for the identity of what is at the other end of a line, which is the driver's first request
/// to any station, and goes no further.
class Prober
{
public:
    Prober(const DriverApi& api, int station);

    /// The line is open. Asks twice: a peer may take the first request for the repetition of the
    /// last message that it saw, and answer nothing.
    ProbeResult probe(Line& line, const Clock& clock, const PortSettings& settings,
                      const Exchange::Observer& observer = nullptr);

private:
    Protocol* request();

    Driver m_driver;
    Operation m_operation;
};

} // namespace micro850::host

#endif
