// A client of the web server: any bytes, through the real library and a real connection. What the
// handler gets is a request within all limits, what comes back are responses, and nothing is left
// when the client is gone.
//
// The input is a byte, the length of the pieces in which the rest is sent.

#include "HttpServer.h"
#include "HttpText.h"
#include "PeerAddress.h"
#include "fuzz_check.h"

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace micro850;
using namespace micro850::gateway;

const int kMostBody = 256;

/// Answers at once, later, or in pieces, as the length of the request says.
class World
{
public:
    World()
        : m_server(settings(), m_clock,
                   [this](const HttpExchangePointer& exchange) { handle(exchange); })
    {
    }

    void feed(const QByteArray& bytes, int piece)
    {
        const int client = connectTo(m_server.port());
        QByteArray sent;
        for (int at = 0; at < bytes.size(); at += piece) {
            const auto size = static_cast<std::size_t>(std::min(piece, bytes.size() - at));
            ::send(client, bytes.constData() + at, size, MSG_NOSIGNAL | MSG_DONTWAIT);
            turn(client, sent);
        }
        turn(client, sent);
        checkResponses(sent);
        const linger atOnce = {1, 0};
        ::setsockopt(client, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        ::close(client);
        m_waiting.clear();
        for (int i = 0; i < 1000 && m_server.counters().connections > 0; ++i)
            QCoreApplication::processEvents();
        FUZZ_CHECK(m_server.counters().connections == 0);
        FUZZ_CHECK(m_streams == 0);
    }

private:
    class Stream : public HttpStream
    {
    public:
        explicit Stream(int& count) : m_count(count) { ++m_count; }
        ~Stream() override { --m_count; }
        Stream(const Stream&) = delete;
        Stream& operator=(const Stream&) = delete;
        int read(char* bytes, int size) override
        {
            if (m_sent == 3)
                return -1;
            bytes[0] = 's';
            FUZZ_CHECK(size > 0);
            return m_sent++ == 1 ? 0 : 1;
        }

    private:
        int& m_count;
        int m_sent = 0;
    };

    static HttpSettings settings()
    {
        HttpSettings some;
        some.port = 0;
        some.mostBodyBytes = kMostBody;
        some.mostHeaderBytes = 512;
        some.proxies = QStringList{QStringLiteral("127.0.0.1")};
        return some;
    }
    static int connectTo(int port)
    {
        const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        FUZZ_CHECK(::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);
        return client;
    }
    void handle(const HttpExchangePointer& exchange)
    {
        const HttpRequest& request = exchange->request();
        FUZZ_CHECK(isHttpToken(request.method));
        FUZZ_CHECK(request.target.startsWith('/') || request.target == "*");
        FUZZ_CHECK(!request.target.contains('?') && isHeaderValue(request.target));
        FUZZ_CHECK(request.path.size() <= 16 && request.headers.size() <= 100);
        FUZZ_CHECK(request.body.size() <= kMostBody);
        int bytes = 0;
        for (auto it = request.headers.begin(); it != request.headers.end(); ++it) {
            FUZZ_CHECK(isHttpToken(it.key()) && it.key() == it.key().toLower());
            FUZZ_CHECK(isHeaderValue(it.value()));
            bytes += it.key().size() + it.value().size();
        }
        FUZZ_CHECK(bytes <= 2 * 512);
        FUZZ_CHECK(!request.headers.contains("content-length") ||
                   !request.headers.contains("transfer-encoding"));
        FUZZ_CHECK(!request.isLoopback || isLoopbackAddress(request.address));
        HttpResponse response;
        response.type = "text/plain";
        response.body = request.target;
        response.headers += {"X-Body", QByteArray::number(request.body.size())};
        if (request.target.size() % 4 == 1)
            response.stream = std::make_shared<Stream>(m_streams);
        m_waiting.append({exchange, response});
        if (request.target.size() % 4 != 2)
            m_waiting.takeLast().first->answer(response);
    }
    /// Until nothing happens any more.
    void turn(int client, QByteArray& sent)
    {
        for (int quiet = 0; quiet < 3; ++quiet) {
            const qint64 before = m_server.counters().requests;
            QCoreApplication::processEvents();
            while (!m_waiting.isEmpty()) {
                const auto next = m_waiting.takeFirst();
                next.first->answer(next.second);
                quiet = 0;
            }
            std::array<char, 4096> buffer;
            const ssize_t got = ::recv(client, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (got > 0)
                sent.append(buffer.data(), static_cast<int>(got));
            if (got > 0 || m_server.counters().requests != before)
                quiet = 0;
        }
    }
    static void checkResponses(const QByteArray& sent)
    {
        FUZZ_CHECK(sent.isEmpty() || sent.startsWith("HTTP/1."));
        const int status = sent.mid(9, 3).toInt();
        FUZZ_CHECK(sent.size() < 12 || (status >= 100 && status < 600));
    }

    VirtualClock m_clock;
    QList<std::pair<HttpExchangePointer, HttpResponse>> m_waiting;
    int m_streams = 0;
    HttpServer m_server;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    static int count = 1;
    static char name[] = "http";
    static char* arguments[] = {name, nullptr};
    static const QCoreApplication application(count, arguments);
    static World world;
    const QByteArray input(reinterpret_cast<const char*>(bytes), static_cast<int>(size));
    if (!input.isEmpty())
        world.feed(input.mid(1), std::max<int>(1, static_cast<unsigned char>(input.at(0))));
    return 0;
}
