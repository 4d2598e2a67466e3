#include "Guard.h"

#include "TokenFile.h"
#include "UserError.h"

#include "http_response.h"

#include <gtest/gtest.h>

#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>

#include <nlohmann/json.hpp>

using namespace micro850;
using namespace micro850::gateway;

namespace {

const qint64 kHourMs = 3600LL * 1000;

/// Keeps what it is answered with.
class RecordedExchange : public HttpExchange
{
public:
    explicit RecordedExchange(HttpRequest request) : m_request(std::move(request)) {}
    const HttpRequest& request() const override { return m_request; }
    void answer(HttpResponse response) override { m_response = std::move(response); }
    bool isWanted() const override { return true; }
    const HttpResponse& response() const { return m_response; }

private:
    HttpRequest m_request;
    HttpResponse m_response;
};

/// "micro850-8850-session=..." of a response, as a browser sends it back.
QByteArray cookieFrom(const HttpResponse& response, const QByteArray& kind)
{
    for (const QByteArray& line : headerOf(response, "Set-Cookie").split('\n')) {
        const QByteArray pair = line.left(line.indexOf(';'));
        if (pair.contains("-" + kind + "="))
            return pair;
    }
    return {};
}

/// A guard with a token in a file, and a browser and a program that ask it.
class GuardTest : public ::testing::Test
{
protected:
    GuardTest()
    {
        m_settings.isOn = true;
        m_settings.takesWrites = true;
        m_settings.tokenFile = m_folder.filePath("token");
        setToken();
    }
    void setToken()
    {
        m_token = newToken();
        writeTokenFile(m_settings.tokenFile, m_token, {std::string(), true});
    }
    Guard& guard()
    {
        if (!m_guard) {
            m_guard = std::make_unique<Guard>(m_settings, m_clock, m_wallClock);
            m_router = Router();
            m_guard->addRoutes(m_router);
        }
        return *m_guard;
    }
    /// As after a restart of the service.
    void restart() { m_guard.reset(); }
    /// All others than this machine can connect.
    void open()
    {
        m_settings.http.address = QStringLiteral("0.0.0.0");
        m_settings.hosts =
            QStringList({QStringLiteral("panel7.plant"), QStringLiteral("10.9.8.7")});
    }

    static HttpRequest request(const QByteArray& method, const QByteArray& target)
    {
        HttpRequest request;
        request.method = method;
        request.target = target;
        for (const QByteArray& part : target.mid(1).split('/'))
            request.path.append(QString::fromUtf8(part));
        request.headers["host"] = "localhost:8850";
        request.address = "127.0.0.1";
        request.isLoopback = true;
        return request;
    }
    static HttpRequest from(const QByteArray& address, HttpRequest request)
    {
        request.address = address;
        request.isLoopback = false;
        return request;
    }
    static HttpRequest with(HttpRequest request, const QByteArray& name, const QByteArray& value)
    {
        request.headers[name] = value;
        return request;
    }
    HttpRequest byProgram(const HttpRequest& request, const QByteArray& token) const
    {
        return with(request, "authorization", "Bearer " + token);
    }
    HttpRequest byProgram(const HttpRequest& request) const { return byProgram(request, m_token); }

    /// The status of a refusal, or 0 for who is admitted.
    int refusal(const HttpRequest& request)
    {
        const auto admitted = guard().admit(request);
        const auto* const response = std::get_if<HttpResponse>(&admitted);
        return response != nullptr ? response->status : 0;
    }
    HttpResponse refused(const HttpRequest& request)
    {
        const auto admitted = guard().admit(request);
        const auto* const response = std::get_if<HttpResponse>(&admitted);
        EXPECT_NE(response, nullptr);
        return response != nullptr ? *response : HttpResponse();
    }
    Caller caller(const HttpRequest& request)
    {
        const auto admitted = guard().admit(request);
        const auto* const caller = std::get_if<Caller>(&admitted);
        EXPECT_NE(caller, nullptr);
        return caller != nullptr ? *caller : Caller();
    }
    /// What the routes of the guard answer.
    HttpResponse answer(const HttpRequest& request)
    {
        const auto admitted = guard().admit(request);
        if (const auto* const response = std::get_if<HttpResponse>(&admitted))
            return *response;
        const auto exchange = std::make_shared<RecordedExchange>(request);
        m_router.route(exchange, std::get<Caller>(admitted));
        return exchange->response();
    }

    static QByteArray synchronizerIn(const QByteArray& page)
    {
        static const QRegularExpression field(
            QStringLiteral("name=\"synchronizer\" type=\"hidden\" value=\"([^\"]+)\""));
        return field.match(QString::fromUtf8(page)).captured(1).toLatin1();
    }
    /// The form as a browser sends it.
    HttpRequest filledForm(const HttpRequest& like, const QByteArray& token,
                           const QByteArray& more = QByteArray())
    {
        HttpRequest get = like;
        get.method = "GET";
        const HttpResponse page = answer(get);
        HttpRequest post = like;
        post.method = "POST";
        post.headers["content-type"] = "application/x-www-form-urlencoded";
        post.headers["cookie"] = cookieFrom(page, "form");
        post.body = "token=" + token.toPercentEncoding() +
                    "&synchronizer=" + synchronizerIn(page.body) + more;
        return post;
    }
    HttpResponse logIn(const QByteArray& token)
    {
        return answer(filledForm(request("GET", "/login"), token));
    }
    /// The cookie of a new session.
    QByteArray session() { return cookieFrom(logIn(m_token), "session"); }
    QByteArray synchronizer(const QByteArray& cookie)
    {
        const HttpResponse response =
            answer(with(request("GET", "/api/v1/session"), "cookie", cookie));
        return QByteArray::fromStdString(
            nlohmann::json::parse(response.body.toStdString()).value("synchronizer", ""));
    }

    const QTemporaryDir m_folder;
    VirtualClock m_clock;
    SettableWallClock m_wallClock{1795352400000};
    WebSettings m_settings;
    QByteArray m_token;
    Router m_router;
    std::unique_ptr<Guard> m_guard;
};

} // namespace

TEST_F(GuardTest, LetsThisMachineReadWithoutATokenAndNobodyWrite)
{
    EXPECT_EQ(refusal(request("GET", "/api/v1/values")), 0);
    EXPECT_EQ(refusal(request("HEAD", "/api/v1/values")), 0);
    EXPECT_FALSE(caller(request("GET", "/api/v1/values")).mayWrite);
    for (const char* method : {"PUT", "POST", "DELETE", "PATCH", "TRACE", "put", "get"})
        EXPECT_EQ(refusal(request(method, "/api/v1/values/Speed")), 401) << method;
    EXPECT_EQ(headerOf(refused(request("PUT", "/api/v1/values/Speed")), "WWW-Authenticate"),
              "Bearer");
}

TEST_F(GuardTest, NeedsTheTokenForEverythingWhereOthersCanConnect)
{
    open();
    for (const char* target :
         {"/api/v1/values", "/api/v1/values/Speed", "/api/v1/events", "/metrics", "/api/v1/session",
          "/api/v1/status", "/nothing", "/page/a/b", "/healthz/x", "//", "/login/x"})
    {
        EXPECT_EQ(refusal(request("GET", target)), 401) << target; // also from this machine
        EXPECT_EQ(refusal(byProgram(request("GET", target))), 0) << target;
    }
    for (const char* target : {"/healthz", "/readyz", "/login", "/", "/page/app.js"})
        EXPECT_EQ(refusal(request("GET", target)), 0) << target;
    EXPECT_EQ(refusal(request("PUT", "/healthz")), 401);
    EXPECT_EQ(refusal(request("DELETE", "/login")), 401);
}

TEST_F(GuardTest, TakesWhoComesThroughAProxyForSomebodyFromElsewhere)
{
    for (const char* header : {"x-forwarded-for", "forwarded", "x-real-ip"})
        EXPECT_EQ(refusal(with(request("GET", "/api/v1/values"), header, "10.0.0.3")), 401)
            << header;
    m_settings.http.proxies = QStringList(QStringLiteral("127.0.0.1"));
    restart();
    EXPECT_EQ(refusal(request("GET", "/api/v1/values")), 401);
    m_settings = WebSettings();
    restart();
    EXPECT_EQ(refusal(with(request("GET", "/api/v1/values"), "x-forwarded-for", "10.0.0.3")), 403);
    EXPECT_EQ(refusal(request("GET", "/api/v1/values")), 0);
    EXPECT_EQ(refusal(request("PUT", "/api/v1/values/Speed")), 403); // no token could help
}

TEST_F(GuardTest, LetsAProgramWithTheTokenWriteIfTheSettingsDo)
{
    const HttpRequest put = request("PUT", "/api/v1/values/Speed");
    EXPECT_TRUE(caller(byProgram(put)).mayWrite);
    EXPECT_EQ(caller(byProgram(put)).name, "web 127.0.0.1");
    EXPECT_FALSE(caller(byProgram(put)).isSession);
    EXPECT_TRUE(caller(with(put, "authorization", "bEARER   " + m_token)).mayWrite);
    m_settings.takesWrites = false;
    restart();
    EXPECT_FALSE(caller(byProgram(put)).mayWrite);
}

TEST_F(GuardTest, RefusesEveryTokenButTheRightOne)
{
    QByteArray nearly = m_token;
    nearly[nearly.size() - 1] = nearly.endsWith('A') ? 'B' : 'A';
    for (const QByteArray& wrong :
         {QByteArray("x"), nearly, m_token.left(42), m_token + 'x', m_token.toLower() + '!'})
    {
        restart();
        EXPECT_EQ(refusal(byProgram(request("GET", "/api/v1/values"), wrong)), 401) << wrong.data();
    }
}

TEST_F(GuardTest, RefusesFurtherWrongTokensEverLongerAfterThree)
{
    const HttpRequest good = byProgram(request("GET", "/api/v1/values"));
    const HttpRequest wrong = byProgram(request("GET", "/api/v1/values"), "wrong");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(refusal(wrong), 401);
    for (const int seconds : {1, 2, 4, 8, 16, 32, 60, 60, 60}) {
        EXPECT_EQ(headerOf(refused(wrong), "Retry-After"), QByteArray::number(seconds));
        m_clock.advance(std::chrono::seconds(seconds) - std::chrono::microseconds(1));
        EXPECT_EQ(refusal(wrong), 429);
        EXPECT_EQ(headerOf(refused(wrong), "Retry-After"), "1");
        EXPECT_EQ(refusal(good), 0); // whoever shares the address is not locked out
        m_clock.advance(std::chrono::microseconds(1));
        EXPECT_EQ(refusal(wrong), 401);
    }
    // Others are not hindered, nor is who just looks, nor the login.
    EXPECT_EQ(refusal(from("10.0.0.3", good)), 0);
    EXPECT_EQ(refusal(request("GET", "/api/v1/values")), 0);
    EXPECT_EQ(logIn(m_token).status, 303);
    EXPECT_EQ(refusal(wrong), 429);
    m_clock.advance(std::chrono::seconds(60));
    EXPECT_EQ(refusal(good), 0); // and the account is clear again
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(refusal(wrong), 401);
    EXPECT_EQ(refusal(wrong), 429);
}

TEST_F(GuardTest, SlowsDownANetworkOfIpv6AsOneAddress)
{
    open();
    const HttpRequest wrong = byProgram(request("GET", "/metrics"), "wrong");
    for (const char* address : {"2001:db8::1", "2001:db8::2", "2001:db8::ffff:3"})
        EXPECT_EQ(refusal(from(address, wrong)), 401);
    EXPECT_EQ(refusal(from("2001:db8::4", wrong)), 429);
    EXPECT_EQ(refusal(from("2001:db8:0:1::4", wrong)), 401);
}

TEST_F(GuardTest, RemembersNoMoreThanAThousandAddresses)
{
    open();
    const HttpRequest wrong = byProgram(request("GET", "/metrics"), "wrong");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(refusal(from("10.0.0.1", wrong)), 401);
    EXPECT_EQ(refusal(from("10.0.0.1", wrong)), 429);
    for (int i = 0; i < 1024; ++i) {
        m_clock.advance(std::chrono::microseconds(1));
        EXPECT_EQ(
            refusal(from("10.1." + QByteArray::number(i / 256) + '.' + QByteArray::number(i % 256),
                         wrong)),
            401);
    }
    EXPECT_EQ(refusal(from("10.0.0.1", wrong)), 401);
}

TEST_F(GuardTest, AnswersOnlyToItsOwnNames)
{
    m_settings.hosts = QStringList(QStringLiteral("panel7.plant"));
    for (const char* host :
         {"localhost", "localhost:8850", "LOCALHOST:1", "localhost.", "127.0.0.1", "127.0.0.1:8850",
          "127.1.2.3", "[::1]", "[::1]:8850", "[0:0:0:0:0:0:0:1]:80", "[::ffff:127.0.0.1]",
          "panel7.plant", "Panel7.PLANT.:443"})
        EXPECT_EQ(refusal(with(request("GET", "/api/v1/values"), "host", host)), 0) << host;
    for (const char* host :
         {"evil.example", "evil.example:8850", "localhost.evil.example", "panel7.plant.evil",
          "10.0.0.7", "[::2]", "panel7", "0.0.0.0", "2130706433", "127.evil.example"})
        EXPECT_EQ(refusal(with(request("GET", "/"), "host", host)), 421) << host;
    for (const char* host :
         {"", " ", ":8850", "localhost:", "localhost:0", "localhost:65536", "localhost:+80",
          "localhost:8850:1", "me@localhost", "localhost/", "local host", "::1", "[::1",
          "[localhost]", "[]", "localhost, localhost", ".", "localh\xf6st",
          "localhost:99999999999999999999"})
        EXPECT_EQ(refusal(with(request("GET", "/"), "host", host)), 400) << host;
    HttpRequest without = request("GET", "/api/v1/values");
    without.headers.remove("host");
    EXPECT_EQ(refusal(without), 400);
}

TEST_F(GuardTest, AnswersToEveryAddressWhereItListensAtAll)
{
    open();
    for (const char* host : {"10.0.0.7:8850", "[fe80::1]", "192.168.1.1", "panel7.plant"})
        EXPECT_EQ(refusal(with(request("GET", "/healthz"), "host", host)), 0) << host;
    for (const char* host : {"evil.example", "panel7"})
        EXPECT_EQ(refusal(with(request("GET", "/healthz"), "host", host)), 421) << host;
}

TEST_F(GuardTest, RefusesPagesOfOtherSites)
{
    const HttpRequest get = request("GET", "/api/v1/values");
    for (const char* origin : {"http://localhost:8850", "http://LOCALHOST:8850"})
        EXPECT_EQ(refusal(with(get, "origin", origin)), 0) << origin;
    for (const char* origin :
         {"null", "", "https://localhost:8850", "http://localhost:8851", "http://localhost",
          "http://127.0.0.1:8850", "http://evil.example", "http://localhost:8850.evil.example",
          "http://localhost:8850, http://evil.example", "http://me@localhost:8850",
          "http://localhost:8850/", "ftp://localhost:8850", "localhost:8850"})
    {
        EXPECT_EQ(refusal(with(get, "origin", origin)), 403) << origin;
        EXPECT_EQ(refusal(byProgram(with(get, "origin", origin))), 403) << origin;
    }
    // Without a port it is the usual one of the scheme.
    HttpRequest usual = with(with(get, "host", "localhost:80"), "origin", "http://localhost");
    EXPECT_EQ(refusal(usual), 0);
    usual = with(with(get, "host", "localhost"), "origin", "https://localhost:443");
    EXPECT_EQ(refusal(usual), 403);
    usual.isEncrypted = true;
    EXPECT_EQ(refusal(usual), 0);
}

TEST_F(GuardTest, LetsBrowsersFollowLinksButNoOtherSiteAsk)
{
    const HttpRequest get = request("GET", "/api/v1/events");
    for (const char* site : {"same-origin", "none"})
        EXPECT_EQ(refusal(with(get, "sec-fetch-site", site)), 0) << site;
    for (const char* site : {"cross-site", "same-site", "other"}) {
        const HttpRequest asked = with(get, "sec-fetch-site", site);
        EXPECT_EQ(refusal(with(asked, "sec-fetch-mode", "no-cors")), 403) << site;
        EXPECT_EQ(refusal(asked), 403) << site;
        EXPECT_EQ(refusal(with(asked, "sec-fetch-mode", "navigate")), 0) << site;
    }
    const HttpRequest form =
        with(filledForm(request("GET", "/login"), m_token), "sec-fetch-site", "cross-site");
    EXPECT_EQ(refusal(with(form, "sec-fetch-mode", "navigate")), 403);
}

TEST_F(GuardTest, GivesASessionToWhoLogsIn)
{
    const HttpResponse response = logIn(m_token);
    EXPECT_EQ(response.status, 303);
    EXPECT_EQ(headerOf(response, "Location"), "/");
    const QByteArray cookie = cookieFrom(response, "session");
    EXPECT_TRUE(cookie.startsWith("micro850-8850-session=")) << cookie.data();
    EXPECT_TRUE(headerOf(response, "Set-Cookie")
                    .contains(cookie + "; Path=/; Max-Age=43200; HttpOnly; SameSite=Strict"));
    EXPECT_FALSE(headerOf(response, "Set-Cookie").contains("Secure"));
    EXPECT_FALSE(headerOf(response, "Set-Cookie").contains(m_token));
    open();
    restart();
    const HttpRequest get = with(request("GET", "/api/v1/values"), "cookie", cookie);
    EXPECT_EQ(refusal(get), 0);
    EXPECT_TRUE(caller(get).isSession);
    EXPECT_TRUE(caller(get).mayWrite);
}

TEST_F(GuardTest, MakesCookiesThatOnlyThisHostAndEncryptionCarryWithTls)
{
    HttpRequest login = request("GET", "/login");
    login.isEncrypted = true;
    const HttpResponse response = answer(filledForm(login, m_token));
    const QByteArray cookie = cookieFrom(response, "session");
    EXPECT_TRUE(cookie.startsWith("__Host-micro850-8850-session=")) << cookie.data();
    EXPECT_TRUE(
        headerOf(response, "Set-Cookie")
            .contains(cookie + "; Path=/; Max-Age=43200; HttpOnly; SameSite=Strict; Secure"));
    HttpRequest get = with(request("GET", "/api/v1/values"), "cookie", cookie);
    EXPECT_FALSE(caller(get).isSession); // it is not taken over a line that anybody can read
    get.isEncrypted = true;
    EXPECT_TRUE(caller(get).isSession);
}

TEST_F(GuardTest, NeedsTheSynchronizerOfTheSessionForEveryChange)
{
    const QByteArray cookie = session();
    const QByteArray other = synchronizer(session());
    const HttpRequest put = with(request("PUT", "/api/v1/values/Speed"), "cookie", cookie);
    EXPECT_EQ(refusal(put), 403);
    for (const QByteArray& wrong : {QByteArray("x"), other, cookie, synchronizer(cookie) + 'x'})
        EXPECT_EQ(refusal(with(put, "x-synchronizer", wrong)), 403) << wrong.data();
    EXPECT_EQ(refusal(with(put, "x-synchronizer", synchronizer(cookie))), 0);
    HttpRequest form =
        with(put, "content-type", "application/x-www-form-urlencoded; charset=UTF-8");
    form.body = "a=b&synchronizer=" + synchronizer(cookie);
    EXPECT_EQ(refusal(form), 0);
    EXPECT_EQ(refusal(with(form, "content-type", "text/plain")), 403);
    // It does not help who has no session.
    EXPECT_EQ(refusal(with(request("PUT", "/api/v1/values/Speed"), "x-synchronizer",
                           synchronizer(cookie))),
              401);
}

TEST_F(GuardTest, TakesNoSessionThatItDidNotBegin)
{
    const QByteArray cookie = session();
    const QByteArray name = cookie.left(cookie.indexOf('=') + 1);
    const QByteArray id = cookie.mid(name.size());
    const auto isSession = [&](const QByteArray& sent) {
        return caller(with(request("GET", "/api/v1/values"), "cookie", sent)).isSession;
    };
    EXPECT_TRUE(isSession(cookie));
    EXPECT_TRUE(isSession("a=b; " + cookie + ";c=d"));
    QByteArray later = id;
    later[0] = later.at(0) == '1' ? '2' : '1';
    for (const QByteArray& wrong :
         {QByteArray(), QByteArray("x"), QByteArray("."), QByteArray(".."), later,
          id.left(id.size() - 1), id + 'A', QByteArray(5000, 'a') + '.' + QByteArray(43, 'b'),
          cookieFrom(answer(request("GET", "/login")), "form").split('=').last()})
        EXPECT_FALSE(isSession(name + wrong)) << wrong.data();
    EXPECT_FALSE(isSession("micro850-8851-session=" + id)); // of another gateway of this machine
    EXPECT_FALSE(isSession("xmicro850-8850-session=" + id));
    // Somebody else has put a cookie of the same name in front.
    EXPECT_TRUE(isSession(name + "tossed; " + cookie));
    // A login makes another session, whatever the browser had before.
    HttpRequest form = filledForm(request("GET", "/login"), m_token);
    form.headers["cookie"] = form.headers["cookie"] + "; " + cookie;
    const QByteArray second = cookieFrom(answer(form), "session");
    EXPECT_NE(second, cookie);
    EXPECT_TRUE(isSession(second));
}

TEST_F(GuardTest, TakesALoginOnlyFromItsOwnForm)
{
    const HttpRequest form = filledForm(request("GET", "/login"), m_token);
    HttpRequest without = form;
    without.headers.remove("cookie");
    EXPECT_EQ(answer(without).status, 403);
    EXPECT_EQ(cookieFrom(answer(without), "session"), "");
    const HttpRequest other = filledForm(request("GET", "/login"), m_token);
    EXPECT_EQ(answer(with(form, "cookie", other.headers["cookie"])).status, 403);
    EXPECT_EQ(answer(with(form, "cookie", session())).status, 403);
    m_wallClock.advance(kHourMs);
    EXPECT_EQ(answer(form).status, 403);
    EXPECT_EQ(answer(filledForm(request("GET", "/login"), m_token)).status, 303);
}

TEST_F(GuardTest, SlowsDownLoginsWithAWrongToken)
{
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(logIn("wrong").status, 401);
        EXPECT_EQ(cookieFrom(logIn(""), "session"), "");
        restart();
    }
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(logIn("wrong").status, 401);
    const HttpResponse response = logIn("wrong");
    EXPECT_EQ(response.status, 429);
    EXPECT_EQ(headerOf(response, "Retry-After"), "1");
    EXPECT_EQ(cookieFrom(response, "session"), "");
    // A program at the same address is not hindered.
    EXPECT_EQ(refusal(byProgram(request("GET", "/api/v1/values"))), 0);
    EXPECT_EQ(logIn("wrong").status, 429);
    EXPECT_EQ(logIn(m_token).status, 303) << "the right one does not wait";
    EXPECT_EQ(logIn("wrong").status, 429) << "nor does it help who shares its address";
    m_clock.advance(std::chrono::seconds(1));
    EXPECT_EQ(logIn(m_token).status, 303);
    EXPECT_EQ(logIn("wrong").status, 401);
}

TEST_F(GuardTest, EndsASessionAfterTwelveHours)
{
    open();
    const HttpRequest get = with(request("GET", "/api/v1/values"), "cookie", session());
    const Caller known = caller(get);
    m_wallClock.advance(12 * kHourMs - 1);
    EXPECT_EQ(refusal(get), 0);
    EXPECT_TRUE(guard().isStillAdmitted(known));
    m_wallClock.advance(1);
    EXPECT_EQ(refusal(get), 401);
    EXPECT_FALSE(guard().isStillAdmitted(known));
    m_wallClock.advance(-13 * kHourMs); // a session from the future is none
    EXPECT_EQ(refusal(get), 401);
}

TEST_F(GuardTest, EndsTheSessionOfWhoLogsOutAndNoOther)
{
    open();
    const QByteArray cookie = session();
    const QByteArray other = session();
    const HttpRequest get = with(request("GET", "/api/v1/values"), "cookie", cookie);
    const Caller known = caller(get);
    HttpRequest logout = with(request("POST", "/logout"), "cookie", cookie);
    EXPECT_EQ(answer(logout).status, 403);
    EXPECT_EQ(refusal(get), 0);
    logout.headers["x-synchronizer"] = synchronizer(cookie);
    const HttpResponse response = answer(logout);
    EXPECT_EQ(response.status, 204);
    EXPECT_TRUE(headerOf(response, "Set-Cookie")
                    .startsWith("micro850-8850-session=; Path=/; Max-Age=0; HttpOnly"));
    EXPECT_EQ(refusal(get), 401);
    EXPECT_FALSE(guard().isStillAdmitted(known));
    EXPECT_EQ(refusal(with(get, "cookie", other)), 0);
    HttpRequest page =
        with(with(request("POST", "/logout"), "cookie", other), "accept", "text/html");
    page.headers["x-synchronizer"] = synchronizer(other);
    EXPECT_EQ(answer(page).status, 303);
}

TEST_F(GuardTest, RemembersEndedSessionsWithoutGrowing)
{
    open();
    const QByteArray first = session();
    const auto logOut = [&](const QByteArray& cookie) {
        HttpRequest logout = with(request("POST", "/logout"), "cookie", cookie);
        logout.headers["x-synchronizer"] = synchronizer(cookie);
        EXPECT_EQ(answer(logout).status, 204);
    };
    logOut(first);
    const QByteArray kept = session();
    for (int i = 0; i < 1000; ++i) {
        m_wallClock.advance(1);
        logOut(session());
    }
    const HttpRequest get = request("GET", "/api/v1/values");
    EXPECT_EQ(refusal(with(get, "cookie", first)), 401);
    EXPECT_EQ(refusal(with(get, "cookie", kept)), 401); // as old as one that was forgotten
    EXPECT_EQ(refusal(with(get, "cookie", session())), 0);
}

TEST_F(GuardTest, KeepsSessionsOverARestartAndEndsThemWithTheToken)
{
    open();
    const QByteArray cookie = session();
    const HttpRequest get = with(request("GET", "/api/v1/values"), "cookie", cookie);
    const HttpRequest old = byProgram(request("GET", "/api/v1/values"));
    restart();
    EXPECT_EQ(refusal(get), 0);
    const Caller program = caller(old);
    guard().change(m_settings);
    EXPECT_EQ(refusal(get), 0);
    EXPECT_TRUE(guard().isStillAdmitted(program));
    setToken();
    EXPECT_EQ(refusal(old), 0); // nobody has told it yet
    guard().change(m_settings);
    EXPECT_EQ(refusal(get), 401);
    EXPECT_EQ(refusal(old), 401);
    EXPECT_FALSE(guard().isStillAdmitted(program));
    EXPECT_EQ(refusal(byProgram(request("GET", "/api/v1/values"))), 0);
}

TEST_F(GuardTest, GoesOnAsBeforeWhenAChangeIsRefused)
{
    open();
    const HttpRequest good = byProgram(request("GET", "/api/v1/values"));
    EXPECT_EQ(refusal(good), 0);
    QFile::setPermissions(m_settings.tokenFile, QFile::ReadOwner | QFile::ReadOther);
    EXPECT_THROW(guard().change(m_settings), UserError);
    WebSettings without = m_settings;
    without.tokenFile.clear();
    EXPECT_THROW(guard().change(without), UserError);
    EXPECT_EQ(refusal(good), 0);
    EXPECT_EQ(refusal(request("GET", "/api/v1/values")), 401);
    without.http.address = QStringLiteral("127.0.0.1");
    guard().change(without);
    EXPECT_EQ(refusal(request("GET", "/api/v1/values")), 0);
}

TEST_F(GuardTest, TellsABrowserWhatItMayDo)
{
    const auto told = [&](const HttpRequest& request) {
        return nlohmann::json::parse(answer(request).body.toStdString());
    };
    const HttpRequest get = request("GET", "/api/v1/session");
    EXPECT_EQ(told(get),
              nlohmann::json({{"mayWrite", false}, {"needsLogin", true}, {"isSession", false}}));
    EXPECT_EQ(told(byProgram(get)),
              nlohmann::json({{"mayWrite", true}, {"needsLogin", false}, {"isSession", false}}));
    const nlohmann::json session = told(with(get, "cookie", this->session()));
    EXPECT_EQ(session["isSession"], true);
    EXPECT_GE(session["synchronizer"].get<std::string>().size(), 32U);
    m_settings.takesWrites = false;
    restart();
    EXPECT_EQ(told(get),
              nlohmann::json({{"mayWrite", false}, {"needsLogin", false}, {"isSession", false}}));
}

TEST_F(GuardTest, BringsBackTheViewOfALinkAfterTheLoginAndNothingElse)
{
    const auto locationOf = [&](const QByteArray& view) {
        const HttpRequest form =
            filledForm(request("GET", "/login"), m_token, "&view=" + view.toPercentEncoding());
        return headerOf(answer(form), "Location");
    };
    EXPECT_EQ(locationOf("#/trend?v=press%2FLevel&span=600"), "/#/trend?v=press%2FLevel&span=600");
    for (const char* view :
         {"", "/evil", "//evil.example", "https://evil.example", "#", "#x",
          "#/a\r\nSet-Cookie: a=b", "#/\"><script>", "#/a b", "#/a#b", "#/\xc3\xa4"})
        EXPECT_EQ(locationOf(view), "/") << view;
    HttpRequest login = request("GET", "/login");
    login.query["view"] = QStringList(QStringLiteral("#/values?search=a&sort=b"));
    EXPECT_TRUE(answer(login).body.contains("value=\"#/values?search=a&amp;sort=b\""));
    login.query["view"] = QStringList(QStringLiteral("#/\"><script>alert(1)</script>"));
    EXPECT_FALSE(answer(login).body.contains("<script"));
}

TEST_F(GuardTest, ShowsTheLoginInTheLanguageOfTheBrowser)
{
    const auto isGerman = [&](const QByteArray& languages) {
        const QByteArray body =
            answer(with(request("GET", "/login"), "accept-language", languages)).body;
        EXPECT_EQ(body.contains("<html lang=\"de\">"), body.contains("Anmelden"));
        EXPECT_NE(body.contains("Anmelden"), body.contains("Log in"));
        return body.contains("Anmelden");
    };
    for (const char* german : {"de", "de-AT,en;q=0.5", "DE", "fr, de;q=0.2", "en;q=0.3, de;q=0.4"})
        EXPECT_TRUE(isGerman(german)) << german;
    for (const char* english :
         {"", "en", "en-GB,de;q=0.9", "fr", "de;q=0", "de;q=x, en", "*", ";;,,"})
        EXPECT_FALSE(isGerman(english)) << english;
}

TEST_F(GuardTest, HasNoLoginWithoutAToken)
{
    m_settings = WebSettings();
    EXPECT_EQ(answer(request("GET", "/login")).status, 404);
    HttpRequest post = request("POST", "/login");
    post.headers["content-type"] = "application/x-www-form-urlencoded";
    post.body = "token=";
    EXPECT_EQ(answer(post).status, 404);
    EXPECT_EQ(cookieFrom(answer(post), "session"), "");
    // Not even the seal of no token opens anything.
    EXPECT_FALSE(caller(with(request("GET", "/api/v1/values"), "cookie",
                             "micro850-0-session=" + QByteArray("1.a.b")))
                     .isSession);
    EXPECT_FALSE(
        caller(with(request("GET", "/api/v1/values"), "authorization", "Bearer ")).mayWrite);
}

TEST(GuardHeaders, ForbidBrowsersEverythingThatThePageDoesNotNeed)
{
    HttpResponse response;
    Guard::protect(response);
    EXPECT_EQ(headerOf(response, "Content-Security-Policy"),
              "default-src 'self'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'");
    EXPECT_EQ(headerOf(response, "X-Content-Type-Options"), "nosniff");
    EXPECT_EQ(headerOf(response, "X-Frame-Options"), "DENY");
    EXPECT_EQ(headerOf(response, "Referrer-Policy"), "same-origin");
    EXPECT_EQ(headerOf(response, "Cross-Origin-Resource-Policy"), "same-origin");
    EXPECT_EQ(headerOf(response, "Cache-Control"), "no-store");
    HttpResponse cached;
    cached.headers.append(HttpHeader{"cache-control", "no-cache"});
    Guard::protect(cached);
    EXPECT_EQ(headerOf(cached, "Cache-Control"), "");
    EXPECT_EQ(headerOf(cached, "cache-control"), "no-cache");
}

TEST(GuardSettings, NeedATokenWhereOthersCanConnect)
{
    const VirtualClock clock;
    const SettableWallClock wallClock(0);
    WebSettings settings;
    EXPECT_NO_THROW(Guard(settings, clock, wallClock));
    for (const char* address : {"0.0.0.0", "::", "10.0.0.7"}) {
        settings.http.address = QString::fromLatin1(address);
        EXPECT_THROW(Guard(settings, clock, wallClock), UserError) << address;
    }
}
