#include "HttpServer.h"

#include "UserError.h"
#include "certificates.h"
#include "http_client.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QProcess>
#include <QtCore/QTimer>

#include <gtest/gtest.h>

#include <fstream>
#include <numeric>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace micro850;
using namespace micro850::gateway;

namespace {

/// The event loop that sockets need.
void turnLoop()
{
    static int count = 1;
    static char name[] = "test";
    static char* arguments[] = {name, nullptr};
    static QCoreApplication application(count, arguments);
    QCoreApplication::processEvents();
}

template<typename Condition> bool waitFor(const Condition& condition)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > 30000)
            return false;
        turnLoop();
    }
    return true;
}

/// What the test puts in goes out.
class Stream : public HttpStream
{
public:
    explicit Stream(int* destroyed = nullptr) : m_destroyed(destroyed) {}
    ~Stream() override
    {
        if (m_destroyed != nullptr)
            ++*m_destroyed;
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    int read(char* bytes, int size) override
    {
        ++reads;
        if (waiting.isEmpty())
            return isOver ? -1 : 0;
        const int count = std::min(size, waiting.size());
        std::copy_n(waiting.begin(), count, bytes);
        waiting.remove(0, count);
        return count;
    }
    void put(const QByteArray& bytes)
    {
        waiting += bytes;
        wake();
    }
    void end()
    {
        isOver = true;
        wake();
    }

    QByteArray waiting;
    bool isOver = false;
    int reads = 0;

private:
    int* m_destroyed;
};

HttpResponse textResponse(const QByteArray& text)
{
    HttpResponse response;
    response.type = "text/plain";
    response.body = text;
    return response;
}

class HttpServerTest : public testing::Test
{
protected:
    HttpServerTest()
    {
        turnLoop();
        settings.port = 0;
        handler = [](const HttpExchangePointer& exchange) {
            exchange->answer(
                textResponse(exchange->request().method + ' ' + exchange->request().target));
        };
    }
    HttpServer& server()
    {
        if (!m_server)
            m_server = std::make_unique<HttpServer>(settings, clock,
                                                    [this](const HttpExchangePointer& exchange) {
                                                        requests += exchange->request();
                                                        handler(exchange);
                                                    });
        return *m_server;
    }
    std::unique_ptr<HttpClient> client(const QByteArray& from = QByteArray())
    {
        return std::make_unique<HttpClient>(server().port(), turnLoop, "127.0.0.1", from);
    }
    std::vector<std::unique_ptr<HttpClient>> clients(int count, const QByteArray& from)
    {
        std::vector<std::unique_ptr<HttpClient>> all;
        for (int i = 0; i < count; ++i)
            all.push_back(client(from));
        return all;
    }
    /// Lets the server look at the time.
    void advance(Duration by)
    {
        turnFor(250);
        clock.advance(by);
        turnFor(250);
    }
    static void turnFor(int milliseconds)
    {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < milliseconds) {
            turnLoop();
            ::usleep(1000);
        }
    }
    /// Answers with this stream.
    void answerWith(std::shared_ptr<Stream>& stream, int* destroyed)
    {
        handler = [&stream, destroyed](const HttpExchangePointer& exchange) {
            HttpResponse response;
            response.type = "text/event-stream";
            stream = std::make_shared<Stream>(destroyed);
            response.stream = stream;
            exchange->answer(response);
        };
    }
    void stop() { m_server.reset(); }
    /// The status by which the server answers these bytes; 0 when it closes without.
    int statusOf(const QByteArray& bytes)
    {
        const auto some = client();
        some->send(bytes);
        return some->receive().status;
    }

    HttpSettings settings;
    VirtualClock clock;
    HttpServer::Handler handler;
    QVector<HttpRequest> requests;

private:
    std::unique_ptr<HttpServer> m_server;
};

TEST_F(HttpServerTest, AnswersARequest)
{
    const HttpReply reply = client()->get("/api/v1/values?line=press");
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, "GET /api/v1/values");
    EXPECT_EQ(reply.header("content-type"), "text/plain");
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].path, QStringList({"api", "v1", "values"}));
    EXPECT_EQ(requests[0].queryText("line"), "press");
    EXPECT_EQ(requests[0].address, "127.0.0.1");
    EXPECT_TRUE(requests[0].isLoopback);
    EXPECT_FALSE(requests[0].isEncrypted);
}

TEST_F(HttpServerTest, GivesTheBodyAndKeepsTheConnection)
{
    handler = [](const HttpExchangePointer& exchange) {
        exchange->answer(textResponse(exchange->request().body));
    };
    const auto some = client();
    EXPECT_EQ(some->put("/x", "42.25").body, "42.25");
    EXPECT_EQ(some->put("/x", QByteArray(64 * 1024, 'b')).body, QByteArray(64 * 1024, 'b'));
    EXPECT_EQ(some->put("/x", "").body, "");
    EXPECT_EQ(server().counters().accepted, 1);
    EXPECT_EQ(server().counters().requests, 3);
    EXPECT_EQ(server().counters().responses.value(200), 3);
}

TEST_F(HttpServerTest, AnswersLater)
{
    QVector<HttpExchangePointer> waiting;
    handler = [&](const HttpExchangePointer& exchange) { waiting += exchange; };
    const auto some = client();
    some->send("GET /later HTTP/1.1\r\nHost: localhost\r\n\r\n");
    ASSERT_TRUE(waitFor([&] { return waiting.size() == 1; }));
    EXPECT_TRUE(waiting[0]->isWanted());
    waiting[0]->answer(textResponse("now"));
    EXPECT_EQ(some->receive().body, "now");
    EXPECT_FALSE(waiting[0]->isWanted());
}

TEST_F(HttpServerTest, AnswersWithFailureWhatNobodyAnswers)
{
    handler = [](const HttpExchangePointer&) {};
    EXPECT_EQ(client()->get("/").status, 500);
}

TEST_F(HttpServerTest, StreamsWhatComes)
{
    std::shared_ptr<Stream> stream;
    int destroyed = 0;
    handler = [&](const HttpExchangePointer& exchange) {
        HttpResponse response;
        response.type = "text/event-stream";
        stream = std::make_shared<Stream>(&destroyed);
        response.stream = stream;
        exchange->answer(response);
    };
    const auto some = client();
    EXPECT_EQ(some->openStream("/events").header("content-type"), "text/event-stream");
    ASSERT_TRUE(waitFor([&] { return stream != nullptr && stream->reads == 1; }));
    stream->put("id: 1\nevent: values\ndata: {}\n\n");
    EXPECT_EQ(some->nextEvent().name, "values");
    stream->put("id: 2\nevent: ages\ndata: {}\n\n");
    EXPECT_EQ(some->nextEvent().id, "2");
    stream->end();
    stream.reset();
    EXPECT_EQ(some->nextEvent().name, "");
    EXPECT_TRUE(waitFor([&] { return destroyed == 1; }));
    EXPECT_EQ(some->openStream("/events").status, 200);
}

const char kRest[] = " HTTP/1.1\r\nHost: localhost\r\n\r\n";

TEST_F(HttpServerTest, ClosesAConnectionWhoseHeadersComeByteByByte)
{
    const auto some = client();
    const QByteArray request = "GET /slow HTTP/1.1\r\nHost: localhost\r\nX: aaaaaaaaaaaaaaaaaaaa";
    int at = 0;
    for (; at < 40 && server().counters().connections + (at == 0 ? 1 : 0) > 0; ++at) {
        some->send(request.mid(at, 1));
        turnFor(120);
        clock.advance(std::chrono::seconds(1));
    }
    // A look at the time may come a little late: after the fifth second, long before the idle
    // limit.
    EXPECT_GE(at, 5);
    EXPECT_LE(at, 10);
    EXPECT_TRUE(some->seesTheEnd());
    EXPECT_EQ(server().counters().tooSlow, 1);
    EXPECT_TRUE(requests.isEmpty());
}

TEST_F(HttpServerTest, KeepsAConnectionWithoutARequestForTheIdleLimit)
{
    const auto some = client();
    ASSERT_TRUE(waitFor([&] { return server().counters().connections == 1; }));
    for (int i = 0; i < 3; ++i) {
        advance(std::chrono::seconds(29));
        EXPECT_EQ(some->get("/").status, 200);
    }
    advance(std::chrono::seconds(31));
    EXPECT_TRUE(some->seesTheEnd());
    EXPECT_EQ(server().counters().tooSlow, 0);
}

TEST_F(HttpServerTest, LimitsTheHeadersOfTheNextRequestToo)
{
    const auto some = client();
    EXPECT_EQ(some->get("/").status, 200);
    some->send("GET /second HT");
    advance(std::chrono::seconds(6));
    EXPECT_TRUE(some->seesTheEnd());
    EXPECT_EQ(server().counters().tooSlow, 1);
}

TEST_F(HttpServerTest, ClosesAConnectionWhoseBodyDoesNotCome)
{
    const auto some = client();
    some->send("PUT /x HTTP/1.1\r\nHost: localhost\r\nContent-Length: 100\r\n\r\n1");
    ASSERT_TRUE(waitFor([&] { return server().counters().requests == 1; }));
    advance(std::chrono::seconds(29));
    EXPECT_EQ(server().counters().connections, 1);
    advance(std::chrono::seconds(2));
    EXPECT_TRUE(some->seesTheEnd());
    EXPECT_EQ(server().counters().tooSlow, 1);
    EXPECT_TRUE(requests.isEmpty());
}

TEST_F(HttpServerTest, WaitsForItsOwnAnswerAsLongAsItTakes)
{
    QVector<HttpExchangePointer> waiting;
    handler = [&](const HttpExchangePointer& exchange) { waiting += exchange; };
    const auto some = client();
    some->send(QByteArray("GET /later") + kRest);
    ASSERT_TRUE(waitFor([&] { return waiting.size() == 1; }));
    advance(std::chrono::minutes(10));
    waiting[0]->answer(textResponse("at last"));
    EXPECT_EQ(some->receive().body, "at last");
}

TEST_F(HttpServerTest, DropsHalfARequestWhoseClientGoes)
{
    for (const char* const half :
         {"G", "GET / HTTP/1.1\r\nHo", "PUT / HTTP/1.1\r\nHost: a\r\nContent-Length: 9\r\n\r\nabc"})
    {
        const auto some = client();
        some->send(half);
        turnFor(5);
        some->close();
        EXPECT_TRUE(waitFor([&] { return server().counters().connections == 0; })) << half;
    }
    EXPECT_TRUE(requests.isEmpty());
    EXPECT_EQ(client()->get("/").status, 200);
}

TEST_F(HttpServerTest, AnswersRequestsThatComeAtOnceInTheirOrder)
{
    QVector<HttpExchangePointer> waiting;
    handler = [&](const HttpExchangePointer& exchange) {
        if (exchange->request().target == "/b")
            waiting += exchange;
        else
            exchange->answer(textResponse(exchange->request().target));
    };
    const auto some = client();
    some->send(QByteArray("GET /a") + kRest + "GET /b" + kRest + "GET /c" + kRest);
    EXPECT_EQ(some->receive().body, "/a");
    ASSERT_TRUE(waitFor([&] { return waiting.size() == 1; }));
    EXPECT_EQ(requests.size(), 2);
    waiting[0]->answer(textResponse("/b"));
    EXPECT_EQ(some->receive().body, "/b");
    EXPECT_EQ(some->receive().body, "/c");
}

TEST_F(HttpServerTest, EndsAConnectionAfterAThousandRequests)
{
    const auto some = client();
    HttpReply reply;
    int count = 0;
    do {
        reply = some->get("/");
        ++count;
    } while (reply.status == 200 && reply.header("connection") != "close" && count < 2000);
    EXPECT_EQ(count, 1000);
    EXPECT_TRUE(some->seesTheEnd());
}

TEST_F(HttpServerTest, TurnsAwayOneAddressThatTakesTooMany)
{
    auto sixteen = clients(16, "127.0.0.3");
    for (const auto& some : sixteen)
        EXPECT_EQ(some->get("/").status, 200);
    const HttpReply refused = client("127.0.0.3")->get("/");
    EXPECT_EQ(refused.status, 503);
    EXPECT_FALSE(refused.header("retry-after").isEmpty());
    EXPECT_EQ(client("127.0.0.4")->get("/").status, 200);
    EXPECT_EQ(server().counters().refused, 1);
    sixteen.pop_back();
    ASSERT_TRUE(waitFor([&] { return server().counters().connections == 15; }));
    EXPECT_EQ(client("127.0.0.3")->get("/").status, 200);
}

TEST_F(HttpServerTest, LetsAConfiguredProxyConnectMoreOften)
{
    settings.proxies = QStringList{QStringLiteral("127.0.0.9")};
    settings.mostConnections = 30;
    const auto all = clients(30, "127.0.0.9");
    for (const auto& some : all)
        EXPECT_EQ(some->get("/").status, 200);
    EXPECT_EQ(client("127.0.0.9")->get("/").status, 503);
}

TEST_F(HttpServerTest, ServesSoManyConnectionsOfAThousand)
{
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
    std::vector<std::unique_ptr<HttpClient>> all;
    for (int i = 0; i < 1000; ++i) {
        all.push_back(client("127.0.1." + QByteArray::number(i % 100 + 1)));
        ASSERT_TRUE(all.back()->isConnected());
    }
    int served = 0;
    for (const auto& some : all) {
        const HttpReply reply = some->get("/");
        EXPECT_TRUE(reply.status == 200 || reply.status == 503 || reply.status == 0);
        served += reply.status == 200 ? 1 : 0;
    }
    EXPECT_EQ(served, 128);
    EXPECT_EQ(server().counters().connections, 128);
    EXPECT_EQ(server().counters().accepted, 1000);
    EXPECT_EQ(server().counters().refused, 872);
    all.clear();
    ASSERT_TRUE(waitFor([&] { return server().counters().connections == 0; }));
    EXPECT_EQ(client()->get("/").status, 200);
}

QByteArray requestWith(const QByteArray& headers, const QByteArray& body = QByteArray())
{
    return "PUT /x HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n" + body;
}

TEST_F(HttpServerTest, RefusesHeadersThatAreTooLong)
{
    EXPECT_EQ(statusOf(requestWith("X: " + QByteArray(8000, 'x') + "\r\n")), 200);
    EXPECT_EQ(statusOf(requestWith("X: " + QByteArray(8300, 'x') + "\r\n")), 431);
    EXPECT_EQ(statusOf(requestWith("X: " + QByteArray(100000, 'x') + "\r\n")), 431);
    EXPECT_EQ(statusOf(requestWith(QByteArray("X: y\r\n").repeated(99))), 200);
    EXPECT_EQ(statusOf(requestWith(QByteArray("X: y\r\n").repeated(100))), 431);
    EXPECT_EQ(statusOf(requestWith(QByteArray("a:\r\n").repeated(20000))), 431);
    EXPECT_EQ(statusOf("GET /" + QByteArray(7900, 'a') + kRest), 200);
    const int status = statusOf("GET /" + QByteArray(8300, 'a') + kRest);
    EXPECT_TRUE(status == 414 || status == 431) << status;
    const int longer = statusOf("GET /" + QByteArray(100000, 'a') + kRest);
    EXPECT_TRUE(longer == 414 || longer == 431) << longer;
    EXPECT_EQ(requests.size(), 3);
}

QByteArray chunked(int chunk, int count)
{
    return (QByteArray::number(chunk, 16) + "\r\n" + QByteArray(chunk, 'c') + "\r\n")
               .repeated(count) +
           "0\r\n\r\n";
}

TEST_F(HttpServerTest, TakesBodiesInChunks)
{
    EXPECT_EQ(statusOf(requestWith("Transfer-Encoding: chunked\r\n",
                                   "5\r\nhello\r\n1;ext=1\r\n!\r\n0\r\nTrailer: x\r\n\r\n")),
              200);
    EXPECT_EQ(statusOf(requestWith("Transfer-Encoding: chunked\r\n", chunked(1024, 64))), 200);
    ASSERT_EQ(requests.size(), 2);
    EXPECT_EQ(requests[0].body, "hello!");
    EXPECT_EQ(requests[1].body.size(), 64 * 1024);
}

TEST_F(HttpServerTest, RefusesBodiesThatAreTooLong)
{
    EXPECT_EQ(statusOf(requestWith("Content-Length: 65537\r\n", QByteArray(65537, 'b'))), 413);
    EXPECT_EQ(statusOf(requestWith("Content-Length: 1000000\r\n", QByteArray(1000000, 'b'))), 413);
    EXPECT_EQ(statusOf(requestWith("Content-Length: 1000000\r\nExpect: 100-continue\r\n")), 413);
    EXPECT_EQ(statusOf(requestWith("Content-Length: 1099511627776\r\n")), 413);
    EXPECT_EQ(statusOf(requestWith("Transfer-Encoding: chunked\r\n", chunked(1024, 65))), 413);
    const auto endless = client();
    endless->send(requestWith("Transfer-Encoding: chunked\r\n", chunked(8192, 1000)));
    EXPECT_TRUE(endless->seesTheEnd());
    EXPECT_TRUE(requests.isEmpty());
}

TEST_F(HttpServerTest, GivesEveryMethodToItsHandler)
{
    for (const QByteArray method : {"GET", "HEAD", "POST", "PUT", "DELETE", "OPTIONS", "PATCH",
                                    "TRACE", "PROPFIND", "BREW", "get"})
    {
        const HttpReply reply = client()->request(method, "/m");
        EXPECT_EQ(reply.status, 200) << method.constData();
        EXPECT_EQ(reply.body, method == "HEAD" ? QByteArray() : method + " /m");
        ASSERT_FALSE(requests.isEmpty());
        EXPECT_EQ(requests.last().method, method);
    }
    EXPECT_EQ(client()->request("OPTIONS", "*").status, 200);
    EXPECT_EQ(client()->request("CONNECT", "plant.example:443").status, 400);
}

TEST_F(HttpServerTest, RefusesWhatIsNoRequest)
{
    using namespace std::string_literals;
    for (const std::string& text : {
             "\r\n\r\n\r\n\r\nHELLO\r\n\r\n"s,
             "GET\r\n\r\n"s,
             "GET /\r\n\r\n"s,
             "GET / HTTP/2.0\r\nHost: a\r\n\r\n"s,
             "GET / HTTP/0.9\r\nHost: a\r\n\r\n"s,
             "GET / HTTP/1.1x\r\nHost: a\r\n\r\n"s,
             "GET / http/1.1\r\nHost: a\r\n\r\n"s,
             "GET  HTTP/1.1\r\nHost: a\r\n\r\n"s,
             "GET a HTTP/1.1\r\nHost: a\r\n\r\n"s,
             "GET \\..\\x HTTP/1.1\r\nHost: a\r\n\r\n"s,
             "G\x01T / HTTP/1.1\r\nHost: a\r\n\r\n"s,
             "G(T / HTTP/1.1\r\nHost: a\r\n\r\n"s,
             "GET /\x7f HTTP/1.1\r\nHost: a\r\n\r\n"s,
             "GET /%0 HTTP/1.1\r\nHost: a\r\n\r\n"s,
             "GET /%zz HTTP/1.1\r\nHost: a\r\n\r\n"s,
             "GET /%00 HTTP/1.1\r\nHost: a\r\n\r\n"s,
             "GET /%ff HTTP/1.1\r\nHost: a\r\n\r\n"s,
             "GET /x?a=%c3 HTTP/1.1\r\nHost: a\r\n\r\n"s,
             "GET / HTTP/1.1\r\n\r\n"s,
             "GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n"s,
             "GET / HTTP/1.1\r\nHost: a\r\nno colon\r\n\r\n"s,
             "GET / HTTP/1.1\r\nHost: a\r\nna me: x\r\n\r\n"s,
             "GET / HTTP/1.1\r\nHost: a\r\nname : x\r\n\r\n"s,
             "GET / HTTP/1.1\r\nHost: a\r\nX\0: ab\r\n\r\n"s,
             "GET / HTTP/1.1\r\nHost: a\r\nX: a\x01\r\n\r\n"s,
             "GET / HTTP/1.1\r\nHost: a\r\nAuthorization: a\r\nAuthorization: b\r\n\r\n"s,
             "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n"s,
             "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"s,
         })
    {
        const auto some = client();
        some->send(QByteArray::fromStdString(text));
        some->endSending();
        const int status = some->receive().status;
        EXPECT_TRUE(status == 0 || status >= 400) << status << ": " << text;
        EXPECT_TRUE(requests.isEmpty()) << text;
        requests.clear();
    }
    EXPECT_EQ(client()->get("/").status, 200);
}

TEST_F(HttpServerTest, TakesWhatIsBeforeANulAndNoHeaderWithoutAName)
{
    const auto some = client();
    using namespace std::string_literals;
    some->send(
        QByteArray::fromStdString("GET /a\0b HTTP/1.1\r\nHost: a\r\nX: a\0b\r\n: y\r\n\r\n"s));
    EXPECT_EQ(some->receive().status, 200);
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].target, "/a");
    EXPECT_EQ(requests[0].header("x"), "a");
    EXPECT_EQ(requests[0].headers.size(), 2);
}

TEST_F(HttpServerTest, RefusesRequestsWhoseEndAnotherServerCouldSeeElsewhere)
{
    const QByteArray smuggled = QByteArray("GET /smuggled") + kRest;
    for (const QByteArray headers : {
             "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n",
             "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n",
             "Content-Length: 5\r\nContent-Length: 5\r\n",
             "Content-Length: 0\r\nContent-Length: 5\r\n",
             "Content-Length: 0, 5\r\n",
             "Content-Length: +5\r\n",
             "Content-Length: -1\r\n",
             "Content-Length: 0x5\r\n",
             "Content-Length: 5x\r\n",
             "Content-Length:\r\n",
             "Content-Length: 99999999999999999999999999\r\n",
             "Content-Length : 5\r\n",
             "Transfer-Encoding: identity\r\n",
             "Transfer-Encoding: xchunked\r\n",
             "Transfer-Encoding: chunked, gzip\r\n",
             "Transfer-Encoding: chunked\r\nTransfer-Encoding: identity\r\n",
             "Transfer-Encoding : chunked\r\n",
             "Transfer-Encoding:\vchunked\r\n",
         })
    {
        const auto some = client();
        some->send(requestWith(headers, "0\r\n\r\n" + smuggled + smuggled));
        const int status = some->receive().status;
        EXPECT_TRUE(status == 0 || (status >= 400 && status != 404)) << headers.constData();
        EXPECT_TRUE(some->seesTheEnd()) << headers.constData();
        EXPECT_TRUE(requests.isEmpty()) << headers.constData();
        requests.clear();
    }
}

TEST_F(HttpServerTest, DropsABodyOfBadChunks)
{
    for (const QByteArray body : {"x\r\n", "-1\r\n", "fffffffffffffffffffff\r\n", "5\r\nhelloX\r\n",
                                  "5 hello\r\n", "\r\n", "0x5\r\nhello\r\n0\r\n\r\n"})
    {
        const auto some = client();
        some->send(requestWith("Transfer-Encoding: chunked\r\n", body));
        some->endSending();
        const int status = some->receive().status;
        EXPECT_TRUE(status == 0 || status >= 400) << body.constData();
        EXPECT_TRUE(requests.isEmpty()) << body.constData();
        requests.clear();
    }
}

TEST_F(HttpServerTest, SpeaksTheOlderVersionToo)
{
    const auto some = client();
    some->send("GET /old HTTP/1.0\r\n\r\n");
    EXPECT_EQ(some->receive().body, "GET /old");
    EXPECT_TRUE(some->seesTheEnd());
    std::shared_ptr<Stream> stream;
    answerWith(stream, nullptr);
    const auto other = client();
    other->send("GET /events HTTP/1.0\r\n\r\n");
    ASSERT_TRUE(waitFor([&] { return stream != nullptr; }));
    stream->put("data: 1\n\n");
    stream->end();
    EXPECT_EQ(other->receive().body, "data: 1\n\n");
}

TEST_F(HttpServerTest, EndsAnAnswerWhoseClientGoes)
{
    handler = [](const HttpExchangePointer& exchange) {
        exchange->answer(textResponse(QByteArray(20 * 1024 * 1024, 'x')));
    };
    auto some = client();
    some->send(QByteArray("GET /large") + kRest);
    EXPECT_FALSE(some->receiveSome().isEmpty());
    some->reset();
    EXPECT_TRUE(waitFor([&] { return server().counters().connections == 0; }));
}

TEST_F(HttpServerTest, EndsAnAnswerThatIsNotRead)
{
    handler = [](const HttpExchangePointer& exchange) {
        exchange->answer(textResponse(QByteArray(20 * 1024 * 1024, 'x')));
    };
    const auto some = client();
    some->send(QByteArray("GET /large") + kRest);
    ASSERT_TRUE(waitFor([&] { return server().counters().requests == 1; }));
    advance(std::chrono::seconds(25));
    EXPECT_EQ(server().counters().connections, 1);
    advance(std::chrono::seconds(31));
    EXPECT_TRUE(waitFor([&] { return server().counters().connections == 0; }));
    EXPECT_EQ(server().counters().tooSlow, 1);
}

TEST_F(HttpServerTest, SendsALargeAnswerWhole)
{
    QByteArray large(5 * 1024 * 1024, '\0');
    std::iota(large.begin(), large.end(), '\0');
    handler = [&](const HttpExchangePointer& exchange) { exchange->answer(textResponse(large)); };
    const auto some = client();
    for (int i = 0; i < 2; ++i) {
        const HttpReply reply = some->get("/large");
        EXPECT_TRUE(reply.isWhole);
        EXPECT_TRUE(reply.body == large);
    }
}

TEST_F(HttpServerTest, KeepsTheConnectionAfterAnswersWithoutABody)
{
    int status = 304;
    std::shared_ptr<Stream> stream;
    int destroyed = 0;
    handler = [&](const HttpExchangePointer& exchange) {
        HttpResponse response;
        response.status = status;
        response.headers += HttpHeader{"ETag", "\"1\""};
        if (exchange->request().method == "HEAD")
            response.stream = std::make_shared<Stream>(&destroyed);
        exchange->answer(response);
    };
    const auto some = client();
    for (const int each : {304, 204, 200}) {
        status = each;
        const HttpReply reply = some->get("/");
        EXPECT_EQ(reply.status, each);
        EXPECT_EQ(reply.header("etag"), "\"1\"");
        EXPECT_EQ(reply.body, "");
    }
    const HttpReply head = some->request("HEAD", "/events");
    EXPECT_EQ(head.status, 200);
    EXPECT_FALSE(head.headers.contains("content-length")); // nobody knows it
    EXPECT_TRUE(waitFor([&] { return destroyed == 1; }));
    EXPECT_TRUE(some->seesTheEnd());
}

TEST_F(HttpServerTest, AnswersAClientThatHasEndedItsSide)
{
    const auto some = client();
    some->send(QByteArray("GET /one") + kRest + "GET /two" + kRest + "GET /ha");
    some->endSending();
    EXPECT_EQ(some->receive().body, "GET /one");
    EXPECT_EQ(some->receive().body, "GET /two");
    EXPECT_TRUE(some->seesTheEnd());
}

TEST_F(HttpServerTest, TurnsClientsAwayWhenThereAreNoDescriptorsLeft)
{
    EXPECT_EQ(client()->get("/").status, 200);
    ASSERT_TRUE(waitFor([&] { return server().counters().connections == 0; }));
    const auto all = clients(5, "127.0.0.3");
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const int highest = ::dup(0);
    ::close(highest);
    rlimit none = before;
    none.rlim_cur = static_cast<rlim_t>(highest);
    ::setrlimit(RLIMIT_NOFILE, &none);
    for (const auto& some : all)
        EXPECT_TRUE(some->seesTheEnd());
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(server().counters().accepted, 1);
    EXPECT_EQ(client()->get("/").status, 200);
}

TEST_F(HttpServerTest, TellsThatNobodyWaitsAnyMore)
{
    QVector<HttpExchangePointer> waiting;
    handler = [&](const HttpExchangePointer& exchange) { waiting += exchange; };
    auto some = client();
    some->send(QByteArray("GET /later") + kRest);
    ASSERT_TRUE(waitFor([&] { return waiting.size() == 1; }));
    some->close();
    EXPECT_TRUE(waitFor([&] { return !waiting[0]->isWanted(); }));
    waiting[0]->answer(textResponse("for nobody"));
    EXPECT_TRUE(waitFor([&] { return server().counters().connections == 0; }));
}

// Counts how often the server looks for work while nobody asks for anything: without an end, each
// of these peers would cost a whole processor.
TEST_F(HttpServerTest, RestsWhateverAPeerLeavesBehind)
{
    settings.mostPerAddress = 100;
    std::vector<std::shared_ptr<Stream>> streams;
    QVector<HttpExchangePointer> waiting;
    handler = [&](const HttpExchangePointer& exchange) {
        HttpResponse response = textResponse(QByteArray(4 * 1024 * 1024, 'x'));
        if (exchange->request().target == "/later") {
            waiting += exchange;
            return;
        }
        if (exchange->request().target == "/") {
            response.body = "short";
        } else if (exchange->request().target == "/stream") {
            streams.push_back(std::make_shared<Stream>());
            response.stream = streams.back();
        }
        exchange->answer(response);
    };
    const QByteArray plain = QByteArray("GET /") + kRest;
    const QByteArray sent[] = {"",
                               "GET",
                               "GET / HTTP/1.1\r\nHos",
                               plain,
                               plain + "GET",
                               plain + plain,
                               QByteArray("GET /later") + kRest,
                               QByteArray("GET /stream") + kRest,
                               QByteArray("GET /stream") + kRest + plain,
                               QByteArray("GET /large") + kRest,
                               "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 9\r\n\r\nhalf"};
    const std::pair<const char*, void (HttpClient::*)()> ends[] = {
        {"stays", nullptr},
        {"ends its side", &HttpClient::endSending},
        {"closes", &HttpClient::close},
        {"breaks off", &HttpClient::reset}};
    for (const QByteArray& bytes : sent) {
        for (const auto& [what, end] : ends) {
            for (const bool isAtOnce : {false, true}) {
                const auto peer = client();
                peer->get("/"); // a connection that is kept
                peer->send(bytes);
                if (!isAtOnce)
                    turnFor(8);
                if (end != nullptr)
                    ((*peer).*end)();
                turnFor(8);
                for (const HttpExchangePointer& exchange : std::exchange(waiting, {}))
                    exchange->answer(textResponse("later"));
                turnFor(8);
                const qint64 before = server().counters().turns;
                turnFor(40);
                EXPECT_LT(server().counters().turns - before, 20)
                    << bytes.toStdString() << ' ' << what << ' ' << isAtOnce;
            }
        }
    }
    EXPECT_TRUE(waitFor([&] { return server().counters().connections == 0; }))
        << server().counters().connections;
}

TEST_F(HttpServerTest, EndsAStreamWhoseClientGoes)
{
    std::shared_ptr<Stream> stream;
    int destroyed = 0;
    answerWith(stream, &destroyed);
    for (const bool isReset : {false, true}) {
        const auto some = client();
        EXPECT_EQ(some->openStream("/events").status, 200);
        stream.reset();
        isReset ? some->reset() : some->close();
        EXPECT_TRUE(waitFor([&] { return destroyed == (isReset ? 2 : 1); }));
    }
    EXPECT_TRUE(waitFor([&] { return server().counters().connections == 0; }));
}

/// Always has something.
class EndlessStream : public HttpStream
{
public:
    explicit EndlessStream(qint64& bytes) : m_bytes(bytes) {}
    int read(char* bytes, int size) override
    {
        std::fill_n(bytes, size, 'e');
        m_bytes += size;
        return size;
    }

private:
    qint64& m_bytes;
};

TEST_F(HttpServerTest, EndsAStreamThatIsNotRead)
{
    qint64 bytes = 0;
    handler = [&](const HttpExchangePointer& exchange) {
        HttpResponse response;
        response.stream = std::make_shared<EndlessStream>(bytes);
        exchange->answer(response);
    };
    const auto some = client();
    some->send(QByteArray("GET /events") + kRest);
    ASSERT_TRUE(waitFor([&] { return bytes > 0; }));
    turnFor(100);
    // What the buffers of the system take, not more.
    EXPECT_LT(bytes, 32 * 1024 * 1024);
    EXPECT_EQ(server().counters().connections, 1);
    advance(std::chrono::seconds(31));
    EXPECT_TRUE(waitFor([&] { return server().counters().connections == 0; }));
    EXPECT_EQ(server().counters().tooSlow, 1);
}

TEST_F(HttpServerTest, KeepsAStreamThatIsReadForDays)
{
    std::shared_ptr<Stream> stream;
    answerWith(stream, nullptr);
    const auto some = client();
    EXPECT_EQ(some->openStream("/events").status, 200);
    for (int i = 0; i < 2; ++i) {
        advance(std::chrono::hours(24));
        stream->put("event: values\ndata: 1\n\n");
        EXPECT_EQ(some->nextEvent().name, "values");
    }
}

TEST_F(HttpServerTest, GoesWithRequestsAndStreamsInWork)
{
    QVector<HttpExchangePointer> waiting;
    int destroyed = 0;
    handler = [&](const HttpExchangePointer& exchange) {
        if (exchange->request().target != "/events") {
            waiting += exchange;
            return;
        }
        HttpResponse response;
        response.stream = std::make_shared<Stream>(&destroyed);
        exchange->answer(response);
    };
    const auto first = client();
    const auto second = client();
    const auto third = client();
    EXPECT_EQ(first->openStream("/events").status, 200);
    second->send(QByteArray("GET /later") + kRest);
    third->send("GET /ha");
    ASSERT_TRUE(waitFor([&] { return waiting.size() == 1; }));
    stop();
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(waiting[0]->isWanted());
    waiting[0]->answer(textResponse("too late"));
    for (HttpClient* const some : {first.get(), second.get(), third.get()})
        EXPECT_TRUE(some->seesTheEnd());
}

TEST_F(HttpServerTest, AnswersWhatIsInWorkWhenItRetires)
{
    HttpExchangePointer waiting;
    handler = [&](const HttpExchangePointer& exchange) { waiting = exchange; };
    const auto idle = client();
    const auto busy = client();
    const auto half = client();
    half->send("GET /ha");
    busy->send(QByteArray("GET /later") + kRest);
    ASSERT_TRUE(waitFor([&] { return waiting != nullptr; }));
    HttpSettings same = settings;
    same.port = server().port();
    server().retire();
    EXPECT_TRUE(idle->seesTheEnd());
    EXPECT_TRUE(half->seesTheEnd());
    const HttpServer next(same, clock, [](const HttpExchangePointer& exchange) {
        exchange->answer(textResponse("next"));
    });
    EXPECT_EQ(HttpClient(same.port, turnLoop).get("/").body, "next");
    EXPECT_TRUE(waiting->isWanted());
    EXPECT_FALSE(server().isOver());
    waiting->answer(textResponse("in time"));
    const HttpReply reply = busy->receive();
    EXPECT_EQ(reply.body, "in time");
    EXPECT_EQ(reply.header("connection").toLower(), "close");
    EXPECT_TRUE(busy->seesTheEnd());
    EXPECT_TRUE(waitFor([&] { return server().isOver(); }));
}

TEST_F(HttpServerTest, SendsWhatIsAnsweredBeforeItGoes)
{
    HttpExchangePointer waiting;
    handler = [&](const HttpExchangePointer& exchange) { waiting = exchange; };
    const auto some = client();
    some->send(QByteArray("GET /later") + kRest);
    ASSERT_TRUE(waitFor([&] { return waiting != nullptr; }));
    waiting->answer(textResponse("at the end"));
    stop();
    const HttpReply reply = some->receive();
    EXPECT_EQ(reply.body, "at the end");
    EXPECT_TRUE(reply.isWhole);
}

TEST_F(HttpServerTest, TakesOtherLimitsWhileItRuns)
{
    settings.mostConnections = 2;
    const auto first = client();
    EXPECT_EQ(first->get("/").status, 200);
    settings.mostConnections = 1;
    server().change(settings);
    EXPECT_EQ(client()->get("/").status, 503);
    EXPECT_EQ(first->get("/").status, 200); // it is kept
    settings.mostConnections = 300;
    settings.mostPerAddress = 300;
    server().change(settings);
    for (const auto& some : clients(200, "127.0.0.9"))
        EXPECT_EQ(some->get("/").status, 200);
    HttpSettings bad = settings;
    bad.proxies = QStringList{QStringLiteral("proxy")};
    EXPECT_THROW(server().change(bad), UserError);
    EXPECT_EQ(first->get("/").status, 200);
}

TEST_F(HttpServerTest, TakesItsPortAgainAfterARestart)
{
    const auto some = client();
    EXPECT_EQ(some->get("/").status, 200);
    settings.port = server().port();
    stop();
    EXPECT_EQ(server().port(), settings.port);
    EXPECT_EQ(client()->get("/").status, 200);
}

std::string complaintOf(const HttpSettings& settings)
{
    const VirtualClock clock;
    try {
        const HttpServer server(settings, clock, [](const HttpExchangePointer&) {});
    } catch (const UserError& error) {
        return error.what();
    }
    return "none";
}

TEST_F(HttpServerTest, TellsWhyItCannotListen)
{
    HttpSettings some;
    some.port = server().port();
    EXPECT_EQ(complaintOf(some), "web: address 127.0.0.1 port " + std::to_string(some.port) +
                                     ": another program listens there (end it, or give another "
                                     "\"port\")");
    some.port = 0;
    some.address = QStringLiteral("192.0.2.1");
    EXPECT_EQ(complaintOf(some), "web: address 192.0.2.1 port 0: this machine does not have this "
                                 "address (check \"address\")");
    for (const char* const address : {"localhost", "127.1", "", "1.2.3", "::g", "0x7f000001"}) {
        some.address = QLatin1String(address);
        EXPECT_EQ(complaintOf(some),
                  "web.address: " + std::string(address) +
                      " is no IPv4 or IPv6 address (give one of this machine, or 127.0.0.1)");
    }
    some.address = QStringLiteral("127.0.0.1");
    some.proxies = QStringList{QStringLiteral("proxy")};
    EXPECT_EQ(complaintOf(some), "web.proxies: proxy is no IPv4 or IPv6 address");
}

TEST_F(HttpServerTest, ListensOnTheNewerProtocol)
{
    settings.address = QStringLiteral("::1");
    EXPECT_EQ(HttpClient(server().port(), turnLoop, "::1").get("/").status, 200);
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].address, "::1");
    EXPECT_TRUE(requests[0].isLoopback);
}

TEST_F(HttpServerTest, KnowsAnOldAddressOnASocketOfBothProtocols)
{
    settings.address = QStringLiteral("::");
    EXPECT_EQ(client("127.0.0.5")->get("/").status, 200);
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].address, "127.0.0.5");
    EXPECT_TRUE(requests[0].isLoopback);
}

TEST_F(HttpServerTest, GoesOnWhenItsHandlerFails)
{
    handler = [](const HttpExchangePointer&) { throw std::runtime_error("secret reason"); };
    const HttpReply reply = client()->get("/");
    EXPECT_EQ(reply.status, 500);
    EXPECT_FALSE(reply.body.contains("secret"));
}

TEST_F(HttpServerTest, SendsNoHeaderThatEndsALine)
{
    for (const QByteArray value : {"/a\r\nSet-Cookie: x", "/a\nb", "/a\rb"}) {
        handler = [&](const HttpExchangePointer& exchange) {
            HttpResponse response = textResponse("body");
            response.headers += {"Location", value};
            exchange->answer(response);
        };
        const HttpReply reply = client()->get("/");
        EXPECT_EQ(reply.status, 500);
        EXPECT_FALSE(reply.headers.contains("set-cookie"));
    }
}

TEST_F(HttpServerTest, KnowsWhoAsksThroughAProxy)
{
    struct Case
    {
        const char* from;
        const char* forwarded;
        const char* address;
        bool isLoopback;
    };
    settings.proxies = QStringList{QStringLiteral("127.0.0.9"), QStringLiteral("::ffff:127.0.0.8")};
    for (const Case& some : std::initializer_list<Case>{
             {"127.0.0.2", "10.0.0.5", "127.0.0.2", true}, // no proxy: it can tell what it likes
             {"127.0.0.9", "10.0.0.5", "10.0.0.5", false},
             {"127.0.0.9", "127.0.0.1, 10.0.0.5", "10.0.0.5", false},
             {"127.0.0.9", "10.0.0.5, 127.0.0.8", "10.0.0.5", false},
             {"127.0.0.8", "10.0.0.6,10.0.0.5,127.0.0.9", "10.0.0.5", false},
             {"127.0.0.9", "::FFFF:10.0.0.5", "10.0.0.5", false},
             {"127.0.0.9", "2001:DB8:0::1", "2001:db8::1", false},
             {"127.0.0.9", "127.0.0.1", "127.0.0.1", true},
             {"127.0.0.9", "", "127.0.0.9", false},
             {"127.0.0.9", "unknown", "127.0.0.9", false},
             {"127.0.0.9", "127.0.0.1, <script>", "127.0.0.9", false},
         })
    {
        requests.clear();
        client(some.from)->get(
            "/", {{"X-Forwarded-For", some.forwarded}, {"X-Forwarded-Proto", "https"}});
        ASSERT_EQ(requests.size(), 1);
        EXPECT_EQ(requests[0].address, some.address) << some.from << ' ' << some.forwarded;
        EXPECT_EQ(requests[0].isLoopback, some.isLoopback) << some.from << ' ' << some.forwarded;
        EXPECT_EQ(requests[0].isEncrypted, QByteArray(some.from) != "127.0.0.2");
    }
}

TEST_F(HttpServerTest, TakesTheHostOfATargetThatHasOne)
{
    EXPECT_EQ(client()->get("http://evil.example/api/v1/values?x=1").body, "GET /api/v1/values");
    EXPECT_EQ(requests[0].header("host"), "evil.example");
    EXPECT_EQ(requests[0].queryText("x"), "1");
    EXPECT_EQ(client()->get("HTTPS://plant:8850").body, "GET /");
    EXPECT_EQ(requests[1].header("host"), "plant:8850");
}

TEST_F(HttpServerTest, JoinsHeadersOfOneName)
{
    client()->get("/", {{"X-Some", "a"},
                        {"x-some", "b"},
                        {"Cookie", "a=1; b=2"},
                        {"Cookie", "c=3"},
                        {"Cookie", "b=4"}});
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].header("x-some"), "a, b");
    EXPECT_EQ(requests[0].cookie("a"), "1");
    EXPECT_EQ(requests[0].cookie("c"), "3");
    EXPECT_EQ(requests[0].cookie("b"), "");
    EXPECT_EQ(requests[0].cookie("d"), "");
}

/// What openssl's client receives for a request, and what it says of the connection.
QByteArray throughTls(int port, const std::string& authority, const QByteArray& request,
                      const QStringList& more = {})
{
    QProcess client;
    client.setProcessChannelMode(QProcess::MergedChannels);
    client.start(QStringLiteral("openssl"),
                 QStringList{QStringLiteral("s_client"), QStringLiteral("-connect"),
                             QStringLiteral("127.0.0.1:%1").arg(port), QStringLiteral("-CAfile"),
                             QString::fromStdString(authority), QStringLiteral("-verify_ip"),
                             QStringLiteral("127.0.0.1"), QStringLiteral("-verify_return_error"),
                             QStringLiteral("-ign_eof")} +
                     more);
    client.write(request);
    EXPECT_TRUE(waitFor([&] { return client.state() == QProcess::NotRunning; }));
    return client.readAll();
}

class EncryptedHttpServerTest : public HttpServerTest
{
protected:
    EncryptedHttpServerTest()
    {
        certificates.make("plant");
        certificates.make("other");
        settings.certificateFile = path("plant.pem");
        settings.keyFile = path("plant.key");
        ::chmod(certificates.path("plant.key").c_str(), 0600);
        ::chmod(certificates.path("other.key").c_str(), 0600);
    }
    QString path(const std::string& name) const
    {
        return QString::fromStdString(certificates.path(name));
    }

    Certificates certificates;
};

TEST_F(EncryptedHttpServerTest, AnswersARequest)
{
    const QByteArray said =
        throughTls(server().port(), certificates.authority(),
                   "GET /secret HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n");
    EXPECT_TRUE(said.contains("Verify return code: 0 (ok)")) << said.constData();
    EXPECT_TRUE(said.contains("HTTP/1.1 200 OK")) << said.constData();
    EXPECT_TRUE(said.contains("GET /secret")) << said.constData();
    ASSERT_EQ(requests.size(), 1);
    EXPECT_TRUE(requests[0].isEncrypted);
}

TEST_F(EncryptedHttpServerTest, RefusesOldVersions)
{
    const QByteArray said = throughTls(
        server().port(), certificates.authority(), "GET / HTTP/1.1\r\n\r\n",
        {QStringLiteral("-tls1_1"), QStringLiteral("-cipher"), QStringLiteral("ALL:@SECLEVEL=0")});
    EXPECT_FALSE(said.contains("HTTP/1.1 200")) << said.constData();
    EXPECT_TRUE(requests.isEmpty());
}

TEST_F(EncryptedHttpServerTest, StreamsWhatComes)
{
    std::shared_ptr<Stream> stream;
    handler = [&](const HttpExchangePointer& exchange) {
        HttpResponse response;
        stream = std::make_shared<Stream>();
        response.stream = stream;
        exchange->answer(response);
        QTimer::singleShot(50, [&] { stream->put("data: first\n\n"); });
        QTimer::singleShot(100, [&] {
            stream->put("data: second\n\n");
            stream->end();
        });
    };
    const QByteArray said =
        throughTls(server().port(), certificates.authority(),
                   "GET /events HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n");
    EXPECT_TRUE(said.contains("data: first")) << said.constData();
    EXPECT_TRUE(said.contains("data: second")) << said.constData();
}

TEST_F(EncryptedHttpServerTest, EndsAHandshakeThatDoesNotGoOn)
{
    const auto some = client();
    some->send(QByteArray("\x16\x03\x01\x02\x00\x01", 6));
    const auto plain = client();
    EXPECT_EQ(plain->get("/").status, 0);
    advance(std::chrono::seconds(6));
    EXPECT_TRUE(some->seesTheEnd());
    EXPECT_EQ(server().counters().tooSlow, 1);
    EXPECT_TRUE(requests.isEmpty());
}

TEST_F(EncryptedHttpServerTest, RefusesFilesThatDoNotFit)
{
    settings.port = 0;
    const std::string certificate = settings.certificateFile.toStdString();
    const std::string key = settings.keyFile.toStdString();
    EXPECT_EQ(complaintOf(settings), "none");
    HttpSettings some = settings;
    some.keyFile = path("other.key");
    EXPECT_EQ(complaintOf(some), "web.key: " + certificates.path("other.key") +
                                     ": it is not the key of the certificate " + certificate);
    some.keyFile.clear();
    EXPECT_EQ(complaintOf(some), "web.key: it is missing (a certificate needs its private key)");
    some.keyFile = path("plant.pem");
    EXPECT_EQ(complaintOf(some).substr(0, 8), "web.key:");
    some.keyFile = path("none.key");
    EXPECT_EQ(complaintOf(some),
              "web.key: " + certificates.path("none.key") + ": there is no such file");
    some = settings;
    some.certificateFile = path("plant.key");
    EXPECT_EQ(complaintOf(some),
              "web.certificate: " + key + ": it has no certificate in the format PEM");
    some.certificateFile = path("");
    EXPECT_EQ(complaintOf(some), "web.certificate: " + certificates.path("") + ": it is a folder");
    ::chmod(key.c_str(), 0644);
    EXPECT_EQ(complaintOf(settings),
              "web.key: " + key + ": others may read it: chmod o= makes it private");
}

TEST_F(EncryptedHttpServerTest, RefusesAKeyWithAPassPhrase)
{
    certificates.encryptKey("plant");
    ::chmod(certificates.path("plant.key").c_str(), 0600);
    EXPECT_EQ(complaintOf(settings),
              "web.key: " + certificates.path("plant.key") +
                  ": it has a pass phrase, which nobody could enter: give a key without");
}

#ifndef __SANITIZE_ADDRESS__
/// Resident bytes of this process.
qint64 residentBytes()
{
    std::ifstream file("/proc/self/statm");
    qint64 pages = 0;
    file >> pages >> pages;
    return pages * ::sysconf(_SC_PAGESIZE);
}

TEST_F(HttpServerTest, NeedsLessThanTenMegabytesForAllConnections)
{
    EXPECT_EQ(client()->get("/").status, 200);
    QVector<HttpExchangePointer> waiting;
    handler = [&](const HttpExchangePointer& exchange) { waiting += exchange; };
    requests.reserve(200);
    const qint64 before = residentBytes();
    std::vector<std::unique_ptr<HttpClient>> all;
    for (int i = 0; i < 128; ++i) {
        all.push_back(client("127.0.2." + QByteArray::number(i / 16 + 1)));
        const QByteArray headers = QByteArray("a: bcdefghijk\r\n").repeated(90);
        if (i % 2 == 0)
            all.back()->send("GET /" + QByteArray("a/").repeated(15) + '?' +
                             QByteArray("k=v&").repeated(99) + " HTTP/1.1\r\nHost: a\r\n" +
                             headers + "\r\n");
        else
            all.back()->send(
                requestWith(headers + "Content-Length: 65536\r\n", QByteArray(65535, 'b')));
    }
    ASSERT_TRUE(waitFor([&] { return waiting.size() == 64; }));
    turnFor(100);
    EXPECT_EQ(server().counters().connections, 128);
    EXPECT_LT(residentBytes() - before, 10 * 1024 * 1024);
}

TEST_F(HttpServerTest, BoundsTheMemoryOfAnswersThatNobodyReads)
{
    EXPECT_EQ(client()->get("/").status, 200);
    const int kSize = 6 * 1024 * 1024; // more than the system takes
    const QByteArray shared(kSize, 's');
    handler = [&](const HttpExchangePointer& exchange) {
        HttpResponse response = textResponse(QByteArray());
        response.isBodyKept = exchange->request().target == "/shared";
        response.body = response.isBodyKept ? shared : QByteArray(kSize, 'b');
        exchange->answer(response);
    };
    requests.reserve(200);
    const qint64 before = residentBytes();
    std::vector<std::unique_ptr<HttpClient>> all;
    for (int i = 0; i < 120; ++i) {
        all.push_back(client("127.0.3." + QByteArray::number(i / 16 + 1)));
        all.back()->limitReceiving(4096);
        const QByteArray target = i % 2 == 0 ? "/own" : "/shared";
        all.back()->send("GET " + target + " HTTP/1.1\r\nHost: a\r\n\r\n");
    }
    ASSERT_TRUE(waitFor([&] { return requests.size() == 121; }));
    turnFor(100);
    const qint64 refused = server().counters().responses[503];
    EXPECT_GT(refused, 30);
    EXPECT_LT(refused, 60);                         // what all share takes no memory
    EXPECT_LT(residentBytes() - before, 3 * kSize); // one waits, and one was being made
    all.clear();
    ASSERT_TRUE(waitFor([&] { return server().counters().connections == 0; }));
    EXPECT_EQ(client()->get("/own").body.size(), kSize);
}
#endif

} // namespace
