#ifndef MICRO850_GATEWAY_WEB_ROUTER_H
#define MICRO850_GATEWAY_WEB_ROUTER_H

#include "HttpMessage.h"

namespace micro850::gateway {

/// Who asks, as Guard found out.
struct Caller
{
    bool mayWrite = false;
    bool isSession = false; ///< of a browser; else of a program, or of nobody
    QByteArray sessionId;   ///< of a session; never told
    QByteArray tokenMark;   ///< tells which token a program showed; never told
    QString name;           ///< for the journal: "web 127.0.0.1"
};

/// Which function answers which requests.
class Router
{
public:
    using Handler = std::function<void(const HttpExchangePointer& exchange, const Caller& caller)>;

    /// `pattern` is a path; a part "{name}" stands for any one part: "/api/v1/values/{name}".
    void add(const char* method, const char* pattern, Handler handler);
    /// Answers 404 for a path that there is not, 405 with Allow for a method that it does not have.
    /// HEAD is GET without the body, OPTIONS tells the methods.
    void route(const HttpExchangePointer& exchange, const Caller& caller) const;
    /// "GET /api/v1/values": all of them, for tests.
    QStringList routes() const;

private:
    struct Route
    {
        QByteArray method;
        QStringList pattern;
        Handler handler;
    };
    QVector<Route> m_routes;
};

} // namespace micro850::gateway

#endif
