#ifndef MICRO850_GATEWAY_DELIVERY_MQTTATTEMPT_H
#define MICRO850_GATEWAY_DELIVERY_MQTTATTEMPT_H

#include "BrokerSocket.h"
#include "Clock.h"
#include "IncomingPackets.h"
#include "MqttMessage.h"

#include <QtCore/QVector>

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

struct mosquitto;

namespace micro850::gateway {

/// What happened on a connection.
struct MqttEvent
{
    enum class Kind { Connected, Acknowledged, Refused, Message, Pong, Ended };
    explicit MqttEvent(Kind what, int which = 0, QString why = QString())
        : kind(what), number(which), reason(std::move(why))
    {
    }

    Kind kind;
    int number; ///< the token, or the number of the ping
    QString reason;
    MqttMessage message;
    std::chrono::steady_clock::time_point came; ///< a message: not before
    /// Of the end: what the broker does not take; another attempt may do without.
    bool refusesVersion = false;
    bool refusesRetained = false;
    bool isByBroker = false; ///< of the end: the broker closed the connection
};

/// What the thread of a connection shall do.
struct MqttCommand
{
    enum class Kind { Publish, Subscribe, Ping };
    explicit MqttCommand(Kind what, int which = 0, MqttMessage its = MqttMessage())
        : kind(what), number(which), message(std::move(its))
    {
    }

    Kind kind;
    int number;          ///< the token, or the number of the ping
    MqttMessage message; ///< for a subscription its topic only
};

/// One connection to a broker, from the look-up of its name to its end, on a thread of its own. The
/// library is called on that thread only. It talks to one end of a socket pair; the other end is
/// passed on to the broker and from it, so that name, connection and encryption have limits of
/// their own, and what the broker sends is looked at first.
class MqttAttempt
{
public:
    struct Settings
    {
        BrokerAddress address;
        Duration patience;
        bool isVersion5 = true;
        bool retainsWill = true;
        MqttMessage will;
    };

    /// Begins it. `notify` is called on its thread when events are there to be taken, and not again
    /// before they are.
    static std::shared_ptr<MqttAttempt> start(Settings settings, std::function<void()> notify);
    /// Called by the last owner: the thread is one of them.
    ~MqttAttempt();
    MqttAttempt(const MqttAttempt&) = delete;
    MqttAttempt& operator=(const MqttAttempt&) = delete;

    void add(MqttCommand command);
    std::vector<MqttEvent> takeEvents();
    /// Bytes of messages that were not acknowledged, and for QoS 0 not sent.
    qint64 waitingBytes() const;

    /// Breaks the connection off.
    void end(const QString& reason);
    /// Lets it end in order once all messages are acknowledged and all pings answered.
    void finish();
    /// True when the thread has done its work.
    bool waitForEnd(Duration limit);

private:
    struct Callbacks;
    friend struct Callbacks;
    struct Sent
    {
        int token;
        qint64 bytes;
    };

    MqttAttempt(Settings settings, std::function<void()> notify);
    void run();
    QString runConnection();
    void makeClient();
    void connectClient();
    QString pump();
    bool isEnding(QString& reason);
    bool passToBroker();
    bool passFromBroker();
    void takeFromClient();
    bool giveToClient(const QByteArray& bytes);
    bool careForTime();
    void waitForWork();
    void carryOut(const MqttCommand& command);
    bool subscribe(const QByteArray& topic, int& identifier);
    void publish(const MqttCommand& command);
    bool fail(const QString& reason);
    bool failClient(int error);
    bool isReadyToFinish() const;
    void finishConnection();
    void tell(MqttEvent event);
    void settle(int identifier, const QString& refusal);
    void wake();
    QString refusalText(int code, const QString& text) const;

    const Settings m_settings;
    const std::function<void()> m_notify;
    int m_wake;

    mutable std::mutex m_mutex;
    std::condition_variable m_ended;
    std::vector<MqttCommand> m_commands;
    std::vector<MqttEvent> m_events;
    qint64 m_eventBytes = 0;
    qint64 m_waitingBytes = 0;
    bool m_isTold = false; ///< notify() was called for the events
    bool m_isOver = false;
    bool m_isFinishing = false;
    std::optional<QString> m_endReason;

    // Of the thread.
    std::unique_ptr<BrokerSocket> m_broker;
    mosquitto* m_client = nullptr;
    int m_clientEnd = -1; ///< the library's; it closes it
    int m_ourEnd = -1;
    IncomingPackets m_incoming;
    QByteArray m_toBroker;
    std::map<int, Sent> m_sent; ///< by packet identifier
    std::map<int, int> m_pings; ///< the same
    std::map<int, QByteArray> m_subscriptions;
    std::chrono::steady_clock::time_point m_answerLimit;
    std::chrono::steady_clock::time_point m_nextCare;
    std::chrono::steady_clock::time_point m_emptyAt; ///< nothing waited to be read then
    std::chrono::steady_clock::time_point m_came;    ///< not before: what is being read
    bool m_isConnected = false;
    bool m_isPaused = false; ///< too many events wait: nothing is read
    bool m_refusesVersion = false;
    bool m_isByBroker = false;
    bool m_refusesRetained = false;
    QString m_reason;
};

} // namespace micro850::gateway

#endif
