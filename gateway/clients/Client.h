#ifndef MICRO850_GATEWAY_CLIENTS_CLIENT_H
#define MICRO850_GATEWAY_CLIENTS_CLIENT_H

#include "ClientContext.h"
#include "LineReader.h"
#include "OutputBuffer.h"
#include "PagedReply.h"
#include "RequestError.h"
#include "Subscription.h"

#include <QtCore/QPair>

#include <deque>
#include <memory>

namespace micro850::gateway {

/// One client: its requests, what it subscribed to, and what waits for it. Bytes go in and out;
/// the server moves them. Its memory is limited whatever the client does.
class Client : public std::enable_shared_from_this<Client>
{
public:
    /// Sends what the socket takes.
    using Send = std::function<host::OutputBuffer::Outcome(host::OutputBuffer&)>;

    Client(ClientContext& context, Peer peer, Send send);
    /// Takes back what was not sent to a controller.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Greets.
    void begin();
    /// Bytes from the client. Only while wantsInput().
    void receive(const char* bytes, int size);
    /// Carries out what waits, and sends what the socket takes, for a short time.
    void proceed();
    bool wantsInput() const;
    /// True when proceed() is to be called as soon as the socket takes bytes.
    bool wantsToProceed() const;
    /// True when the client is to be let go.
    bool isOver() const { return m_over; }
    /// True when proceed() can do something now: the socket is not full.
    bool isReady() const { return m_output.isEmpty(); }
    /// The client has closed its end.
    void close() { m_over = true; }
    /// Ends it with a last error.
    void end(const char* code, const std::string& text);
    /// Ends it if it is idle or slow in a way that nobody needs. Call it once a second.
    void checkTimes();

    /// A variable's value is about to be encoded anew: the text of an earlier change is sent first
    /// if the client reads fast enough.
    void prepareChange(int number);
    /// True when a subscription has it.
    bool addChange(int number);
    void addEvent(const LineEvent& event);
    /// `ages` gives an age as the protocol writes it.
    void sendAges(const std::function<QByteArray(int)>& age);
    /// The index and the texts are rebuilt.
    void handleReload();

private:
    struct Pending
    {
        Json id;
        std::function<void()> cancel;
        int freshNames = 0;
    };
    struct FreshRead;
    using Handler = void (Client::*)(const Json& id, const JsonNode& message);

    void handleLines();
    void handleLine(const host::LineReader::Line& line);
    void handleRequest(const Json& id, const JsonNode& message);
    void handleHello(const Json& id, const JsonNode& message);
    void handleList(const Json& id, const JsonNode& message);
    void handleRead(const Json& id, const JsonNode& message);
    void handleType(const Json& id, const JsonNode& message);
    void handleSubscribe(const Json& id, const JsonNode& message);
    void handleUnsubscribe(const Json& id, const JsonNode& message);
    void handleWrite(const Json& id, const JsonNode& message);
    void handleCancel(const Json& id, const JsonNode& message);
    void handleStatus(const Json& id, const JsonNode& message);
    void handleHistory(const Json& id, const JsonNode& message);
    void handleReloadRequest(const Json& id, const JsonNode& message);

    void readNames(const Json& id, const JsonNode& message);
    void readFresh(const Json& id, const QVector<int>& numbers);
    void answer(qint64 token, const Json& answer, const char* reply);
    void answerHistory(qint64 token, HistoryAnswer answer);
    void finishFresh(const FreshRead& read);
    void forward(const Json& id, int line, const Json& request, const char* reply);

    qint64 addPending(const Json& id);
    void setCancel(qint64 token, const std::function<void()>& cancel);
    void send(const QByteArray& line);
    void sendError(const Json& id, const RequestError& error);
    void countMistake();
    void fill();
    bool flush();
    bool sendOutput();
    bool hasWork() const;
    bool isCrowded() const;
    void countWaiting();

    ClientContext& m_context;
    Peer m_peer;
    Send m_send;
    QString m_name;
    host::LineReader m_input;
    host::OutputBuffer m_output;
    qint64 m_counted = 0; ///< in the context's waitingBytes
    bool m_linesWait = false;
    bool m_over = false;
    bool m_proceeding = false;
    int m_mistakes = 0;
    bool m_hasRequested = false;
    Duration m_connectedAt;
    Duration m_progressAt; ///< bytes were taken, or none waited
    std::optional<Duration> m_lineBeganAt;

    QMap<qint64, Pending> m_pending;
    qint64 m_lastToken = 0;
    std::deque<PagedReply> m_pages;
    std::deque<Subscription> m_subscriptions;
    int m_lastSubscription = 0;
    bool m_reloaded = false;
    QMap<QPair<QString, int>, QByteArray> m_events; ///< the newest of each line and station
};

} // namespace micro850::gateway

#endif
