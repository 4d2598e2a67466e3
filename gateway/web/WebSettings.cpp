#include "WebSettings.h"

#include "IpAddress.h"

namespace micro850::gateway {

// A proxy is there to let others in.
bool WebSettings::isOpen() const
{
    return !isOfThisMachine(plainAddress(http.address)) || !http.proxies.isEmpty();
}

} // namespace micro850::gateway
