#include "IpAddress.h"

#include <arpa/inet.h>

#include <array>

namespace micro850::gateway {

namespace {

QString textOf(int family, const void* bytes)
{
    std::array<char, INET6_ADDRSTRLEN> text = {};
    return QString::fromLatin1(::inet_ntop(family, bytes, text.data(), text.size()));
}

} // namespace

QString canonicalAddress(const QString& text)
{
    const int kIpv4At = 12; // in an IPv6 address that stands for one of IPv4
    if (text.contains(QChar(0)))
        return {};
    const QByteArray given = text.toUtf8();
    in_addr four = {};
    if (::inet_pton(AF_INET, given.constData(), &four) == 1)
        return textOf(AF_INET, &four);
    in6_addr six = {};
    if (::inet_pton(AF_INET6, given.constData(), &six) != 1)
        return {};
    if (IN6_IS_ADDR_V4MAPPED(&six))
        return textOf(AF_INET, &six.s6_addr[kIpv4At]);
    return textOf(AF_INET6, &six);
}

// All of 127.0.0.0/8 is this machine.
bool isLoopbackAddress(const QString& canonical)
{
    return canonical.startsWith(QLatin1String("127.")) || canonical == QLatin1String("::1");
}

bool isAnyAddress(const QString& canonical)
{
    return canonical == QLatin1String("0.0.0.0") || canonical == QLatin1String("::");
}

} // namespace micro850::gateway
