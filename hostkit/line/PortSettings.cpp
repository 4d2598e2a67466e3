#include "PortSettings.h"

#include "NetworkAddress.h"

namespace micro850::host {

bool PortSettings::isNetwork() const
{
    return isNetworkAddress(device);
}

bool PortSettings::setsSpeed() const
{
    return !isNetwork() || !device.startsWith(QLatin1String("tcp:"), Qt::CaseInsensitive);
}

QString PortSettings::text() const
{
    if (!setsSpeed())
        return device;
    const char letter = parity == Parity::None ? 'N' : parity == Parity::Even ? 'E' : 'O';
    return QStringLiteral("%1, %2 %3%4%5")
        .arg(device, QString::number(baud), QString::number(dataBits), QString(QLatin1Char(letter)),
             QString::number(stopBits));
}

} // namespace micro850::host
