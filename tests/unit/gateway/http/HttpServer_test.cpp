#include "HttpServer.h"

#include "http_client.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>

#include <gtest/gtest.h>

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

} // namespace
