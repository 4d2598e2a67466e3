#ifndef MICRO850_GATEWAY_DELIVERY_TOPICS_H
#define MICRO850_GATEWAY_DELIVERY_TOPICS_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace micro850::gateway {

/// Of the longest topic that MQTT can carry, in bytes.
constexpr int kLongestTopic = 65535;

/// A line's or a variable's name as a level of a topic. What a topic cannot hold stands as `%` and
/// two hexadecimal digits for each byte of its UTF-8: `/ + # %`, control characters, and characters
/// that Unicode gives to nobody. Of a word that has a meaning in our topics, like `state`, the
/// first character does. Two names never get the same level.
QByteArray topicLevel(const QString& name);

/// The topics below a prefix, in UTF-8.
class Topics
{
public:
    explicit Topics(const QString& prefix) : m_prefix(prefix.toUtf8()) {}

    /// Of the gateway.
    QByteArray status() const { return m_prefix + "/status"; }
    /// Of a variable; also the begin of its other topics.
    QByteArray value(const QString& line, int station, const QString& name) const;
    /// `word` of a station, of a line (`station` below 0), or of the gateway (`line` empty).
    QByteArray of(const QString& line, int station, const char* word) const;
    /// The filter of all orders.
    QByteArray orders() const { return m_prefix + "/+/+/+/set"; }

    static QByteArray history(const QByteArray& value) { return value + "/history"; }
    static QByteArray set(const QByteArray& value) { return value + "/set"; }
    static QByteArray result(const QByteArray& value) { return value + "/result"; }
    /// The topic of the variable that such an order is for; empty when it is no topic of an order.
    QByteArray valueOfOrder(const QByteArray& topic) const;
    /// Whether a variable's topic leaves room for the longest of its other topics.
    static bool fits(const QByteArray& value);

private:
    QByteArray m_prefix;
};

} // namespace micro850::gateway

#endif
