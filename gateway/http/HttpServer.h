#ifndef MICRO850_GATEWAY_HTTP_HTTPSERVER_H
#define MICRO850_GATEWAY_HTTP_HTTPSERVER_H

#include "Clock.h"
#include "HttpMessage.h"
#include "HttpSettings.h"

#include <memory>

namespace micro850::gateway {

/// Serves HTTP/1.1 in the event loop of Qt, with libmicrohttpd and without a thread. Its memory is
/// bounded whatever a peer does.
class HttpServer
{
public:
    /// Is given each request when it is complete. What is no request, or exceeds a limit, is
    /// answered or closed by the server itself.
    using Handler = HttpHandler;
    /// Makes the response to what the server itself refuses: `detail` is a line for people. Without
    /// it the response is that line. What is no HTTP at all gets a response of the library's.
    using Refusal = HttpRefusal;

    /// Listens at once. The clock must outlive it. Must not be destroyed by its handler or a
    /// stream. Throws UserError when the address cannot be
    /// used, and for certificates and keys that cannot be read, do not belong together, or can be
    /// read by others.
    HttpServer(const HttpSettings& settings, const Clock& clock, Handler handler,
               Refusal refusal = Refusal());
    /// Closes all connections. What is answered already goes out, as far as the peers' systems take
    /// it. Exchanges that are left are answered to nobody.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Goes on with other limits and proxies; everything else must be as before. Throws UserError,
    /// and goes on as before, for a proxy that is no address.
    void change(const HttpSettings& settings);
    /// Listens no more. Requests in work are still answered, then their connections end; all others
    /// end now, also those on which a stream is being sent.
    void retire();
    /// There is no connection left.
    bool isOver() const;

    int port() const;
    HttpCounters counters() const;

private:
    class Private;
    std::unique_ptr<Private> m_private;
};

} // namespace micro850::gateway

#endif
