#include "GatewayClient.h"

#include "PollTimeout.h"
#include "Protocol.h"
#include "VisibleText.h"

#include <QtCore/QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace micro850::host {

namespace {

// A gateway that lets its worker read may need minutes; one that answers nothing is gone.
const std::chrono::milliseconds kMostSilence(5000);
const std::chrono::minutes kLongestAnswer(5);
// How often the interrupt is asked.
const std::chrono::milliseconds kLook(50);
const qint64 kMostReplyBytes = qint64(64) * 1024 * 1024;
const qint64 kMostWaiting = qint64(4) * 1024 * 1024;
const int kMostClientName = 100;

// The system tells a file like a socket that nobody listens at.
bool isAnotherFile(const QString& path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 && !S_ISSOCK(status.st_mode);
}

[[noreturn]] void refuseConnect(const QString& path, int error)
{
    using Cause = GatewayLost::Cause;
    if (isAnotherFile(path))
        throw GatewayLost(path, "is not a socket (name the socket of micro850-gateway)");
    if (error == ENOENT || error == ENOTDIR)
        throw GatewayLost(path, "there is no such socket (is micro850-gateway running?)",
                          Cause::Missing);
    if (error == ECONNREFUSED || error == ENOTSOCK || error == EPROTOTYPE)
        throw GatewayLost(path, "no gateway listens there any more (is micro850-gateway running?)",
                          Cause::Stale);
    if (error == EACCES || error == EPERM)
        throw GatewayLost(path, "permission denied; users of the group \"micro850\" may",
                          Cause::NoAccess);
    throw GatewayLost(path, error == EAGAIN ? "it takes no further client now"
                                            : std::string(std::strerror(error)));
}

int connectedSocket(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (name.isEmpty() || static_cast<std::size_t>(name.size()) >= sizeof(address.sun_path))
        throw UserError("\"" + path.toStdString() +
                        "\": is no path of a socket (1 to 107 bytes; choose a shorter one)");
    std::copy(name.begin(), name.end(), address.sun_path);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket < 0)
        refuseConnect(path, errno);
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
        return socket;
    const int error = errno;
    ::close(socket);
    refuseConnect(path, error);
}

} // namespace

GatewayClient::GatewayClient(const QString& path, const QString& client, const Clock& clock,
                             Duration patience)
    : m_path(path), m_client(client.left(kMostClientName)), m_clock(clock),
      m_channel(std::make_unique<Channel>(connectedSocket(path), kLongestReply, kMostWaiting)),
      m_mostSilence(kMostSilence), m_heardAt(clock.now())
{
    awaitGreeting(patience);
    forget(post({{"request", "hello"}, {"client", m_client.toStdString()}}));
}

void GatewayClient::lose(const std::string& why) const
{
    throw GatewayLost(m_path, why);
}

void GatewayClient::awaitGreeting(Duration patience)
{
    const Duration end = m_clock.now() + patience;
    std::optional<LineReader::Line> line = m_channel->next();
    while (!line) {
        const Duration now = m_clock.now();
        if (now >= end)
            lose("is silent, so that it is no gateway, or one that hangs");
        if (!hasInput(end - now))
            continue;
        const bool isOpen = m_channel->receive();
        line = m_channel->next();
        if (!isOpen && !line)
            lose("closed the connection without a greeting");
    }
    std::string protocol;
    std::int64_t version = 0;
    try {
        const JsonNode greeting = messageIn(line->text, "greeting");
        // A gateway that takes no client says why.
        if (greeting.has("error"))
            lose(greeting.at("error").text("text", "refuses the connection"));
        protocol = greeting.text("protocol", "");
        version = greeting.integer("version", 0, INT32_MAX, 0);
    } catch (const GatewayLost&) {
        throw;
    } catch (const UserError&) {
        protocol.clear();
    }
    if (protocol != "micro850-gateway")
        lose("is no gateway: it greets with " + inQuotes(line->text.left(40).toStdString()));
    if (version != kProtocolVersion)
        lose("speaks version " + std::to_string(version) +
             " of the protocol, and this program version " + std::to_string(kProtocolVersion) +
             " (install the same version of both)");
    m_heardAt = m_clock.now();
}

bool GatewayClient::hasInput(Duration time) const
{
    pollfd input = {m_channel->descriptor(),
                    static_cast<short>(m_channel->hasOutput() ? POLLIN | POLLOUT : POLLIN), 0};
    return ::poll(&input, 1, pollTimeout(std::max(time, Duration(0)))) > 0;
}

qint64 GatewayClient::post(Json request)
{
    const qint64 id = ++m_lastId;
    request["id"] = id;
    const QByteArray line = lineOf(request);
    if (line.size() > kLongestRequest)
        throw UserError("a request to the gateway is too long (give fewer names at once)");
    if (m_requests.empty())
        m_heardAt = m_clock.now();
    if (!m_channel->send(line))
        lose("takes no requests any more");
    m_requests[id];
    return id;
}

bool GatewayClient::isAnswered(qint64 id) const
{
    const auto found = m_requests.find(id);
    return found != m_requests.end() && found->second.isAnswered;
}

GatewayClient::Reply GatewayClient::takeReply(qint64 id)
{
    const auto found = m_requests.find(id);
    if (found == m_requests.end())
        return Reply();
    const Request request = found->second;
    m_requests.erase(found);
    if (request.refusal)
        throw GatewayRefused(*request.refusal);
    return request.parts;
}

GatewayClient::Reply GatewayClient::ask(const Json& request)
{
    const qint64 id = post(request);
    const Duration end = m_clock.now() + kLongestAnswer;
    while (!isAnswered(id)) {
        if (m_interrupt && m_interrupt()) {
            forget(id);
            throw Interrupted();
        }
        if (m_clock.now() >= end)
            lose("has not answered a request for minutes");
        wait(kLook);
    }
    return takeReply(id);
}

void GatewayClient::wait(Duration time)
{
    const bool came = hasInput(time);
    if (m_channel->hasOutput() && !m_channel->flush())
        lose("closed the connection");
    if (!came) {
        refuseSilence();
        return;
    }
    const bool isOpen = m_channel->receive();
    while (const std::optional<LineReader::Line> line = m_channel->next()) {
        m_heardAt = m_clock.now();
        if (line->tooLong)
            lose("sends a line that is too long");
        handle(line->text);
    }
    if (!isOpen)
        lose("closed the connection");
    refuseSilence();
}

// A gateway answers "hello" at once, whatever its lines do.
void GatewayClient::refuseSilence()
{
    if (m_ping && isAnswered(*m_ping)) {
        forget(*m_ping);
        m_ping.reset();
    }
    if (m_requests.empty())
        return;
    const Duration silence = m_clock.now() - m_heardAt;
    if (silence > m_mostSilence)
        lose("does not answer any more");
    if (silence > m_mostSilence / 2 && !m_ping)
        m_ping = post({{"request", "hello"}, {"client", m_client.toStdString()}});
}

void GatewayClient::handle(const QByteArray& line)
{
    try {
        const JsonNode message = messageIn(line, "gateway");
        if (!message.has("event"))
            handleReply(message, line.size());
        else if (m_handler)
            m_handler(message);
    } catch (const GatewayLost&) {
        throw;
    } catch (const UserError& error) {
        lose(std::string("sent what this program does not understand: ") + error.what());
    }
}

void GatewayClient::handleReply(const JsonNode& message, int bytes)
{
    const JsonNode id = message.at("id");
    if (id.value().is_null()) // it lets this client go
        lose(message.at("error").at("text").text());
    const auto found = m_requests.find(id.integer(1, INT64_MAX));
    if (found == m_requests.end() || found->second.isAnswered)
        return; // nobody waits for it
    Request& request = found->second;
    request.bytes += bytes;
    if (request.bytes > kMostReplyBytes)
        lose("sends an answer that is too long");
    if (message.has("error")) {
        const JsonNode error = message.at("error");
        const std::string text = error.at("text").text();
        request.refusal.emplace(error.at("code").text(), text, error.text("why", text),
                                static_cast<int>(error.integer("element", -1, 65535, -1)));
        request.parts.clear();
    } else {
        request.parts.append(message);
    }
    request.isAnswered = message.has("error") || !message.boolean("more", false);
}

} // namespace micro850::host
