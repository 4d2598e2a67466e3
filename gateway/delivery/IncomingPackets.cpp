#include "IncomingPackets.h"

#include <algorithm>
#include <utility>

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

/// Reads a packet from its front; what is not there makes it bad.
class Reader
{
public:
    Reader(const QByteArray& bytes, int at) : m_bytes(bytes), m_at(at) {}

    bool isGood() const { return m_at <= m_bytes.size(); }
    bool isAtEnd() const { return m_at >= m_bytes.size(); }
    int position() const { return m_at; }
    void skip(int count) { m_at += count; }
    int byte()
    {
        const int value = m_at < m_bytes.size() ? static_cast<unsigned char>(m_bytes.at(m_at)) : 0;
        ++m_at;
        return value;
    }
    int word()
    {
        const int high = byte();
        return high * 256 + byte();
    }
    int number()
    {
        int value = 0;
        for (int shift = 0; shift < 28; shift += 7) {
            const int part = byte();
            value |= (part & 0x7f) << shift;
            if ((part & 0x80) == 0)
                return value;
        }
        m_at = m_bytes.size() + 1;
        return 0;
    }

private:
    const QByteArray& m_bytes;
    int m_at;
};

enum PropertyType { kUnknown, kByte, kWord, kLong, kNumber, kText, kTwoTexts };

// Of the properties that MQTT 5 has, by their identifiers.
PropertyType propertyType(int identifier)
{
    switch (identifier) {
    case 1:
    case 23:
    case 25:
    case 36:
    case 37:
    case 40:
    case 41:
    case 42:
        return kByte;
    case 19:
    case 33:
    case 34:
    case 35:
        return kWord;
    case 2:
    case 17:
    case 24:
    case 39:
        return kLong;
    case 11:
        return kNumber;
    case 3:
    case 8:
    case 9:
    case 18:
    case 21:
    case 22:
    case 26:
    case 28:
    case 31:
        return kText;
    case 38:
        return kTwoTexts;
    default:
        return kUnknown;
    }
}

// Moves the reader behind a property. False when MQTT has none like it.
bool skipProperty(Reader& reader)
{
    switch (propertyType(reader.number())) {
    case kByte:
        reader.skip(1);
        return true;
    case kWord:
        reader.skip(2);
        return true;
    case kLong:
        reader.skip(4);
        return true;
    case kNumber:
        reader.number();
        return true;
    case kTwoTexts:
        reader.skip(reader.word());
        if (!reader.isGood())
            return false;
        reader.skip(reader.word());
        return true;
    case kText:
        reader.skip(reader.word());
        return true;
    case kUnknown:
        break;
    }
    return false;
}

// Where the properties of a packet of MQTT 5 begin.
int propertiesOf(char first, const QByteArray& body)
{
    switch (typeOf(first)) {
    case Message: {
        Reader reader(body, 0);
        const int topic = reader.word();
        const bool hasIdentifier = (static_cast<unsigned char>(first) & 6) != 0;
        return 2 + topic + (hasIdentifier ? 2 : 0);
    }
    case MessageAnswer:
        return 3;
    case Disconnect:
        return 1;
    default:
        return 2;
    }
}

const int kCorrelation = 9;

// The correlation of a message as the property that it came in, and nothing else of its properties.
// They may be cut off anywhere.
QByteArray correlationIn(const QByteArray& body, int properties)
{
    Reader reader(body, properties);
    reader.number();
    while (reader.isGood() && !reader.isAtEnd()) {
        const int begin = reader.position();
        const bool isIt = body.at(begin) == kCorrelation;
        if (!skipProperty(reader) || !reader.isGood())
            break;
        if (isIt)
            return body.mid(begin, reader.position() - begin);
    }
    return {};
}

bool hasGoodProperties(char first, const QByteArray& body)
{
    Reader reader(body, propertiesOf(first, body));
    // They may be absent; the library knows where they may not.
    if (reader.isAtEnd())
        return true;
    const int length = reader.number();
    const int end = reader.position() + length;
    while (reader.isGood() && reader.position() < end) {
        if (!skipProperty(reader))
            return false;
    }
    return reader.isGood() && reader.position() == end;
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
        if (m_missing > 0) {
            const int count = std::min(left, m_missing);
            m_body.append(bytes.constData() + at, count);
            m_missing -= count;
            at += count;
            if (m_missing == 0 && !finishPacket(out))
                return false;
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
    m_first = m_header.at(0);
    m_header.clear();
    m_isAnswered = true;
    if (typeOf(m_first) == Message) {
        if (((static_cast<unsigned char>(m_first) >> 1) & 3) > 1)
            return refuse(QStringLiteral("the broker sent a message with a QoS that was not asked "
                                         "for"));
        if (length > kLongestMessage) {
            m_dropping = length - kLongestMessage;
            m_isLong = true;
            m_cut.push_back(m_messages);
        }
        ++m_messages;
    } else if (length > kLongestOther) {
        return refuse(QStringLiteral("the broker sent a packet of type %1 with %2 bytes")
                          .arg(typeOf(m_first))
                          .arg(length));
    }
    m_missing = static_cast<int>(length - m_dropping);
    return m_missing > 0 || finishPacket(out);
}

// A part of a payload could be taken for all of it, and the properties need not be there whole: who
// reads the message learns its topic, and whom to answer.
void IncomingPackets::shorten()
{
    const int properties = propertiesOf(m_first, m_body);
    const QByteArray correlation = m_isVersion5 ? correlationIn(m_body, properties) : QByteArray();
    m_body.truncate(properties);
    if (m_isVersion5)
        m_body += encodedLength(correlation.size()) + correlation;
}

bool IncomingPackets::finishPacket(QByteArray& out)
{
    if (std::exchange(m_isLong, false))
        shorten();
    if (m_isVersion5 && !hasGoodProperties(m_first, m_body))
        return refuse(QStringLiteral("the broker sent a packet of type %1 with properties that are "
                                     "not MQTT's")
                          .arg(typeOf(m_first)));
    out.append(m_first);
    out.append(encodedLength(m_body.size()));
    out.append(m_body);
    m_body.clear();
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
