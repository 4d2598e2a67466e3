#ifndef MICRO850_HOST_GATEWAY_GATEWAYCLIENT_H
#define MICRO850_HOST_GATEWAY_GATEWAYCLIENT_H

#include "Channel.h"
#include "Clock.h"
#include "Message.h"

#include <QtCore/QString>
#include <QtCore/QVector>

#include <functional>
#include <map>
#include <memory>
#include <optional>

namespace micro850::host {

/// There is no gateway any more, or none that this program understands. The message names the path
/// of its socket.
class GatewayLost : public UserError
{
public:
    enum class Cause {
        Missing,    ///< there is no such socket
        Stale,      ///< nobody listens at it
        NoAccess,   ///< this user may not connect
        NotAGateway ///< it went away, is silent, or speaks otherwise
    };
    GatewayLost(const QString& path, const std::string& why, Cause cause = Cause::NotAGateway)
        : UserError(path.toStdString() + ": " + why, kExitRefused), m_cause(cause)
    {
    }
    Cause cause() const { return m_cause; }

private:
    Cause m_cause;
};

/// The gateway answered a request with an error.
class GatewayRefused : public UserError
{
public:
    GatewayRefused(const std::string& code, const std::string& text, const std::string& why,
                   int element)
        : UserError(text, kExitRefused), m_code(code), m_why(why), m_element(element)
    {
    }
    const std::string& code() const { return m_code; }
    /// The text without the name of what is concerned.
    const std::string& why() const { return m_why; }
    /// The element that is concerned, or below 0.
    int element() const { return m_element; }

private:
    std::string m_code;
    std::string m_why;
    int m_element;
};

/// The interrupt of the caller ended a wait.
class Interrupted : public UserError
{
public:
    Interrupted() : UserError("interrupted", kExitRefused) {}
};

/// A connection to a gateway. Nothing waits without a limit, and what the gateway sends uses memory
/// only up to a limit. Every function throws GatewayLost once the gateway is lost.
class GatewayClient
{
public:
    /// A reply; a long one has several parts.
    using Reply = QVector<JsonNode>;
    using EventHandler = std::function<void(const JsonNode& event)>;

    /// Connects, waits at most so long for the gateway's greeting, and tells the name of the
    /// client.
    GatewayClient(const QString& path, const QString& client, const Clock& clock,
                  Duration patience = std::chrono::seconds(2));

    const QString& path() const { return m_path; }
    void setEventHandler(EventHandler handler) { m_handler = std::move(handler); }
    /// Sets a function that is asked while ask() waits; when it returns true, ask() throws
    /// Interrupted.
    void setInterrupt(std::function<bool()> interrupt) { m_interrupt = std::move(interrupt); }

    /// How long the gateway may be silent while a request waits.
    void setMostSilence(Duration time) { m_mostSilence = time; }

    /// Sends a request, which needs no id, and waits for its reply. Throws GatewayRefused for an
    /// error. A gateway that is busy with it may take minutes, but must answer something else
    /// meanwhile.
    Reply ask(const Json& request);
    /// Sends a request and returns its id.
    qint64 post(Json request);
    bool isAnswered(qint64 id) const;
    /// The reply once isAnswered(). Throws GatewayRefused.
    Reply takeReply(qint64 id);
    /// The reply may still come; nobody waits for it.
    void forget(qint64 id) { m_requests.erase(id); }

    /// Waits for something to come, at most so long, and handles it. An event goes to the handler.
    /// Throws GatewayLost when the gateway has been silent for too long while a request waits.
    void wait(Duration time);

private:
    struct Request
    {
        Reply parts;
        qint64 bytes = 0;
        bool isAnswered = false;
        std::optional<GatewayRefused> refusal;
    };
    void awaitGreeting(Duration patience);
    bool hasInput(Duration time) const;
    void handle(const QByteArray& line);
    void handleReply(const JsonNode& message, int bytes);
    void refuseSilence();
    [[noreturn]] void lose(const std::string& why) const;

    QString m_path;
    QString m_client;
    const Clock& m_clock;
    std::unique_ptr<Channel> m_channel;
    EventHandler m_handler;
    std::function<bool()> m_interrupt;
    std::map<qint64, Request> m_requests; ///< by id
    qint64 m_lastId = 0;
    Duration m_mostSilence;
    Duration m_heardAt{0};
    std::optional<qint64> m_ping; ///< a request that only shows whether the gateway answers
};

} // namespace micro850::host

#endif
