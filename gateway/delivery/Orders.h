#ifndef MICRO850_GATEWAY_DELIVERY_ORDERS_H
#define MICRO850_GATEWAY_DELIVERY_ORDERS_H

#include "MqttConnection.h"
#include "Publisher.h"
#include "Topics.h"

#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QVector>

#include <deque>

namespace micro850::gateway {

/// The content of an order.
struct OrderContent
{
    host::Json value;
    std::optional<int> element; ///< none: it is not told
    host::Json id;              ///< a number or a text; null: none
    std::optional<qint64> time; ///< when it was given, milliseconds since 1970 UTC

    /// `isText`: the variable is a text, so that a bare payload is the text itself. `id` is set as
    /// soon as it is known, also when the rest is wrong. Throws UserError.
    static OrderContent parse(const QByteArray& payload, bool isText, host::Json& id);
};

/// Carries out orders that come from a broker, each with one result. Refuses what is retained, too
/// old or malformed; the rules of the service decide on the rest.
class Orders
{
public:
    /// Sends a result.
    using SendResult = std::function<void(const MqttMessage& result)>;
    /// The variable with this topic; null when there is none.
    using FindVariable = std::function<const CatalogueVariable*(const QByteArray& topic)>;

    /// `needs` must outlive it.
    Orders(const QString& prefix, int maximumAgeMs, PublisherNeeds& needs, FindVariable find,
           SendResult send);
    ~Orders();
    Orders(const Orders&) = delete;
    Orders& operator=(const Orders&) = delete;

    /// A message that came to a topic of orders.
    void handle(const MqttMessage& message);
    /// Refuses what waited too long and passes on what waits. Called several times a second.
    void tick();
    /// The process ends: answers what waits, and what is under way, whose outcome nobody will tell.
    void end();
    /// How many were received, and how they ended.
    host::Json status() const;

    static constexpr int kLongestPayload = 64 * 1024;
    static constexpr int kMostWaiting = 256;
    /// More orders of one line are not with the service at once: what waits here can get too old.
    static constexpr int kMostUnderWay = 2;
    /// So many orders with an id and a time are remembered, so that each is carried out once.
    static constexpr int kMostRemembered = 1000;

private:
    /// Where a result goes.
    struct Sender
    {
        QByteArray topic;
        QByteArray correlation;
        host::Json id;
        int element = 0;
    };
    struct Waiting
    {
        Sender sender;
        Order order;
        QByteArray identity; ///< empty: it cannot come twice
        Duration deadline{0};
    };
    struct Remembered
    {
        Duration until{0};
        host::Json result; ///< null while it is carried out
        QVector<Sender> others;
    };

    void accept(const MqttMessage& message, const QByteArray& topic, Sender& sender);
    void requireFresh(const OrderContent& content) const;
    Duration deadlineOf(const MqttMessage& message, const OrderContent& content) const;
    bool isRepetition(const QByteArray& identity, const Sender& sender);
    void remember(const QByteArray& identity);
    void pass(const Waiting& waiting);
    void takeReply(int number, const host::Json& reply);
    void finish(const Sender& sender, const QByteArray& identity, host::Json result);
    void refuse(const Sender& sender, const QByteArray& identity, const char* code,
                const std::string& text);
    void answer(const Sender& sender, host::Json result);

    Topics m_topics;
    int m_maximumAgeMs;
    PublisherNeeds& m_needs;
    FindVariable m_find;
    SendResult m_send;
    std::deque<Waiting> m_waiting;
    QMap<int, Waiting> m_passed; ///< that the service has, by number
    int m_lastPassed = 0;
    QHash<QString, int> m_underWay; ///< how many of them, by line
    QHash<QByteArray, Remembered> m_remembered;
    std::deque<QByteArray> m_rememberedOrder;
    qint64 m_received = 0;
    QMap<QString, qint64> m_outcomes;
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace micro850::gateway

#endif
