#ifndef MICRO850_GATEWAY_WEB_HOSTNAMES_H
#define MICRO850_GATEWAY_WEB_HOSTNAMES_H

#include "HttpMessage.h"
#include "WebSettings.h"

#include <optional>

namespace micro850::gateway {

/// Where a browser thinks it is: what it sends as "Host", or as "Origin" behind the scheme.
struct CalledHost
{
    QString name;  ///< in lower case without a dot at the end, or a canonical address
    int port = -1; ///< below 0: not told

    /// Nothing for a text that is none, such as one with a user or with two names.
    static std::optional<CalledHost> fromHeader(const QByteArray& text);
};

/// The names by which the server may be called. A page of others can give a name of its own the
/// address of this server (rebinding), and a browser would then let that page read everything.
class HostNames
{
public:
    explicit HostNames(const WebSettings& settings);

    /// This machine, the address where the server listens, or a name of the settings; where it
    /// listens at all addresses, each of them: an address cannot be given to another.
    bool contains(const CalledHost& host) const;

private:
    bool m_isEverywhere;
    QStringList m_names;
};

/// Whether the request comes from a page of this server, or from no page at all: by "Origin" and by
/// what browsers tell as "Sec-Fetch-Site". `host` is that of the request.
bool isFromOwnPage(const HttpRequest& request, const CalledHost& host);

} // namespace micro850::gateway

#endif
