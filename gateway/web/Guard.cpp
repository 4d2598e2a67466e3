#include "Guard.h"

#include "AttemptLimit.h"
#include "HostNames.h"
#include "LoginPage.h"
#include "Problem.h"
#include "RareLog.h"
#include "Sessions.h"
#include "TokenFile.h"
#include "UserError.h"

#include <QtCore/QCryptographicHash>

#include <algorithm>
#include <optional>

namespace micro850::gateway {

namespace {

const int kFound = 303;
const int kNoContent = 204;
const int kBadRequest = 400;
const int kUnauthorized = 401;
const int kForbidden = 403;
const int kMisdirected = 421;
const int kTooMany = 429;
const char kNotAllowed[] = "not-allowed";
const char kFormKey[] = "synchronizer";

bool isSafe(const QByteArray& method)
{
    return method == "GET" || method == "HEAD" || method == "OPTIONS";
}

// The files of the page are the same everywhere. A link to a view works so, although a browser does
// not send the session along when the link is followed from elsewhere.
bool isForAll(const HttpRequest& request)
{
    if (request.path == QStringList(QStringLiteral("login")))
        return isSafe(request.method) || request.method == "POST";
    if (!isSafe(request.method) || request.path.size() > 2)
        return false;
    if (request.target == "/")
        return true;
    const QString first = request.path.value(0);
    if (request.path.size() == 2)
        return first == QLatin1String("page") || first == QLatin1String("dygraphs");
    return first == QLatin1String("healthz") || first == QLatin1String("readyz") ||
           first == QLatin1String("favicon.ico");
}

// What a proxy says of its client. From one that is not configured it is not believed, but it tells
// that the client may be anywhere.
bool isFromHere(const HttpRequest& request)
{
    return request.isLoopback && !request.headers.contains("x-forwarded-for") &&
           !request.headers.contains("forwarded") && !request.headers.contains("x-real-ip");
}

// All of one name: somebody else's page may have set one of that name, too.
QVector<QByteArray> cookiesOf(const HttpRequest& request, const QByteArray& name)
{
    const int kMost = 16;
    QVector<QByteArray> values;
    for (const QByteArray& each :
         QByteArray(request.header("cookie")).replace(", ", "; ").split(';')) {
        const QByteArray cookie = each.trimmed();
        if (cookie.startsWith(name + '=') && values.size() < kMost)
            values.append(cookie.mid(name.size() + 1));
    }
    return values;
}

QByteArray bearerOf(const HttpRequest& request)
{
    const QByteArray kScheme = "bearer ";
    const QByteArray given = request.header("authorization");
    if (given.left(kScheme.size()).toLower() != kScheme)
        return {};
    return given.mid(kScheme.size()).trimmed();
}

QByteArray decoded(QByteArray text)
{
    return QByteArray::fromPercentEncoding(text.replace('+', ' '));
}

// The first value of a field of a form.
QByteArray formField(const HttpRequest& request, const QByteArray& name)
{
    const QByteArray type = request.header("content-type");
    if (type.split(';').first().trimmed().toLower() != "application/x-www-form-urlencoded")
        return {};
    for (const QByteArray& field : request.body.split('&')) {
        const int equals = field.indexOf('=');
        if (equals > 0 && decoded(field.left(equals)) == name)
            return decoded(field.mid(equals + 1));
    }
    return {};
}

int wholeSeconds(Duration wait)
{
    const Duration kSecond = std::chrono::seconds(1);
    return static_cast<int>((wait + kSecond - Duration(1)) / kSecond);
}

HttpResponse needsToken(const char* detail)
{
    HttpResponse response = problem(kUnauthorized, kNotAllowed, detail);
    response.headers.append(HttpHeader{"WWW-Authenticate", "Bearer"});
    return response;
}

HttpResponse mustWait(Duration wait)
{
    const int seconds = wholeSeconds(wait);
    HttpResponse response = problem(kTooMany, "busy",
                                    "too many wrong tokens came from this address; try again in " +
                                        std::to_string(seconds) + " s");
    response.headers.append(HttpHeader{"Retry-After", QByteArray::number(seconds)});
    return response;
}

// Throws UserError.
QByteArray tokenOf(const WebSettings& settings)
{
    if (settings.isOpen() && settings.tokenFile.isEmpty())
        throw UserError("web: others than this machine can connect, so a token is needed (make one "
                        "with micro850-gateway token FILE, and name it in \"tokenFile\")");
    if (settings.tokenFile.isEmpty())
        return {};
    try {
        return readTokenFile(settings.tokenFile);
    } catch (const UserError& error) {
        throw UserError(std::string("web.tokenFile: ") + error.what());
    }
}

HttpResponse redirection(const QByteArray& to)
{
    HttpResponse response;
    response.status = kFound;
    response.headers.append(HttpHeader{"Location", to});
    response.headers.append(HttpHeader{"Cache-Control", "no-store"});
    return response;
}

} // namespace

class Guard::Private
{
public:
    Private(const Clock& clock, const WallClock& wallClock, Warn warn)
        : m_wallClock(wallClock), m_logins(clock), m_programs(clock),
          m_refusals(clock, std::move(warn))
    {
    }

    void change(const WebSettings& settings, const QByteArray& token);
    std::variant<Caller, HttpResponse> admit(const HttpRequest& request);
    const GuardCounters& counters() const { return m_counters; }
    bool isStillAdmitted(const Caller& caller) const;
    HttpResponse showLogin(const HttpRequest& request, LoginNotice notice, int waitSeconds) const;
    HttpResponse login(const HttpRequest& request);
    HttpResponse logout(const HttpRequest& request, const Caller& caller);
    HttpResponse session(const Caller& caller) const;

private:
    std::variant<Caller, HttpResponse> decide(const HttpRequest& request);
    void noteRefusal(const HttpRequest& request, const char* what);
    /// What can be decided without the names of a person or a program.
    std::optional<HttpResponse> refusalOfPlace(const HttpRequest& request) const;
    std::optional<HttpResponse> refusalOfToken(const HttpRequest& request, const QByteArray& token);
    std::optional<HttpResponse> refusalOfNobody(const HttpRequest& request) const;
    QByteArray sessionOf(const HttpRequest& request) const;
    bool isSynchronized(const HttpRequest& request, const QByteArray& session) const;
    QByteArray cookieName(const HttpRequest& request, const char* kind) const;
    HttpHeader cookie(const HttpRequest& request, const char* kind, const QByteArray& value,
                      qint64 seconds) const;

    const WallClock& m_wallClock;
    // Programs send the token with every request; a browser of the same machine does not have to
    // wait because one of them has a wrong one.
    AttemptLimit m_logins;
    AttemptLimit m_programs;
    WebSettings m_settings;
    std::optional<HostNames> m_names;
    RareLog m_refusals;
    GuardCounters m_counters;
    QByteArray m_token;
    QByteArray m_mark; ///< of the token
    std::optional<Sessions> m_sessions;
};

void Guard::Private::change(const WebSettings& settings, const QByteArray& token)
{
    // Sessions go on with the same token.
    if (token != m_token || !m_sessions)
        m_sessions.emplace(token, m_wallClock);
    m_settings = settings;
    m_names.emplace(settings);
    m_token = token;
    m_mark = QCryptographicHash::hash(token, QCryptographicHash::Sha256);
}

// Cookies of a machine are the same for all its ports: two gateways have different names. A browser
// takes a name that begins with "__Host-" only from this very host, and only encrypted.
QByteArray Guard::Private::cookieName(const HttpRequest& request, const char* kind) const
{
    return QByteArray(request.isEncrypted ? "__Host-" : "") + "micro850-" +
           QByteArray::number(m_settings.http.port) + '-' + kind;
}

HttpHeader Guard::Private::cookie(const HttpRequest& request, const char* kind,
                                  const QByteArray& value, qint64 seconds) const
{
    return {"Set-Cookie", cookieName(request, kind) + '=' + value + "; Path=/; Max-Age=" +
                              QByteArray::number(seconds) + "; HttpOnly; SameSite=Strict" +
                              (request.isEncrypted ? "; Secure" : "")};
}

QByteArray Guard::Private::sessionOf(const HttpRequest& request) const
{
    if (m_token.isEmpty())
        return {};
    for (const QByteArray& id : cookiesOf(request, cookieName(request, "session"))) {
        if (m_sessions->isGood(id))
            return id;
    }
    return {};
}

bool Guard::Private::isSynchronized(const HttpRequest& request, const QByteArray& session) const
{
    const QByteArray inHeader = request.header("x-synchronizer");
    const QByteArray given = inHeader.isEmpty() ? formField(request, kFormKey) : inHeader;
    return areSame(given, m_sessions->synchronizer(session));
}

std::optional<HttpResponse> Guard::Private::refusalOfPlace(const HttpRequest& request) const
{
    const std::optional<CalledHost> host = CalledHost::fromHeader(request.header("host"));
    if (!host)
        return problem(kBadRequest, "bad-request", "the header Host names no host");
    if (!m_names->contains(*host))
        return problem(kMisdirected, kNotAllowed,
                       "this server is not called so (a further name stands in \"hosts\" of its "
                       "configuration)");
    if (!isFromOwnPage(request, *host))
        return problem(kForbidden, kNotAllowed,
                       "the request comes from a page of another site (behind a proxy, it has to "
                       "be in \"proxies\", and to pass on Host and X-Forwarded-Proto)");
    return std::nullopt;
}

std::optional<HttpResponse> Guard::Private::refusalOfToken(const HttpRequest& request,
                                                           const QByteArray& token)
{
    // The right one is always taken: else whoever shares an address could lock others out. It
    // cannot be guessed, however many are looked at.
    const Duration wait = m_programs.wait(request.address);
    if (areSame(token, m_token)) {
        if (wait == Duration(0))
            m_programs.noteRight(request.address);
        return std::nullopt;
    }
    ++m_counters.logins;
    if (wait > Duration(0))
        return mustWait(wait);
    m_programs.noteWrong(request.address);
    return needsToken("this is not the token of the gateway");
}

std::optional<HttpResponse> Guard::Private::refusalOfNobody(const HttpRequest& request) const
{
    if (!isSafe(request.method)) {
        if (m_token.isEmpty())
            return problem(kForbidden, kNotAllowed,
                           "writing needs a token, and this gateway has none (\"tokenFile\" in its "
                           "configuration)");
        return needsToken("writing needs the token: log in, or send Authorization: Bearer TOKEN");
    }
    if (!m_settings.isOpen() && isFromHere(request))
        return std::nullopt;
    if (m_token.isEmpty())
        return problem(kForbidden, kNotAllowed,
                       "this gateway is for its own machine alone; a proxy that lets others in has "
                       "to be in \"proxies\" of its configuration, which needs a \"tokenFile\"");
    return needsToken("the token is needed: log in, or send Authorization: Bearer TOKEN");
}

// Nothing of what was typed or asked for is told.
void Guard::Private::noteRefusal(const HttpRequest& request, const char* what)
{
    m_refusals.note(request.address,
                    QStringLiteral("web %1: %2")
                        .arg(QString::fromLatin1(request.address), QLatin1String(what)));
}

std::variant<Caller, HttpResponse> Guard::Private::admit(const HttpRequest& request)
{
    const qint64 before = m_counters.logins;
    const std::variant<Caller, HttpResponse> admitted = decide(request);
    if (std::holds_alternative<Caller>(admitted))
        return admitted;
    if (!isSafe(request.method)) {
        ++m_counters.changes;
        noteRefusal(request, "a change was refused");
    } else if (m_counters.logins != before) {
        noteRefusal(request, "a wrong token was refused");
    }
    return admitted;
}

std::variant<Caller, HttpResponse> Guard::Private::decide(const HttpRequest& request)
{
    if (std::optional<HttpResponse> refusal = refusalOfPlace(request))
        return *refusal;
    Caller caller;
    caller.name = QStringLiteral("web ") + QString::fromLatin1(request.address);
    if (isForAll(request)) {
        caller.sessionId = sessionOf(request);
        caller.isSession = !caller.sessionId.isEmpty();
        return caller;
    }
    const QByteArray token = m_token.isEmpty() ? QByteArray() : bearerOf(request);
    if (!token.isEmpty()) {
        if (std::optional<HttpResponse> refusal = refusalOfToken(request, token))
            return *refusal;
        caller.tokenMark = m_mark;
        caller.mayWrite = m_settings.takesWrites;
        return caller;
    }
    caller.sessionId = sessionOf(request);
    caller.isSession = !caller.sessionId.isEmpty();
    if (!caller.isSession) {
        if (std::optional<HttpResponse> refusal = refusalOfNobody(request))
            return *refusal;
        return caller;
    }
    if (!isSafe(request.method) && !isSynchronized(request, caller.sessionId))
        return problem(kForbidden, kNotAllowed,
                       "the synchronizer token of the session is missing or wrong (load the page "
                       "again)");
    caller.mayWrite = m_settings.takesWrites;
    return caller;
}

bool Guard::Private::isStillAdmitted(const Caller& caller) const
{
    if (caller.isSession)
        return !m_token.isEmpty() && m_sessions->isGood(caller.sessionId);
    if (!caller.tokenMark.isEmpty())
        return caller.tokenMark == m_mark;
    return !m_settings.isOpen();
}

HttpResponse Guard::Private::showLogin(const HttpRequest& request, LoginNotice notice,
                                       int waitSeconds) const
{
    if (m_token.isEmpty())
        return problem(404, "not-found",
                       "this gateway has no token, so nobody logs in (\"tokenFile\" in its "
                       "configuration)");
    const QByteArray form = m_sessions->beginForm();
    LoginPage page;
    page.notice = notice;
    page.waitSeconds = waitSeconds;
    page.synchronizer = m_sessions->synchronizer(form);
    page.view = viewOf(request.method == "POST" ? QString::fromUtf8(formField(request, "view"))
                                                : request.queryText(QStringLiteral("view")));
    page.languages = request.header("accept-language");
    HttpResponse response = page.response();
    const int kHour = 3600;
    response.headers.append(cookie(request, "form", form, kHour));
    return response;
}

HttpResponse Guard::Private::login(const HttpRequest& request)
{
    if (m_token.isEmpty())
        return showLogin(request, LoginNotice::None, 0);
    const QByteArray given = formField(request, kFormKey);
    const QVector<QByteArray> forms = cookiesOf(request, cookieName(request, "form"));
    const bool isOwn = std::any_of(forms.begin(), forms.end(), [&](const QByteArray& form) {
        return m_sessions->isGoodForm(form) && areSame(given, m_sessions->synchronizer(form));
    });
    if (!isOwn)
        return showLogin(request, LoginNotice::TooOld, 0);
    const Duration wait = m_logins.wait(request.address);
    if (!areSame(formField(request, "token").trimmed(), m_token)) {
        ++m_counters.logins;
        noteRefusal(request, "a login was refused");
        if (wait > Duration(0))
            return showLogin(request, LoginNotice::Wait, wholeSeconds(wait));
        m_logins.noteWrong(request.address);
        return showLogin(request, LoginNotice::WrongToken, 0);
    }
    if (wait == Duration(0))
        m_logins.noteRight(request.address);
    HttpResponse response =
        redirection('/' + viewOf(QString::fromUtf8(formField(request, "view"))));
    const int kSecond = 1000;
    response.headers.append(
        cookie(request, "session", m_sessions->begin(), Sessions::kLongestMs / kSecond));
    response.headers.append(cookie(request, "form", "", 0));
    return response;
}

HttpResponse Guard::Private::logout(const HttpRequest& request, const Caller& caller)
{
    if (caller.isSession)
        m_sessions->end(caller.sessionId);
    HttpResponse response = redirection("/");
    if (!request.header("accept").contains("text/html"))
        response = HttpResponse{kNoContent, {}, {}, {{"Cache-Control", "no-store"}}, nullptr};
    response.headers.append(cookie(request, "session", "", 0));
    return response;
}

HttpResponse Guard::Private::session(const Caller& caller) const
{
    host::Json body = {{"mayWrite", caller.mayWrite},
                       {"needsLogin", m_settings.takesWrites && !caller.mayWrite},
                       {"isSession", caller.isSession}};
    if (caller.isSession)
        body["synchronizer"] = m_sessions->synchronizer(caller.sessionId).toStdString();
    return jsonResponse(body);
}

Guard::Guard(const WebSettings& settings, const Clock& clock, const WallClock& wallClock, Warn warn)
    : m_private(std::make_unique<Private>(clock, wallClock, std::move(warn)))
{
    change(settings);
}

Guard::~Guard() = default;

void Guard::change(const WebSettings& settings)
{
    prepare(settings)();
}

std::function<void()> Guard::prepare(const WebSettings& settings)
{
    return [this, settings, token = tokenOf(settings)] { m_private->change(settings, token); };
}

std::variant<Caller, HttpResponse> Guard::admit(const HttpRequest& request)
{
    return m_private->admit(request);
}

bool Guard::isStillAdmitted(const Caller& caller) const
{
    return m_private->isStillAdmitted(caller);
}

GuardCounters Guard::counters() const
{
    return m_private->counters();
}

void Guard::addRoutes(Router& router)
{
    router.add("GET", "/login", [this](const HttpExchangePointer& exchange, const Caller&) {
        exchange->answer(m_private->showLogin(exchange->request(), LoginNotice::None, 0));
    });
    router.add("POST", "/login", [this](const HttpExchangePointer& exchange, const Caller&) {
        exchange->answer(m_private->login(exchange->request()));
    });
    router.add("POST", "/logout",
               [this](const HttpExchangePointer& exchange, const Caller& caller) {
                   exchange->answer(m_private->logout(exchange->request(), caller));
               });
    router.add("GET", "/api/v1/session",
               [this](const HttpExchangePointer& exchange, const Caller& caller) {
                   exchange->answer(m_private->session(caller));
               });
}

void Guard::protect(HttpResponse& response)
{
    const HttpHeader kHeaders[] = {
        {"Content-Security-Policy",
         "default-src 'self'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'"},
        {"X-Content-Type-Options", "nosniff"},
        {"X-Frame-Options", "DENY"},
        {"Cross-Origin-Resource-Policy", "same-origin"},
        // With "no-referrer" browsers would send the forms of the page with "Origin: null".
        {"Referrer-Policy", "same-origin"},
        // What one has seen is not for who uses the browser next; files of the page say otherwise.
        {"Cache-Control", "no-store"},
    };
    for (const HttpHeader& header : kHeaders) {
        const bool isThere = std::any_of(
            response.headers.begin(), response.headers.end(),
            [&](const HttpHeader& other) { return other.name.toLower() == header.name.toLower(); });
        if (!isThere)
            response.headers.append(header);
    }
}

} // namespace micro850::gateway
