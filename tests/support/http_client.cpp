#include "http_client.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const auto kPatience = std::chrono::seconds(30);

socklen_t fillAddress(sockaddr_storage& address, const QByteArray& text, int port)
{
    if (text.contains(':')) {
        auto& ipv6 = reinterpret_cast<sockaddr_in6&>(address);
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_port = htons(static_cast<quint16>(port));
        ::inet_pton(AF_INET6, text.constData(), &ipv6.sin6_addr);
        return sizeof ipv6;
    }
    auto& ipv4 = reinterpret_cast<sockaddr_in&>(address);
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(static_cast<quint16>(port));
    ::inet_pton(AF_INET, text.constData(), &ipv4.sin_addr);
    return sizeof ipv4;
}

} // namespace

HttpClient::HttpClient(int port, Turn turn, const QByteArray& address, const QByteArray& from)
    : m_turn(std::move(turn))
{
    const int family = address.contains(':') ? AF_INET6 : AF_INET;
    m_socket = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_storage own{};
    if (!from.isEmpty())
        ::bind(m_socket, reinterpret_cast<sockaddr*>(&own), fillAddress(own, from, 0));
    sockaddr_storage peer{};
    const socklen_t size = fillAddress(peer, address, port);
    // The system itself connects to a port that listens: no turn of the loop is needed.
    if (::connect(m_socket, reinterpret_cast<sockaddr*>(&peer), size) != 0)
        close();
}

HttpClient::~HttpClient()
{
    close();
}

void HttpClient::limitReceiving(int bytes)
{
    ::setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

bool HttpClient::send(const QByteArray& bytes)
{
    const auto end = std::chrono::steady_clock::now() + kPatience;
    int at = 0;
    while (at < bytes.size() && std::chrono::steady_clock::now() < end) {
        const ssize_t sent =
            ::send(m_socket, bytes.constData() + at, static_cast<std::size_t>(bytes.size() - at),
                   MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno != EAGAIN)
            return false;
        at += sent > 0 ? static_cast<int>(sent) : 0;
        if (m_turn)
            m_turn();
        pollfd output = {m_socket, POLLOUT, 0};
        if (sent < 0)
            ::poll(&output, 1, 5);
    }
    return at == bytes.size();
}

bool HttpClient::fill()
{
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (m_socket >= 0 && std::chrono::steady_clock::now() < end) {
        if (m_turn)
            m_turn();
        pollfd input = {m_socket, POLLIN, 0};
        if (::poll(&input, 1, m_turn ? 1 : 100) != 1)
            continue;
        std::array<char, 65536> buffer;
        const ssize_t got = ::recv(m_socket, buffer.data(), buffer.size(), 0);
        if (got <= 0)
            return false;
        m_bytes.append(buffer.data(), static_cast<int>(got));
        return true;
    }
    if (m_socket >= 0)
        ADD_FAILURE() << "nothing came from the server within 30 s";
    return false;
}

bool HttpClient::takeHead(HttpReply& reply)
{
    int end = m_bytes.indexOf("\r\n\r\n");
    while (end < 0) {
        if (!fill())
            return false;
        end = m_bytes.indexOf("\r\n\r\n");
    }
    reply.head = m_bytes.left(end);
    m_bytes.remove(0, end + 4);
    QList<QByteArray> lines = reply.head.split('\n');
    reply.status = lines.takeFirst().split(' ').value(1).toInt();
    for (const QByteArray& line : lines) {
        const int colon = line.indexOf(':');
        QByteArray& value = reply.headers[line.left(colon).toLower()];
        value += (value.isEmpty() ? "" : ", ") + line.mid(colon + 1).trimmed();
    }
    return true;
}

bool HttpClient::takeChunk(QByteArray& body)
{
    QByteArray line;
    if (!takeLine(m_bytes, line, false))
        return false;
    const int size = line.trimmed().toInt(nullptr, 16);
    while (m_bytes.size() < size + 2) {
        if (!fill())
            return false;
    }
    body += m_bytes.left(size);
    m_bytes.remove(0, size + 2);
    return size > 0;
}

void HttpClient::takeBody(HttpReply& reply)
{
    if (reply.header("transfer-encoding") == "chunked") {
        while (takeChunk(reply.body)) {
        }
        reply.isWhole = m_socket >= 0;
        return;
    }
    const bool hasLength = reply.headers.contains("content-length");
    const int length = reply.header("content-length").toInt();
    while ((!hasLength || m_bytes.size() < length) && fill()) {
    }
    reply.isWhole = !hasLength || m_bytes.size() >= length;
    reply.body = hasLength ? m_bytes.left(length) : m_bytes;
    m_bytes.remove(0, reply.body.size());
}

HttpReply HttpClient::receive(bool isHead)
{
    HttpReply reply;
    do {
        reply = HttpReply();
        if (!takeHead(reply))
            return HttpReply();
    } while (reply.status == 100);
    if (isHead || reply.status == 204 || reply.status == 304)
        reply.isWhole = true;
    else
        takeBody(reply);
    return reply;
}

HttpReply HttpClient::request(const QByteArray& method, const QByteArray& target,
                              const Headers& headers, const QByteArray& body)
{
    QByteArray bytes = method + ' ' + target + " HTTP/1.1\r\n";
    bool hasHost = false;
    for (const auto& [name, value] : headers) {
        bytes += name + ": " + value + "\r\n";
        hasHost = hasHost || name.toLower() == "host";
    }
    if (!hasHost)
        bytes += "Host: localhost\r\n";
    if (!body.isEmpty() || method == "PUT" || method == "POST")
        bytes += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    send(bytes + "\r\n" + body);
    return receive(method == "HEAD");
}

HttpReply HttpClient::get(const QByteArray& target, const Headers& headers)
{
    return request("GET", target, headers);
}

HttpReply HttpClient::put(const QByteArray& target, const QByteArray& body, const Headers& headers)
{
    return request("PUT", target, Headers{{"Content-Type", "application/json"}} + headers, body);
}

HttpReply HttpClient::post(const QByteArray& target, const QByteArray& body, const Headers& headers)
{
    return request("POST", target,
                   Headers{{"Content-Type", "application/x-www-form-urlencoded"}} + headers, body);
}

HttpReply HttpClient::openStream(const QByteArray& target, const Headers& headers)
{
    QByteArray bytes =
        "GET " + target + " HTTP/1.1\r\nHost: localhost\r\nAccept: text/event-stream\r\n";
    for (const auto& [name, value] : headers)
        bytes += name + ": " + value + "\r\n";
    send(bytes + "\r\n");
    HttpReply reply;
    if (!takeHead(reply))
        return HttpReply();
    m_isChunked = reply.header("transfer-encoding") == "chunked";
    return reply;
}

bool HttpClient::takeLine(QByteArray& bytes, QByteArray& line, bool isStream)
{
    int end = bytes.indexOf('\n');
    while (end < 0) {
        if (!(isStream && m_isChunked ? takeChunk(bytes) : fill()))
            return false;
        if (isStream && !m_isChunked)
            bytes += std::exchange(m_bytes, QByteArray());
        end = bytes.indexOf('\n');
    }
    line = bytes.left(end);
    bytes.remove(0, end + 1);
    if (line.endsWith('\r'))
        line.chop(1);
    return true;
}

SentEvent HttpClient::nextEvent()
{
    SentEvent event;
    QByteArray line;
    while (takeLine(m_stream, line, true)) {
        if (line.isEmpty() && !(event.name.isEmpty() && event.data.isEmpty()))
            return event;
        const int colon = line.indexOf(':');
        const QByteArray field = line.left(colon);
        const QByteArray value = line.mid(colon + (line.mid(colon + 1, 1) == " " ? 2 : 1));
        if (field == "id")
            event.id = value;
        else if (field == "event")
            event.name = value;
        else if (field == "data")
            event.data += (event.data.isEmpty() ? "" : "\n") + value;
    }
    return SentEvent();
}

SentEvent HttpClient::nextEvent(const QList<QByteArray>& names)
{
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < end) {
        SentEvent event = nextEvent();
        if (event.name.isEmpty() || names.contains(event.name))
            return event;
    }
    ADD_FAILURE() << "the stream has no event " << names.value(0).constData() << " within 30 s";
    return SentEvent();
}

QByteArray HttpClient::receiveSome()
{
    if (m_bytes.isEmpty())
        fill();
    return std::exchange(m_bytes, QByteArray());
}

bool HttpClient::seesTheEnd()
{
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (fill()) {
        m_bytes.clear();
        if (std::chrono::steady_clock::now() > end)
            return false;
    }
    pollfd input = {m_socket, POLLIN, 0};
    return m_socket < 0 || ::poll(&input, 1, 0) == 1;
}

void HttpClient::reset()
{
    const linger atOnce = {1, 0};
    ::setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close();
}

void HttpClient::close()
{
    if (m_socket >= 0)
        ::close(m_socket);
    m_socket = -1;
}

void HttpClient::endSending()
{
    ::shutdown(m_socket, SHUT_WR);
}

HttpReply httpGet(int port, const QByteArray& target, const HttpClient::Headers& headers)
{
    return HttpClient(port).get(target, headers);
}
