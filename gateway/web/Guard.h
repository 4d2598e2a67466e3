#ifndef MICRO850_GATEWAY_WEB_GUARD_H
#define MICRO850_GATEWAY_WEB_GUARD_H

#include "Clock.h"
#include "Router.h"
#include "WallClock.h"
#include "WebSettings.h"

#include <variant>

namespace micro850::gateway {

/// What was refused since the guard was made.
struct GuardCounters
{
    qint64 logins = 0;  ///< wrong tokens, typed or sent, and those that came too soon after them
    qint64 changes = 0; ///< requests that would change something, without the right to
};

/// Decides who may do what, before anything else looks at a request: the name by which the server
/// was called (against rebinding of names), where the page came from, token or session.
class Guard
{
public:
    using Warn = std::function<void(const QString& line)>;
    /// Reads the token file. The clocks must outlive it. `warn` logs what is refused. Throws
    /// UserError for a token file that others can read or that has no token, and for settings that
    /// would let others in without one.
    Guard(const WebSettings& settings, const Clock& clock, const WallClock& wallClock,
          Warn warn = nullptr);
    ~Guard();
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    /// Settings of a new configuration, also with another token in the same file; all sessions are
    /// over then. Throws UserError, and goes on as before, as the constructor does.
    void change(const WebSettings& settings);
    /// Does the part of change() that can fail; what it returns does the rest.
    std::function<void()> prepare(const WebSettings& settings);

    /// Who asks, or why the request is refused. What is open to all needs no token: "/healthz",
    /// "/readyz", "/login" and the files of the page, which show nothing of the plant.
    std::variant<Caller, HttpResponse> admit(const HttpRequest& request);
    /// False when the session of the caller is over, or the token has changed: what he still reads
    /// has to end.
    bool isStillAdmitted(const Caller& caller) const;
    GuardCounters counters() const;

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
