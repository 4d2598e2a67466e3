#ifndef MICRO850_GATEWAY_WEB_WEBSETTINGS_H
#define MICRO850_GATEWAY_WEB_WEBSETTINGS_H

#include "HttpServer.h"

namespace micro850::gateway {

/// The section "web" of the configuration.
struct WebSettings
{
    bool isOn = false; ///< the section is there
    HttpSettings http;
    /// Names by which browsers may call the server besides its address and those of this machine.
    QStringList hosts;
    QString tokenFile; ///< made by `micro850-gateway token`; empty: there is no token
    /// Values may be written by those who have the token, where the project allows it.
    bool takesWrites = false;

    /// Others than this machine can connect: a token is needed to read, too.
    bool isOpen() const;
    bool operator==(const WebSettings& other) const
    {
        return isOn == other.isOn && http == other.http && hosts == other.hosts &&
               tokenFile == other.tokenFile && takesWrites == other.takesWrites;
    }
};

} // namespace micro850::gateway

#endif
