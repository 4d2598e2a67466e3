#ifndef MICRO850_GATEWAY_HTTP_HTTPMESSAGE_H
#define MICRO850_GATEWAY_HTTP_HTTPMESSAGE_H

#include <QtCore/QByteArray>
#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <functional>
#include <memory>
#include <string>

namespace micro850::gateway {

/// A request, complete with its body.
struct HttpRequest
{
    QByteArray method; ///< as it was sent: "GET"
    QByteArray target; ///< as it was sent, without the query: "/api/v1/values/a%2Fb"
    /// The parts of the path between the slashes, decoded: {"api", "v1", "values", "a/b"}.
    QStringList path;
    QMap<QString, QStringList> query; ///< decoded; the values in their order
    /// Names in lower case; "a, b" of several, "a; b" of several cookies. "host" is that of the
    /// target when the target has one.
    QMap<QByteArray, QByteArray> headers;
    QByteArray body;
    /// The address of the peer as text, "127.0.0.1" or "::1"; that of the client which the proxy
    /// tells when the peer is a configured one.
    QByteArray address;
    bool isLoopback = false;  ///< `address` is one of this machine
    bool isEncrypted = false; ///< TLS to here, or to the configured proxy

    QByteArray header(const char* name) const { return headers.value(name); }
    /// The value of a cookie; empty when there is none, and when there are several of the name:
    /// one of them is of somebody else.
    QByteArray cookie(const QByteArray& name) const;
    /// The first value of a key of the query; empty when there is none.
    QString queryText(const QString& key) const;
};

/// A body whose end is not known. Everything happens on the thread of the event loop.
class HttpStream
{
public:
    /// The body ends here; it is whole.
    static constexpr int kEnd = -1;
    /// The rest of the body cannot be made: the connection is closed without the end of the body.
    static constexpr int kBroken = -2;

    virtual ~HttpStream() = default;
    /// Copies at most `size` bytes and returns how many; 0: nothing now, wake() tells when there is
    /// something; or kEnd or kBroken.
    virtual int read(char* bytes, int size) = 0;

    /// There is something to read, or the end. Not from within read().
    void wake() const
    {
        if (m_wake)
            m_wake();
    }
    /// For the server.
    void setWake(std::function<void()> wake) { m_wake = std::move(wake); }

private:
    std::function<void()> m_wake;
};

struct HttpHeader
{
    QByteArray name;
    QByteArray value;
};

struct HttpResponse
{
    int status = 200;
    QByteArray type; ///< Content-Type; empty without a body
    QByteArray body;
    QVector<HttpHeader> headers; ///< further ones
    /// In place of `body`. Destroyed when the client is gone or the body has ended.
    std::shared_ptr<HttpStream> stream;
    /// Somebody keeps the body anyway: while it waits it takes no memory of its own.
    bool isBodyKept = false;
};

/// A request and the way to answer it, now or later. Everything happens on the thread of the event
/// loop.
class HttpExchange
{
public:
    virtual ~HttpExchange() = default;
    virtual const HttpRequest& request() const = 0;
    /// Once. Nothing happens when the client is gone. An exchange that is destroyed without an
    /// answer is answered with 500.
    virtual void answer(HttpResponse response) = 0;
    /// False when the client is gone: nobody waits for the answer.
    virtual bool isWanted() const = 0;
};
using HttpExchangePointer = std::shared_ptr<HttpExchange>;
using HttpHandler = std::function<void(const HttpExchangePointer& exchange)>;
using HttpRefusal = std::function<HttpResponse(int status, const std::string& detail)>;

} // namespace micro850::gateway

#endif
