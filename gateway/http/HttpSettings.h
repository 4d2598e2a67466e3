#ifndef MICRO850_GATEWAY_HTTP_HTTPSETTINGS_H
#define MICRO850_GATEWAY_HTTP_HTTPSETTINGS_H

#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <chrono>

namespace micro850::gateway {

/// Where the server listens and how much it bears.
struct HttpSettings
{
    QString address = QStringLiteral("127.0.0.1"); ///< IPv4 or IPv6, no name
    int port = 8850;                               ///< 0: a free one, for tests
    QString certificateFile;                       ///< PEM, with the chain; empty: not encrypted
    QString keyFile;                               ///< PEM
    QStringList proxies; ///< addresses whose X-Forwarded-For and X-Forwarded-Proto are believed
    int mostConnections = 128;
    int mostPerAddress = 16;                     ///< not of a proxy
    std::chrono::milliseconds idleLimit{30000};  ///< of a connection without a request
    std::chrono::milliseconds headerLimit{5000}; ///< from the first byte to the end of the headers
    int mostHeaderBytes = 8 * 1024;
    int mostBodyBytes = 64 * 1024;

    bool operator==(const HttpSettings& other) const;
};

/// What the server has done since it was made, for the metrics.
struct HttpCounters
{
    qint64 connections = 0; ///< now
    qint64 accepted = 0;
    qint64 refused = 0; ///< too many, all in all or of one address
    qint64 requests = 0;
    qint64 tooSlow = 0;          ///< closed because headers or a body did not come
    qint64 turns = 0;            ///< how often it looked what there is to do
    QMap<int, qint64> responses; ///< by status
};

} // namespace micro850::gateway

#endif
