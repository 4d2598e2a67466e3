#include "FrameFields.h"

#include "CipType.h"
#include "FrameText.h"
#include "Visible.h"

#include <algorithm>

namespace micro850::host {

namespace {

QString hex(unsigned value, int digits)
{
    return QString::number(value, 16).toUpper().rightJustified(digits, QLatin1Char('0'));
}

/// Splits a message into controls, data and CRC.
class LinkReader
{
public:
    explicit LinkReader(const QByteArray& message) : m_message(message)
    {
        while (m_at < m_message.size())
            step();
    }

    QVector<FrameField> fields; ///< all but those of the data
    /// The bytes of the data, without names: each has one or two bytes on the line.
    QVector<FrameField> bytes;
    QByteArray data;

private:
    void step()
    {
        const char first = m_message.at(m_at);
        const bool isPair = first == kDle && m_at + 1 < m_message.size();
        if (!isPair && m_inFrame)
            addData(1, first);
        else if (!isPair)
            add(1, QStringLiteral("noise"), QStringLiteral("no part of a message"));
        else if (m_inFrame && m_message.at(m_at + 1) == kDle)
            addData(2, kDle);
        else
            addControl(m_message.at(m_at + 1));
    }
    void add(int size, const QString& name, const QString& meaning)
    {
        fields.append({m_at, m_message.mid(m_at, size), name, meaning});
        m_at += size;
    }
    void addData(int size, char value)
    {
        bytes.append({m_at, m_message.mid(m_at, size), QString(), QString()});
        data += value;
        m_at += size;
    }
    void addControl(char control)
    {
        switch (control) {
        case kAck:
            return add(2, QStringLiteral("DLE ACK"),
                       QStringLiteral("the message before came intact"));
        case kNak:
            return add(2, QStringLiteral("DLE NAK"),
                       QStringLiteral("the message before did not come intact"));
        case kEnq:
            return add(2, QStringLiteral("DLE ENQ"), QStringLiteral("asks for the last response"));
        case kStx:
            m_inFrame = true;
            return add(2, QStringLiteral("DLE STX"), QStringLiteral("the data begin"));
        case kEtx:
            m_inFrame = false;
            add(2, QStringLiteral("DLE ETX"), QStringLiteral("the data end"));
            return addCrc();
        default:
            return add(2, QStringLiteral("DLE ") + hex(static_cast<quint8>(control), 2),
                       QStringLiteral("not allowed here"));
        }
    }
    void addCrc()
    {
        const int crcBytes = 2;
        const ByteSlice rest(m_message);
        if (m_message.size() - m_at < crcBytes)
            return;
        const quint16 right = frameCrc(data);
        const auto found = static_cast<quint16>(rest.at(m_at) | rest.at(m_at + 1) << 8);
        add(crcBytes, QStringLiteral("CRC"),
            hex(found, 4) +
                (found == right
                     ? QStringLiteral(", right")
                     : QStringLiteral(", wrong: %1 is right for these data").arg(hex(right, 4))));
    }

    const QByteArray& m_message;
    int m_at = 0;
    bool m_inFrame = false;
};

/// Names the bytes of the data one after the other.
class DataReader
{
public:
    DataReader(const LinkReader& link, const Request& request)
        : m_link(link), m_data(link.data), m_request(request)
    {
    }

    QVector<FrameField> read()
    {
        readHeader();
        return m_fields;
    }

private:
    bool atEnd() const { return m_at >= m_data.size(); }
    unsigned number(int size) const
    {
        unsigned value = 0;
        for (int i = size - 1; i >= 0; --i)
            value = value << 8 | m_data.at(m_at + i);
        return value;
    }
    // A field of at most this size; none behind the end.
    void take(int size, const QString& name, const QString& meaning = QString())
    {
        const int end = std::min(m_at + size, m_data.size());
        if (end <= m_at)
            return;
        FrameField field = {m_link.bytes.at(m_at).offset, QByteArray(), name, meaning};
        for (; m_at < end; ++m_at)
            field.bytes += m_link.bytes.at(m_at).bytes;
        m_fields.append(field);
    }
    void takeNumber(int size, const char* name) { take(size, name, QString::number(number(size))); }
    void takeHex(int size, const char* name) { take(size, name, hex(number(size), 2 * size)); }
    void takeRest(const char* name) { take(m_data.size() - m_at, name); }

    void readHeader();
    void readRequest(quint8 service);
    void readPath();
    void readSegment(int end);
    void readOpen();
    void readClose();
    void readReply(quint8 service);
    void readIdentity();
    void readOpened();
    void readValues(quint16 typeCode, const Request& elements);

    const LinkReader& m_link;
    const ByteSlice m_data;
    const Request& m_request;
    QVector<FrameField> m_fields;
    int m_at = 0;
};

QString commandText(quint8 command)
{
    const QString kind = (command & ~kReplyCommandBit) == 0x0A ? QStringLiteral("connected message")
                         : (command & ~kReplyCommandBit) == 0x0B
                             ? QStringLiteral("unconnected message")
                             : QStringLiteral("not known");
    return kind + ((command & kReplyCommandBit) != 0 ? QStringLiteral(", reply") : QString());
}

void DataReader::readHeader()
{
    take(1, "destination", QStringLiteral("node %1").arg(m_data.at(m_at)));
    take(1, "source", QStringLiteral("node %1").arg(m_data.at(m_at)));
    const quint8 command = m_data.at(m_at);
    take(1, "command", commandText(command));
    const quint8 status = m_data.at(m_at);
    take(1, "link status",
         status == 0 ? QStringLiteral("good") : QStringLiteral("refused by the link layer"));
    takeNumber(2, "TNS");
    take(2, "reserved");
    if ((command & ~kReplyCommandBit) == 0x0A) {
        takeHex(2, "connection");
        takeNumber(1, "sequence");
        take(1, "reserved");
    }
    if (atEnd())
        return;
    const quint8 service = m_data.at(m_at);
    const bool isReply = (command & kReplyCommandBit) != 0;
    take(1, "service",
         serviceText(static_cast<quint8>(service & ~kReplyBit)) +
             (isReply ? QStringLiteral(", reply") : QString()));
    if (isReply)
        readReply(static_cast<quint8>(service & ~kReplyBit));
    else
        readRequest(service);
    takeRest("data");
}

void DataReader::readRequest(quint8 service)
{
    const Request request = decodeRequest(m_data.bytes());
    readPath();
    switch (service) {
    case kReadTagFragmented:
        takeNumber(2, "elements");
        return takeNumber(4, "byte offset");
    case kWriteTagFragmented: {
        const CipType* const type = cipTypeOf(static_cast<quint16>(number(2)));
        take(2, "type", type ? QString::fromLatin1(type->name) : QStringLiteral("not known"));
        takeNumber(2, "elements");
        takeNumber(4, "byte offset");
        return readValues(request.typeCode, request);
    }
    case kForwardOpen:
        return readOpen();
    case kForwardClose:
        return readClose();
    default:
        return;
    }
}

void DataReader::readPath()
{
    const int words = m_data.at(m_at);
    take(1, "path size",
         words == 1 ? QStringLiteral("1 word") : QStringLiteral("%1 words").arg(words));
    const int end = std::min(m_at + 2 * words, m_data.size());
    while (m_at < end)
        readSegment(end);
}

void DataReader::readSegment(int end)
{
    const quint8 kind = m_data.at(m_at);
    const quint8 next = m_data.at(m_at + 1);
    const auto padded = [this](int at) {
        return at + 1 < m_data.size() ? m_data.at(at) | m_data.at(at + 1) << 8 : 0;
    };
    switch (kind) {
    case 0x91: {
        const ByteSlice name = m_data.mid(m_at + 2, next);
        return take(std::min(2 + next + next % 2, end - m_at), "tag",
                    visible(QString::fromLatin1(name.begin(), name.size())));
    }
    case 0x20:
        return take(2, "class", QString::number(next));
    case 0x24:
        return take(2, "instance", QString::number(next));
    case 0x28:
        return take(2, "element", QString::number(next));
    case 0x29:
        return take(4, "element", QString::number(padded(m_at + 2)));
    case 0x2A:
    case 0x30: // as the driver sends an element of four bytes
        return take(6, "element",
                    QString::number(padded(m_at + 2) + (unsigned(padded(m_at + 4)) << 16)));
    default:
        return take(end - m_at, "path");
    }
}

void DataReader::readOpen()
{
    take(2, "time", QStringLiteral("tick and ticks"));
    takeHex(4, "connection there");
    takeHex(4, "connection back");
    takeHex(2, "connection serial");
    takeHex(2, "vendor");
    takeHex(4, "originator serial");
    take(1, "multiplier",
         QStringLiteral("time-out is %1 intervals")
             .arg(4u << std::min<unsigned>(m_data.at(m_at), 7)));
    take(3, "reserved");
    for (const char* const way : {"there", "back"}) {
        take(4, QStringLiteral("interval ") + way, QStringLiteral("%1 ms").arg(number(4) / 1000.0));
        take(2, QStringLiteral("parameters ") + way, hex(number(2), 4));
    }
    takeHex(1, "transport");
    readPath();
}

void DataReader::readClose()
{
    take(2, "time", QStringLiteral("tick and ticks"));
    takeHex(2, "connection serial");
    takeHex(2, "vendor");
    takeHex(4, "originator serial");
    const int words = m_data.at(m_at);
    take(1, "path size", QStringLiteral("%1 words").arg(words));
    take(1, "reserved");
    const int end = std::min(m_at + 2 * words, m_data.size());
    while (m_at < end)
        readSegment(end);
}

void DataReader::readReply(quint8 service)
{
    const Reply reply = decodeReply(m_data);
    take(1, "reserved");
    take(1, "general status", reply.good() ? QStringLiteral("good") : statusText(reply));
    const int words = m_data.at(m_at);
    take(1, "status words", QString::number(words));
    for (int i = 0; i < words && !atEnd(); ++i)
        takeHex(2, "extended status");
    if (!reply.good())
        return;
    if (service == kReadTagFragmented) {
        const quint16 code = reply.typeCode();
        const CipType* const type = cipTypeOf(code);
        take(2, "type", type ? QString::fromLatin1(type->name) : QStringLiteral("not known"));
        return readValues(code, m_request);
    }
    if (service == kGetAttributesAll)
        return readIdentity();
    if (service == kForwardOpen)
        readOpened();
}

void DataReader::readIdentity()
{
    takeNumber(2, "vendor");
    takeNumber(2, "device type");
    takeNumber(2, "product");
    take(2, "revision", QStringLiteral("%1.%2").arg(m_data.at(m_at)).arg(m_data.at(m_at + 1)));
    takeHex(2, "status");
    takeHex(4, "serial number");
    const int length = m_data.at(m_at);
    const ByteSlice name = m_data.mid(m_at + 1, length);
    take(1 + length, "name", visible(QString::fromLatin1(name.begin(), name.size())));
}

void DataReader::readOpened()
{
    takeHex(4, "connection there");
    takeHex(4, "connection back");
    takeHex(2, "connection serial");
    takeHex(2, "vendor");
    takeHex(4, "originator serial");
    for (const char* const way : {"there", "back"})
        take(4, QStringLiteral("interval ") + way, QStringLiteral("%1 ms").arg(number(4) / 1000.0));
    take(1, "reply size", QStringLiteral("%1 words").arg(m_data.at(m_at)));
    take(1, "reserved");
}

void DataReader::readValues(quint16 typeCode, const Request& elements)
{
    const CipType* const type = cipTypeOf(typeCode);
    const QStringList texts = valueTexts(typeCode, m_data.mid(m_at));
    const int size = type && type->kind != CipKind::String ? type->size : m_data.size() - m_at;
    for (int i = 0; i < texts.size(); ++i) {
        const QString name = elements.name.isEmpty()
                                 ? QStringLiteral("value %1").arg(i)
                                 : visible(elements.tag()) +
                                       QStringLiteral("[%1]").arg(elements.element + quint32(i));
        take(size, name, texts.at(i));
    }
}

} // namespace

QVector<FrameField> frameFields(const QByteArray& message, const Request& request)
{
    const LinkReader link(message);
    QVector<FrameField> fields = link.fields + DataReader(link, request).read();
    std::stable_sort(fields.begin(), fields.end(),
                     [](const FrameField& a, const FrameField& b) { return a.offset < b.offset; });
    return fields;
}

} // namespace micro850::host
