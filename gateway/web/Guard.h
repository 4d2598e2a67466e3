#ifndef MICRO850_GATEWAY_WEB_GUARD_H
#define MICRO850_GATEWAY_WEB_GUARD_H

#include "Clock.h"
#include "Router.h"
#include "WebSettings.h"

#include <variant>

namespace micro850::gateway {

/// Decides who may do what, before anything else looks at a request: the name by which the server
/// was called (against rebinding of names), where the page came from, token or session.
class Guard
{
public:
    /// Reads the token file. The clock must outlive it. Throws UserError for a token file that
    /// others can read or that has no token, and for settings that would let others in without one.
    Guard(const WebSettings& settings, const Clock& clock);
    ~Guard();
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    /// Who asks, or why the request is refused. What is open to all needs no token: "/healthz",
    /// "/readyz", "/login" and the files that the login page shows.
    std::variant<Caller, HttpResponse> admit(const HttpRequest& request);

    /// The routes "/login" (GET, POST), "/logout" (POST) and "/api/v1/session" (GET).
    void addRoutes(Router& router);
    /// The headers that every response has: Content-Security-Policy, X-Content-Type-Options, ...
    static void protect(HttpResponse& response);

private:
    class Private;
    std::unique_ptr<Private> m_private;
};

} // namespace micro850::gateway

#endif
