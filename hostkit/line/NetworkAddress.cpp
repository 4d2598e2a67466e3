#include "NetworkAddress.h"

#include "UserError.h"
#include "VisibleText.h"

#include <QtCore/QRegularExpression>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>

namespace micro850::host {

namespace {

const int kLongestName = 253;
const int kLargestPort = 65535;

[[noreturn]] void fail(const QString& device, const std::string& what)
{
    throw UserError(inQuotes(device.toStdString()) + " " + what);
}

bool matches(const QString& text, const char* pattern)
{
    const QRegularExpression whole(QStringLiteral("\\A(?:%1)\\z").arg(QLatin1String(pattern)));
    return whole.match(text).hasMatch();
}

bool isIpv6(const QString& text)
{
    const int percent = text.indexOf(QLatin1Char('%'));
    in6_addr address = {};
    if (::inet_pton(AF_INET6, text.left(percent).toLatin1().constData(), &address) != 1)
        return false;
    const QString scope = percent < 0 ? QStringLiteral("0") : text.mid(percent + 1);
    return scope.size() < IF_NAMESIZE && matches(scope, "[A-Za-z0-9_.@-]+");
}

bool isIpv4(const QString& text)
{
    in_addr address = {};
    return ::inet_pton(AF_INET, text.toLatin1().constData(), &address) == 1;
}

// What consists of digits and dots only would be taken for a number of 32 bits.
bool isHost(const QString& text)
{
    if (matches(text, "[0-9.]*"))
        return isIpv4(text);
    return text.size() <= kLongestName && matches(text, "[A-Za-z0-9_]([A-Za-z0-9_.-]*)");
}

NetworkAddress::Protocol protocolOf(const QString& device, const QString& scheme)
{
    if (scheme == QLatin1String("tcp"))
        return NetworkAddress::Protocol::Raw;
    if (scheme != QLatin1String("rfc2217"))
        fail(device, "is not a way to reach a line (tcp://HOST:PORT, rfc2217://HOST:PORT, or a "
                     "device such as /dev/ttyUSB0)");
    return NetworkAddress::Protocol::Rfc2217;
}

int portOf(const QString& device, const QString& text)
{
    if (text.isEmpty())
        fail(device, "names no port (write it behind the host, as in tcp://HOST:2000)");
    const bool digits = matches(text, "[1-9][0-9]{0,4}");
    const int port = digits ? text.toInt() : 0;
    if (port < 1 || port > kLargestPort)
        fail(device, "ends in a port that is not a number from 1 to 65535");
    return port;
}

// Host and port of "HOST:PORT" or "[IPV6]:PORT".
void splitPlace(const QString& device, const QString& place, NetworkAddress& address)
{
    const bool brackets = place.startsWith(QLatin1Char('['));
    const int close = place.indexOf(QLatin1Char(']'));
    if (brackets && close < 0)
        fail(device, "has no ] behind the IPv6 address (as in tcp://[::1]:2000)");
    const QString rest = brackets ? place.mid(close + 1) : QString();
    if (brackets && !rest.isEmpty() && !rest.startsWith(QLatin1Char(':')))
        fail(device, "has something between ] and the port (as in tcp://[::1]:2000)");
    if (!brackets && place.count(QLatin1Char(':')) > 1)
        fail(device, "has more than one colon (an IPv6 address stands in brackets, as in "
                     "tcp://[::1]:2000)");
    const int colon = place.indexOf(QLatin1Char(':'), brackets ? close : 0);
    address.host = brackets ? place.mid(1, close - 1) : place.left(colon);
    if (address.host.isEmpty())
        fail(device, "names no host (as in tcp://HOST:2000)");
    address.port = portOf(device, colon < 0 ? QString() : place.mid(colon + 1));
    if (brackets && !isIpv6(address.host))
        fail(device, "has brackets around what is not an IPv6 address (as in tcp://[::1]:2000)");
    if (!brackets && !isHost(address.host))
        fail(device, "names a host that is neither a name nor an address (letters, digits, - "
                     "and ., or an address such as 192.0.2.7)");
}

} // namespace

QString NetworkAddress::text() const
{
    const bool ipv6 = host.contains(QLatin1Char(':'));
    return QStringLiteral("%1:%2").arg(ipv6 ? QStringLiteral("[%1]").arg(host) : host,
                                       QString::number(port));
}

bool isNetworkAddress(const QString& device)
{
    return matches(device.section(QLatin1String("://"), 0, 0), "[A-Za-z][A-Za-z0-9+.-]*") &&
           device.contains(QLatin1String("://"));
}

NetworkAddress networkAddress(const QString& device)
{
    const int end = device.indexOf(QLatin1String("://"));
    NetworkAddress address;
    address.protocol = protocolOf(device, device.left(end).toLower());
    const QString place = device.mid(end + 3);
    if (place.startsWith(QLatin1Char('/')))
        fail(device, "names no host (as in tcp://HOST:2000)");
    if (matches(place, "[^/?#]*[/?#].*"))
        fail(device, "has something behind the port (leave it out: there are no paths here)");
    if (place.contains(QLatin1Char('@')) && !place.startsWith(QLatin1Char('[')))
        fail(device, "names a user (leave it out: these protocols have no log-in)");
    splitPlace(device, place, address);
    return address;
}

} // namespace micro850::host
