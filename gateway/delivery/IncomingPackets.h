#ifndef MICRO850_GATEWAY_DELIVERY_INCOMINGPACKETS_H
#define MICRO850_GATEWAY_DELIVERY_INCOMINGPACKETS_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <deque>

namespace micro850::gateway {

/// Looks at what a broker sends before the library gets it. The library reserves as much memory as
/// a packet announces, up to 256 MB, keeps messages of QoS 2 without a limit, and aborts the
/// program when a property has an identifier that it does not know. So long messages lose their
/// payload, and packets that no broker sends to this client end the connection.
class IncomingPackets
{
public:
    /// A message of a broker may have so many bytes behind its header, with topic and properties.
    static constexpr int kLongestMessage = 256 * 1024;
    /// Any other packet: a reason and a few numbers.
    static constexpr int kLongestOther = 64 * 1024;

    explicit IncomingPackets(bool isVersion5) : m_isVersion5(isVersion5) {}

    /// Appends to `out` what the library may see of bytes that came. False when the broker sends
    /// what it must not; reason() says what.
    bool add(const QByteArray& bytes, QByteArray& out);
    const QString& reason() const { return m_reason; }

    /// Called once for each message that the library delivers, in order: true when it was cut.
    bool takeIsCut();

private:
    bool addToHeader(char byte, QByteArray& out);
    bool beginPacket(qint64 length, QByteArray& out);
    bool finishPacket(QByteArray& out);
    void shorten();
    bool refuse(const QString& reason);

    bool m_isVersion5;
    QByteArray m_header; ///< of the packet that begins
    char m_first = 0;    ///< its first byte
    QByteArray m_body;   ///< what has come of it
    int m_missing = 0;   ///< bytes of the body
    qint64 m_dropping = 0;
    bool m_isLong = false;     ///< the message; what is over the limit is dropped
    bool m_isAnswered = false; ///< the first packet has come
    QString m_reason;
    qint64 m_messages = 0;
    qint64 m_delivered = 0;
    std::deque<qint64> m_cut; ///< which messages
};

} // namespace micro850::gateway

#endif
