#ifndef MICRO850_TESTS_HTTP_CLIENT_H
#define MICRO850_TESTS_HTTP_CLIENT_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMap>

#include <functional>
#include <utility>

/// A response as it came.
struct HttpReply
{
    int status = 0; ///< 0: the connection ended before a response
    QByteArray head;
    QMap<QByteArray, QByteArray> headers; ///< names in lower case; "a, b" of several
    QByteArray body;
    bool isWhole = false; ///< not cut off

    QByteArray header(const char* name) const { return headers.value(name); }
};

/// An event of a stream of server-sent events.
struct SentEvent
{
    QByteArray id;
    QByteArray name;
    QByteArray data;
};

/// A client of HTTP on one TCP connection, which sends any bytes. Waits take at most 30 s and fail
/// the test then.
class HttpClient
{
public:
    using Headers = QList<std::pair<QByteArray, QByteArray>>;
    /// Is called again and again while the client waits: turns the event loop of a server in this
    /// thread.
    using Turn = std::function<void()>;

    /// Connects to 127.0.0.1, or "::1", from an address of this machine ("127.0.0.7") if one is
    /// given.
    explicit HttpClient(int port, Turn turn = Turn(), const QByteArray& address = "127.0.0.1",
                        const QByteArray& from = QByteArray());
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    bool isConnected() const { return m_socket >= 0; }
    int descriptor() const { return m_socket; }
    /// The system takes about so many bytes that are not received yet.
    void limitReceiving(int bytes);

    /// Sends the bytes as they are; false when the connection is broken.
    bool send(const QByteArray& bytes);
    /// The next response. A body without a length goes to the end of the connection.
    HttpReply receive(bool isHead = false);
    /// Sends a request, with Host and with the length of a body, and receives the response. The
    /// connection stays.
    HttpReply request(const QByteArray& method, const QByteArray& target,
                      const Headers& headers = {}, const QByteArray& body = QByteArray());
    HttpReply get(const QByteArray& target, const Headers& headers = {});
    HttpReply put(const QByteArray& target, const QByteArray& body, const Headers& headers = {});
    HttpReply post(const QByteArray& target, const QByteArray& body, const Headers& headers = {});

    /// Receives status and headers of a stream; nextEvent() reads its events.
    HttpReply openStream(const QByteArray& target, const Headers& headers = {});
    /// The next event that is no comment; one without a name when the stream has ended.
    SentEvent nextEvent();
    /// The next event with one of these names.
    SentEvent nextEvent(const QList<QByteArray>& names);

    /// Waits for more bytes; empty at the end of the connection.
    QByteArray receiveSome();
    /// Waits for the end of the connection. What comes before it is dropped.
    bool seesTheEnd();
    /// Breaks the connection off.
    void reset();
    void close();
    /// Ends its own side only.
    void endSending();

private:
    bool fill();
    bool takeHead(HttpReply& reply);
    void takeBody(HttpReply& reply);
    bool takeChunk(QByteArray& body);
    bool takeLine(QByteArray& bytes, QByteArray& line, bool isStream);

    Turn m_turn;
    int m_socket = -1;
    QByteArray m_bytes;  ///< received, not taken
    QByteArray m_stream; ///< of a stream, without the chunks
    bool m_isChunked = false;
};

/// One request on a connection of its own.
HttpReply httpGet(int port, const QByteArray& target, const HttpClient::Headers& headers = {});

#endif
