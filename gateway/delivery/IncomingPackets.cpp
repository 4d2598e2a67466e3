#include "IncomingPackets.h"

#include <algorithm>

namespace micro850::gateway {

namespace {

const int kLongestHeader = 5;

enum PacketType {
    ConnectAnswer = 2,
    Message = 3,
    MessageAnswer = 4,
    SubscribeAnswer = 9,
    UnsubscribeAnswer = 11,
    PingAnswer = 13,
    Disconnect = 14
};

int typeOf(char first)
{
    return static_cast<unsigned char>(first) >> 4;
}

bool isSentByBrokers(int type)
{
    return type == Message || type == MessageAnswer || type == SubscribeAnswer ||
           type == UnsubscribeAnswer || type == PingAnswer || type == Disconnect;
}

// Seven bits in each byte, the lowest first.
QByteArray encodedLength(qint64 length)
{
    QByteArray bytes;
    do {
        const auto low = static_cast<int>(length % 128);
        length /= 128;
        bytes.append(static_cast<char>(length > 0 ? low | 0x80 : low));
    } while (length > 0);
    return bytes;
}

} // namespace

bool IncomingPackets::refuse(const QString& reason)
{
    m_reason = reason;
    return false;
}

bool IncomingPackets::add(const QByteArray& bytes, QByteArray& out)
{
    int at = 0;
    while (at < bytes.size()) {
        const int left = bytes.size() - at;
        if (m_passing > 0) {
            const int count = static_cast<int>(std::min<qint64>(left, m_passing));
            out.append(bytes.constData() + at, count);
            m_passing -= count;
            at += count;
        } else if (m_dropping > 0) {
            const int count = static_cast<int>(std::min<qint64>(left, m_dropping));
            m_dropping -= count;
            at += count;
        } else if (!addToHeader(bytes.at(at++), out)) {
            return false;
        }
    }
    return true;
}

bool IncomingPackets::addToHeader(char byte, QByteArray& out)
{
    m_header.append(byte);
    if (m_header.size() == 1) {
        const int type = typeOf(byte);
        if (!m_isAnswered && type != ConnectAnswer && type != Disconnect)
            return refuse(QStringLiteral("what answers there is no MQTT broker"));
        if (m_isAnswered && !isSentByBrokers(type))
            return refuse(QStringLiteral("the broker sent a packet of type %1, which no broker "
                                         "sends to this client")
                              .arg(type));
        return true;
    }
    if ((static_cast<unsigned char>(byte) & 0x80) != 0)
        return m_header.size() < kLongestHeader ||
               refuse(QStringLiteral("the broker sent a packet with a length that is not MQTT's"));
    qint64 length = 0;
    for (int i = m_header.size() - 1; i > 0; --i)
        length = length * 128 + (static_cast<unsigned char>(m_header.at(i)) & 0x7f);
    return beginPacket(length, out);
}

bool IncomingPackets::beginPacket(qint64 length, QByteArray& out)
{
    const char first = m_header.at(0);
    m_isAnswered = true;
    m_passing = length;
    if (typeOf(first) == Message) {
        if (((static_cast<unsigned char>(first) >> 1) & 3) > 1)
            return refuse(QStringLiteral("the broker sent a message with a QoS that was not asked "
                                         "for"));
        if (length > kLongestMessage) {
            m_passing = kLongestMessage;
            m_dropping = length - kLongestMessage;
            m_cut.push_back(m_messages);
        }
        ++m_messages;
    } else if (length > kLongestOther) {
        return refuse(QStringLiteral("the broker sent a packet of type %1 with %2 bytes")
                          .arg(typeOf(first))
                          .arg(length));
    }
    out.append(first);
    out.append(encodedLength(m_passing));
    m_header.clear();
    return true;
}

bool IncomingPackets::takeIsCut()
{
    const qint64 index = m_delivered++;
    if (m_cut.empty() || m_cut.front() != index)
        return false;
    m_cut.pop_front();
    return true;
}

} // namespace micro850::gateway
