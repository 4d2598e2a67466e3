#include "GatewayFinder.h"

#include "NetworkAddress.h"
#include "SerialLine.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

#include <sys/stat.h>

namespace micro850::host {

namespace {

const std::chrono::milliseconds kPatience(1000);

std::optional<struct stat> statusOf(const QString& path)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return std::nullopt;
    return status;
}

bool isSameServer(const QString& one, const QString& other)
{
    try {
        const NetworkAddress first = networkAddress(one);
        const NetworkAddress second = networkAddress(other);
        return first.port == second.port &&
               first.host.compare(second.host, Qt::CaseInsensitive) == 0;
    } catch (const UserError&) {
        return false;
    }
}

} // namespace

QStringList gatewaySockets(const QString& folder)
{
    QStringList sockets;
    const QByteArray named = qgetenv("MICRO850_GATEWAY");
    if (!named.isEmpty())
        sockets += QFile::decodeName(named);
    const QStringList found =
        QDir(folder).entryList({QStringLiteral("*.sock")}, QDir::System, QDir::Name);
    for (const QString& name : found)
        sockets += folder + QLatin1Char('/') + name;
    sockets.removeDuplicates();
    return sockets;
}

bool isSamePort(const QString& one, const QString& other)
{
    if (one.isEmpty() || other.isEmpty())
        return false;
    if (isNetworkAddress(one) || isNetworkAddress(other))
        return isNetworkAddress(one) && isNetworkAddress(other) && isSameServer(one, other);
    const QString first = devicePath(one);
    const QString second = devicePath(other);
    const std::optional<struct stat> firstStatus = statusOf(first);
    const std::optional<struct stat> secondStatus = statusOf(second);
    // A device that is unplugged has a name only.
    if (!firstStatus || !secondStatus)
        return QDir::cleanPath(first) == QDir::cleanPath(second);
    if (S_ISCHR(firstStatus->st_mode) && S_ISCHR(secondStatus->st_mode))
        return firstStatus->st_rdev == secondStatus->st_rdev;
    return firstStatus->st_dev == secondStatus->st_dev &&
           firstStatus->st_ino == secondStatus->st_ino;
}

std::optional<PortOwner> ownerOf(const QString& device, const QStringList& sockets,
                                 const Clock& clock,
                                 const std::function<void(const QString&)>& remark)
{
    for (const QString& path : sockets) {
        try {
            GatewayClient gateway(path, QStringLiteral("micro850-host"), clock, kPatience);
            gateway.setMostSilence(kPatience);
            for (const GatewayLine& line : linesOf(gateway, clock.now())) {
                if (isSamePort(device, line.status.line.device))
                    return PortOwner{path, line};
            }
        } catch (const GatewayLost& lost) {
            // What a gateway left behind when it was killed is no news.
            const bool isGone = lost.cause() == GatewayLost::Cause::Missing ||
                                lost.cause() == GatewayLost::Cause::Stale;
            if (!isGone)
                remark(QString::fromStdString(lost.what()));
        } catch (const UserError& error) {
            remark(QString::fromStdString(error.what()));
        }
    }
    return std::nullopt;
}

} // namespace micro850::host
