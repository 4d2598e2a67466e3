#include "LineFactory.h"

#include "NetworkAddress.h"
#include "SerialLine.h"
#include "TcpLine.h"

namespace micro850::host {

std::unique_ptr<Line> lineFor(const PortSettings& settings)
{
    if (!settings.isNetwork())
        return std::make_unique<SerialLine>(settings);
    return std::make_unique<TcpLine>(networkAddress(settings.device), settings);
}

} // namespace micro850::host
