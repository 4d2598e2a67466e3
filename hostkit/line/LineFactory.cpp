#include "LineFactory.h"

#include "NetworkAddress.h"
#include "Rfc2217Line.h"
#include "SerialLine.h"
#include "TcpLine.h"

namespace micro850::host {

std::unique_ptr<Line> lineFor(const PortSettings& settings)
{
    if (!settings.isNetwork())
        return std::make_unique<SerialLine>(settings);
    const NetworkAddress address = networkAddress(settings.device);
    if (address.protocol == NetworkAddress::Protocol::Rfc2217)
        return std::make_unique<Rfc2217Line>(address, settings);
    return std::make_unique<TcpLine>(address, settings);
}

} // namespace micro850::host
