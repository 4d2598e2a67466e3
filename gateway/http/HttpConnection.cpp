#include "HttpConnection.h"

#include "HttpText.h"
#include "PeerAddress.h"

#include <linux/sockios.h>
#include <linux/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <exception>
#include <netinet/in.h>
#include <utility>

namespace micro850::gateway {

namespace {

const int kMostHeaders = 100;
const int kMostRequests = 1000; // of a connection
const int kMostBodies = 2 * 1024 * 1024;
/// Of answers that wait until they are read, of all clients. Small ones are not refused.
const int kMostAnswers = 4 * 1024 * 1024;
const int kSmallAnswer = 16 * 1024;
/// So much of a body that is too long is read and forgotten, so that the client gets the answer.
const int kMostDiscarded = 1024 * 1024;
/// A client that reads less in the time of the idle limit is too slow.
const quint64 kLeastProgress = 4096;

class Exchange : public HttpExchange
{
public:
    Exchange(HttpRequest request, std::weak_ptr<HttpConnection> connection)
        : m_request(std::move(request)), m_connection(std::move(connection))
    {
    }
    ~Exchange() override
    {
        if (!m_isAnswered)
            fail();
    }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    void fail()
    {
        const std::shared_ptr<HttpConnection> connection = m_connection.lock();
        if (!m_isAnswered && connection)
            connection->answerWithFailure();
        m_isAnswered = true;
    }
    const HttpRequest& request() const override { return m_request; }
    void answer(HttpResponse response) override
    {
        const std::shared_ptr<HttpConnection> connection = m_connection.lock();
        if (!m_isAnswered && connection)
            connection->answer(std::move(response));
        m_isAnswered = true;
    }
    bool isWanted() const override
    {
        const std::shared_ptr<HttpConnection> connection = m_connection.lock();
        return !m_isAnswered && connection && !connection->isGone();
    }

private:
    HttpRequest m_request;
    std::weak_ptr<HttpConnection> m_connection;
    bool m_isAnswered = false;
};

tcp_info countsOf(int socket)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    ::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size);
    return info;
}

// Bytes that the peer's system has not acknowledged.
int waitingBytes(int socket)
{
    int bytes = 0;
    return ::ioctl(socket, SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

std::string detailOf(int status)
{
    switch (status) {
    case 400:
        return "this is no request of HTTP";
    case 413:
        return "the body is too long";
    case 431:
        return "the headers are too long";
    case 501:
        return "bodies can be sent in chunks, in no other coding";
    case 503:
        return "too many requests wait already";
    case 505:
        return "this server speaks HTTP/1.1";
    default:
        return "the server has a mistake";
    }
}

bool addHeaders(MHD_Response* to, const HttpResponse& response)
{
    const auto add = [to](const char* name, const QByteArray& value) {
        return isHeaderValue(value) &&
               MHD_add_response_header(to, name, value.constData()) == MHD_YES;
    };
    if (!response.type.isEmpty() && !add(MHD_HTTP_HEADER_CONTENT_TYPE, response.type))
        return false;
    return std::all_of(
        response.headers.begin(), response.headers.end(), [&](const HttpHeader& header) {
            return isHttpToken(header.name) && add(header.name.constData(), header.value);
        });
}

void freeBody(void* body)
{
    delete static_cast<QByteArray*>(body);
}

// To HEAD: the library asks for no body.
MHD_Response* responseOfUnknownLength()
{
    const size_t kBlock = 1024;
    const auto end = [](void*, uint64_t, char*, size_t) -> ssize_t {
        return MHD_CONTENT_READER_END_OF_STREAM;
    };
    return MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kBlock, end, nullptr, nullptr);
}

} // namespace

/// What the library keeps of a stream.
struct HttpConnection::StreamEnd
{
    std::shared_ptr<HttpStream> stream;
    std::weak_ptr<HttpConnection> connection;

    static ssize_t read(void* end, uint64_t /*position*/, char* bytes, size_t most)
    {
        const auto connection = static_cast<StreamEnd*>(end)->connection.lock();
        return connection ? connection->readStream(bytes, most) : MHD_CONTENT_READER_END_WITH_ERROR;
    }
    static void free(void* end) { delete static_cast<StreamEnd*>(end); }
};

HttpConnection::HttpConnection(HttpShared& shared, int socket, const QByteArray& peer)
    : m_shared(shared), m_socket(socket), m_peer(peer), m_since(shared.clock.now())
{
}

HttpConnection::~HttpConnection()
{
    forgetBody();
    giveRoomBack();
    if (m_stream)
        m_stream->setWake(nullptr);
}

void HttpConnection::enter(Phase phase)
{
    m_phase = phase;
    m_looksGone = 0;
    m_since = m_shared.clock.now();
    const tcp_info counts = countsOf(m_socket);
    const bool isOutput = phase == Phase::Answering || phase == Phase::Streaming;
    m_bytes = isOutput ? counts.tcpi_bytes_acked : counts.tcpi_bytes_received;
}

MHD_Result HttpConnection::handle(const char* method, const char* version, const char* bytes,
                                  size_t* size)
{
    if (m_closed)
        return MHD_NO;
    const bool isNew = m_phase == Phase::Waiting || m_phase == Phase::Headers;
    if (isNew && m_isLast)
        return MHD_NO;
    switch (m_phase) {
    case Phase::Waiting:
    case Phase::Headers:
        return handleHeaders(method, version);
    case Phase::Body:
        if (*size == 0)
            return handleRequest();
        takeBody(bytes, static_cast<int>(*size));
        *size = 0;
        return m_discarded > kMostDiscarded ? MHD_NO : MHD_YES;
    default:
        return m_response ? queue() : MHD_NO;
    }
}

MHD_Result HttpConnection::handleHeaders(const char* method, const char* version)
{
    ++m_shared.counters.requests;
    ++m_requests;
    m_mustClose = m_requests >= kMostRequests;
    enter(Phase::Body);
    const auto* info = MHD_get_connection_info(m_library, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE);
    takeHeaders();
    if (info != nullptr &&
        info->header_size > static_cast<size_t>(m_shared.settings.mostHeaderBytes))
        return refuse(431);
    if (m_headers > kMostHeaders)
        return refuse(431);
    m_request.method = method;
    m_isHead = m_request.method == "HEAD";
    int status = takeTarget(version);
    if (status == 0)
        status = mistakeOfBody();
    if (status != 0)
        return refuse(status);
    takeAddress();
    return MHD_YES;
}

void HttpConnection::takeHeaders()
{
    struct Taken
    {
        QMap<QByteArray, QByteArray>& headers;
        int count;
        bool isBad;
    };
    Taken taken{m_request.headers, 0, false};
    const auto take = [](void* all, enum MHD_ValueKind /*kind*/, const char* name, size_t nameSize,
                         const char* value, size_t valueSize) {
        auto& to = *static_cast<Taken*>(all);
        if (++to.count > kMostHeaders)
            return MHD_NO;
        const QByteArray key = QByteArray(name, static_cast<int>(nameSize)).toLower();
        const QByteArray text(value, value != nullptr ? static_cast<int>(valueSize) : 0);
        to.isBad = to.isBad || !isHttpToken(key) || !isHeaderValue(text);
        const auto before = to.headers.find(key);
        if (before == to.headers.end()) {
            to.headers.insert(key, text.trimmed());
            return MHD_YES;
        }
        // Which of them another server believes is not known.
        to.isBad = to.isBad || key == "host" || key == "content-length" || key == "authorization";
        *before += (key == "cookie" ? "; " : ", ") + text.trimmed();
        return MHD_YES;
    };
    MHD_get_connection_values_n(m_library, MHD_HEADER_KIND, take, &taken);
    m_headers = taken.count;
    m_badHeaders = taken.isBad;
}

/// 0, or the status of a refusal.
int HttpConnection::takeTarget(const char* version)
{
    const QByteArray spoken = version;
    if (spoken != "HTTP/1.1" && spoken != "HTTP/1.0")
        return 505;
    if (m_badHeaders || !isHttpToken(m_request.method) || !isHeaderValue(m_target))
        return 400;
    QByteArray target = before(m_target, '?');
    for (const char* const scheme : {"http://", "https://"}) {
        if (!target.toLower().startsWith(scheme))
            continue;
        const int begin = static_cast<int>(qstrlen(scheme));
        const int slash = target.indexOf('/', begin);
        m_request.headers["host"] = target.mid(begin, slash < 0 ? -1 : slash - begin);
        target = slash < 0 ? QByteArray("/") : target.mid(slash);
        break;
    }
    m_request.target = target;
    if (target == "*" && m_request.method == "OPTIONS")
        return 0;
    const std::optional<QStringList> path = decodedPath(target);
    const auto query = decodedForm(after(m_target, '?'));
    if (!path || !query)
        return 400;
    m_request.path = *path;
    m_request.query = *query;
    return 0;
}

/// 0, or the status of a refusal. Where a server before this one could see another end of the body
/// the request is refused.
int HttpConnection::mistakeOfBody()
{
    const auto& headers = m_request.headers;
    const bool hasLength = headers.contains("content-length");
    if (headers.contains("transfer-encoding")) {
        if (hasLength)
            return 400;
        if (headers["transfer-encoding"].toLower() != "chunked")
            return 501;
    }
    if (!hasLength)
        return 0;
    const QByteArray text = headers["content-length"];
    const auto isDigit = [](char byte) { return byte >= '0' && byte <= '9'; };
    if (text.isEmpty() || !std::all_of(text.begin(), text.end(), isDigit))
        return 400;
    bool isNumber = false;
    const qint64 length = text.toLongLong(&isNumber);
    const bool isTooLong = !isNumber || length > m_shared.settings.mostBodyBytes;
    // A client that asks first has sent nothing yet.
    if (isTooLong && (!isNumber || length > kMostDiscarded || headers.contains("expect")))
        return 413;
    return 0;
}

/// Who asks: the peer, or whom a configured proxy tells. Everything to the left of the last address
/// that is no proxy can be invented by a client.
void HttpConnection::takeAddress()
{
    m_request.address = m_peer;
    m_request.isLoopback = isLoopbackAddress(m_peer);
    m_request.isEncrypted = !m_shared.settings.certificateFile.isEmpty();
    if (!isOfProxy())
        return;
    m_request.isLoopback = false;
    const QList<QByteArray> protocols = m_request.header("x-forwarded-proto").split(',');
    m_request.isEncrypted = protocols.last().trimmed().toLower() == "https";
    const QList<QByteArray> addresses = m_request.header("x-forwarded-for").split(',');
    for (auto at = addresses.crbegin(); at != addresses.crend(); ++at) {
        const std::optional<QByteArray> address = canonicalAddress(at->trimmed());
        if (!address)
            return;
        m_request.address = *address;
        m_request.isLoopback = isLoopbackAddress(*address);
        if (m_shared.proxies.count(*address) == 0)
            return;
    }
}

void HttpConnection::takeBody(const char* bytes, int size)
{
    const int length = m_request.body.size() + size;
    m_bodyTooLong = m_bodyTooLong || length > m_shared.settings.mostBodyBytes;
    m_noRoom = m_noRoom || m_shared.bodyBytes + size > kMostBodies;
    if (m_bodyTooLong || m_noRoom) {
        forgetBody();
        m_discarded += size;
        return;
    }
    m_request.body.append(bytes, size);
    m_shared.bodyBytes += size;
}

void HttpConnection::forgetBody()
{
    m_shared.bodyBytes -= m_request.body.size();
    m_request.body = QByteArray();
}

MHD_Result HttpConnection::handleRequest()
{
    if (m_bodyTooLong || m_noRoom)
        return refuse(m_bodyTooLong ? 413 : 503);
    enter(Phase::Handling);
    HttpRequest request = std::move(m_request);
    m_shared.bodyBytes -= request.body.size();
    m_request = HttpRequest();
    const auto exchange = std::make_shared<Exchange>(std::move(request), weak_from_this());
    try {
        m_shared.handler(exchange);
    } catch (const std::exception&) {
        exchange->fail();
    }
    if (m_response)
        return queue();
    suspend();
    return MHD_YES;
}

MHD_Result HttpConnection::refuse(int status)
{
    m_mustClose = m_mustClose || !m_bodyTooLong;
    m_response = m_shared.refusal(status, detailOf(status));
    return queue();
}

void HttpConnection::answer(HttpResponse response)
{
    if (m_phase != Phase::Handling || m_response)
        return;
    const bool hasRoom = takeRoom(response.isBodyKept ? 0 : response.body.size());
    m_response = hasRoom ? std::move(response)
                         : m_shared.refusal(503, "too many answers wait until they are read");
    resume();
}

// False when the answers that wait take too much already.
bool HttpConnection::takeRoom(int size)
{
    const int waiting = m_shared.answerBytes;
    if (size > kSmallAnswer && waiting > 0 && waiting + size > kMostAnswers)
        return false;
    m_answerBytes = size;
    m_shared.answerBytes += size;
    return true;
}

void HttpConnection::giveRoomBack()
{
    m_shared.answerBytes -= std::exchange(m_answerBytes, 0);
}

void HttpConnection::answerWithFailure()
{
    answer(m_shared.refusal(500, detailOf(500)));
}

MHD_Result HttpConnection::queue()
{
    MHD_Response* response = libraryResponse();
    if (response != nullptr && !addHeaders(response, *m_response)) {
        MHD_destroy_response(response);
        m_response = m_shared.refusal(500, detailOf(500));
        response = libraryResponse();
        if (response != nullptr)
            addHeaders(response, *m_response);
    }
    if (response == nullptr)
        return MHD_NO;
    if (m_mustClose || m_isLast)
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    const int status = m_response->status;
    const MHD_Result queued =
        MHD_queue_response(m_library, static_cast<unsigned>(status), response);
    MHD_destroy_response(response);
    m_response.reset();
    if (queued != MHD_YES)
        return MHD_NO;
    ++m_shared.counters.responses[status];
    enter(m_stream ? Phase::Streaming : Phase::Answering);
    return MHD_YES;
}

MHD_Response* HttpConnection::libraryResponse()
{
    if (m_response->stream && m_isHead) {
        m_response->stream.reset();
        m_mustClose = true; // the library would wait for the end of a body
        return responseOfUnknownLength();
    }
    if (m_response->stream)
        return streamResponse();
    auto body = std::make_unique<QByteArray>(std::move(m_response->body));
    // The library does not change the bytes: they can be those of others, too.
    auto* bytes = const_cast<char*>(body->constData());
    const auto size = static_cast<size_t>(body->size());
    MHD_Response* response =
        MHD_create_response_from_buffer_with_free_callback_cls(size, bytes, freeBody, body.get());
    if (response != nullptr)
        static_cast<void>(body.release());
    return response;
}

MHD_Response* HttpConnection::streamResponse()
{
    const size_t kBlock = 4096;
    m_stream = std::move(m_response->stream);
    const std::weak_ptr<HttpConnection> weak = weak_from_this();
    m_stream->setWake([weak] {
        if (const std::shared_ptr<HttpConnection> connection = weak.lock())
            connection->resume();
    });
    auto end = std::make_unique<StreamEnd>(StreamEnd{m_stream, weak});
    MHD_Response* response = MHD_create_response_from_callback(
        MHD_SIZE_UNKNOWN, kBlock, StreamEnd::read, end.get(), StreamEnd::free);
    if (response != nullptr)
        static_cast<void>(end.release());
    return response;
}

ssize_t HttpConnection::readStream(char* bytes, size_t most)
{
    if (m_closed || m_gone || !m_stream)
        return MHD_CONTENT_READER_END_WITH_ERROR;
    const int got = m_stream->read(bytes, static_cast<int>(std::min<size_t>(most, INT_MAX)));
    if (got < 0)
        return got == HttpStream::kBroken ? MHD_CONTENT_READER_END_WITH_ERROR
                                          : MHD_CONTENT_READER_END_OF_STREAM;
    if (got == 0)
        suspend();
    return got;
}

void HttpConnection::complete()
{
    forgetBody();
    giveRoomBack();
    if (m_stream)
        m_stream->setWake(nullptr);
    m_stream.reset();
    m_response.reset();
    m_request = HttpRequest();
    m_bodyTooLong = false;
    m_noRoom = false;
    m_discarded = 0;
    enter(Phase::Waiting);
}

void HttpConnection::suspend()
{
    m_suspended = true;
    MHD_suspend_connection(m_library);
}

void HttpConnection::resume()
{
    if (!m_suspended)
        return;
    m_suspended = false;
    MHD_resume_connection(m_library);
    // Without a listening socket the library's descriptor does not tell of it.
    m_shared.schedule();
}

void HttpConnection::handleGone(bool isBroken)
{
    m_gone = true;
    if (isBroken || m_phase == Phase::Streaming)
        close();
}

// Once: each shutdown() is told again to whoever waits for the end of the socket, also when nothing
// is left to shut down. The library does not always hear of it by itself.
void HttpConnection::close()
{
    if (m_closed)
        return;
    m_closed = true;
    ::shutdown(m_socket, SHUT_RDWR);
    // The library misses an end that came while it did not look: this makes it look.
    if (!m_suspended && m_library != nullptr)
        suspend();
    resume();
    m_shared.schedule();
}

void HttpConnection::finish()
{
    m_isLast = true;
    if (!m_closed && m_phase != Phase::Handling && m_phase != Phase::Answering)
        close();
}

void HttpConnection::checkTimes()
{
    if (m_isLast)
        finish();
    if (m_closed)
        return m_shared.schedule();
    const Duration now = m_shared.clock.now();
    switch (m_phase) {
    case Phase::Waiting:
    case Phase::Headers:
        checkHeaders(now);
        break;
    case Phase::Body:
        if (now - m_since > m_shared.settings.idleLimit)
            closeSlow();
        break;
    case Phase::Handling:
        break;
    case Phase::Answering:
    case Phase::Streaming:
        checkReading(now);
        break;
    }
}

void HttpConnection::checkHeaders(Duration now)
{
    if (m_phase == Phase::Waiting && countsOf(m_socket).tcpi_bytes_received != m_bytes)
        enter(Phase::Headers);
    // Requests that have come together with the end are answered first.
    const bool isOver = m_gone && ++m_looksGone > 1;
    if (m_phase == Phase::Headers && now - m_since > m_shared.settings.headerLimit)
        closeSlow();
    else if (isOver || (m_phase == Phase::Waiting && now - m_since > m_shared.settings.idleLimit))
        close();
}

void HttpConnection::checkReading(Duration now)
{
    const quint64 acknowledged = countsOf(m_socket).tcpi_bytes_acked;
    const bool isDone = m_phase == Phase::Streaming && waitingBytes(m_socket) == 0;
    if (isDone || acknowledged - m_bytes >= kLeastProgress)
        enter(m_phase);
    else if (now - m_since > m_shared.settings.idleLimit)
        closeSlow();
}

// What still waits for the peer is thrown away.
void HttpConnection::closeSlow()
{
    if (m_closed)
        return;
    ++m_shared.counters.tooSlow;
    const linger atOnce = {1, 0};
    ::setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close();
}

} // namespace micro850::gateway
