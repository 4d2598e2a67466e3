#include "HostNames.h"

#include "IpAddress.h"

#include <algorithm>

namespace micro850::gateway {

namespace {

const int kLongestHeader = 300;
const int kMostPort = 65535;
const int kPlainPort = 80;
const int kEncryptedPort = 443;

bool isNameCharacter(QChar c)
{
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_';
}

// A browser sends an IPv6 address in brackets; an address of IPv4 looks like a name.
QString nameOf(const QString& text)
{
    if (text.startsWith('[') && text.endsWith(']')) {
        const QString inside = text.mid(1, text.size() - 2);
        return inside.contains(':') ? plainAddress(inside) : QString();
    }
    QString name = text.toLower();
    if (name.endsWith('.'))
        name.chop(1);
    if (name.isEmpty() || !std::all_of(name.begin(), name.end(), isNameCharacter))
        return {};
    const QString address = plainAddress(name);
    return address.isEmpty() ? name : address;
}

} // namespace

std::optional<CalledHost> CalledHost::fromHeader(const QByteArray& header)
{
    if (header.size() > kLongestHeader)
        return std::nullopt;
    const QString text = QString::fromLatin1(header);
    const int colon = text.lastIndexOf(':');
    const bool hasPort = colon > text.lastIndexOf(']');
    CalledHost host;
    host.name = nameOf(hasPort ? text.left(colon) : text);
    if (host.name.isEmpty())
        return std::nullopt;
    if (!hasPort)
        return host;
    const QString port = text.mid(colon + 1);
    const bool isDigits = !port.isEmpty() && std::all_of(port.begin(), port.end(), [](QChar c) {
        return c >= '0' && c <= '9';
    });
    bool isNumber = false;
    host.port = port.toInt(&isNumber);
    if (!isDigits || !isNumber || host.port < 1 || host.port > kMostPort)
        return std::nullopt;
    return host;
}

HostNames::HostNames(const WebSettings& settings)
    : m_isEverywhere(isAnyAddress(plainAddress(settings.http.address))), m_names(settings.hosts)
{
    m_names += plainAddress(settings.http.address);
    m_names += QStringLiteral("localhost");
}

bool HostNames::contains(const CalledHost& host) const
{
    if (m_names.contains(host.name))
        return true;
    // Not a name that only begins as an address does.
    const bool isAddress = !plainAddress(host.name).isEmpty();
    return isAddress && (m_isEverywhere || isOfThisMachine(host.name));
}

bool isFromOwnPage(const HttpRequest& request, const CalledHost& host)
{
    // Following a link from elsewhere is what people do; such a request reads a page only.
    const QByteArray site = request.header("sec-fetch-site");
    const bool isLink = request.header("sec-fetch-mode") == "navigate" && request.method == "GET";
    if (!site.isEmpty() && site != "same-origin" && site != "none" && !isLink)
        return false;
    if (!request.headers.contains("origin"))
        return true;
    const QByteArray scheme = request.isEncrypted ? "https://" : "http://";
    const int usual = request.isEncrypted ? kEncryptedPort : kPlainPort;
    const QByteArray origin = request.header("origin");
    if (!origin.startsWith(scheme))
        return false;
    const std::optional<CalledHost> from = CalledHost::fromHeader(origin.mid(scheme.size()));
    const auto portOf = [usual](const CalledHost& of) { return of.port < 0 ? usual : of.port; };
    return from && from->name == host.name && portOf(*from) == portOf(host);
}

} // namespace micro850::gateway
