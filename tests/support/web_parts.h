#ifndef MICRO850_TESTS_WEB_PARTS_H
#define MICRO850_TESTS_WEB_PARTS_H

// The parts of the web service without a server: tests hand requests over and look at the answers.

#include "RequestError.h"
#include "Router.h"
#include "UserError.h"
#include "WebContext.h"
#include "fake_lines.h"

#include <QtCore/QCoreApplication>

#include <gtest/gtest.h>

namespace micro850::gateway::test {

class FakeExchange : public HttpExchange
{
public:
    HttpRequest asked;
    std::vector<HttpResponse> answers;
    bool wanted = true;

    const HttpRequest& request() const override { return asked; }
    void answer(HttpResponse response) override { answers.push_back(std::move(response)); }
    bool isWanted() const override { return wanted; }
};

/// A request as the server hands it over: "/api/v1/values?line=press".
inline std::shared_ptr<FakeExchange> exchangeOf(const char* method, const QString& target,
                                                const QByteArray& body = QByteArray())
{
    auto exchange = std::make_shared<FakeExchange>();
    HttpRequest& request = exchange->asked;
    request.method = method;
    request.body = body;
    request.path = target.section('?', 0, 0).mid(1).split('/');
    for (const QString& pair : target.section('?', 1).split('&')) {
        if (!pair.isEmpty())
            request.query[pair.section('=', 0, 0)].append(pair.section('=', 1));
    }
    return exchange;
}

/// What the reader of a stream gets now.
inline QByteArray readAll(HttpStream& stream)
{
    QByteArray all;
    for (;;) {
        QByteArray piece(4096, '\0');
        const int got = stream.read(piece.data(), piece.size());
        if (got <= 0)
            return all;
        all += piece.left(got);
    }
}

inline nlohmann::json bodyOf(const HttpResponse& response)
{
    return nlohmann::json::parse(
        (response.stream ? readAll(*response.stream) : response.body).toStdString());
}

const char kWebProject[] = R"({
  "port": {"device": "/dev/ttyS0"},
  "variables": [
    {"name": "Speed", "tag": "SPEED", "type": "INT", "unit": "rpm", "writable": true,
     "maximum": 100},
    {"name": "Big", "tag": "BIG", "writable": true},
    {"name": "List", "tag": "LIST", "length": 2, "writable": true}
  ]})";

class WebPartsTest : public ::testing::Test
{
private:
    int m_noArguments = 0;
    const QCoreApplication m_application{m_noArguments, nullptr}; // timers need it

protected:
    FakeLines lines{{lineOfProject(QStringLiteral("press"), kWebProject)}};
    VirtualClock clock;
    SettableWallClock wallClock{1795354200000}; // 2026-11-22T13:30:00Z
    WriteRules writes{lines, clock, wallClock};
    FakeHistory history;
    WebContext context{
        {lines, writes, history, clock, wallClock, QStringLiteral("micro850-gateway 0"), [] {
             return Json{{"program", "it"}};
         }}};
    Router router;
    Caller caller;

    /// The answer, or the error of a request that is refused.
    HttpResponse answerTo(const std::shared_ptr<FakeExchange>& exchange)
    {
        router.route(exchange, caller);
        return exchange->answers.empty() ? HttpResponse() : exchange->answers.back();
    }
    HttpResponse get(const QString& target) { return answerTo(exchangeOf("GET", target)); }
    std::string refusal(const std::shared_ptr<FakeExchange>& exchange)
    {
        try {
            router.route(exchange, caller);
        } catch (const RequestError& error) {
            return std::string(error.code()) + ": " + error.what();
        } catch (const UserError& error) {
            return error.what();
        }
        return "not refused";
    }
};

} // namespace micro850::gateway::test

#endif
