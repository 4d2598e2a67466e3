#include "FrameText.h"

#include "CipType.h"

namespace micro850::host {

namespace {

QString hex(unsigned value, int digits)
{
    return QString::number(value, 16).toUpper().rightJustified(digits, QLatin1Char('0'));
}

struct StatusName
{
    quint8 status;
    const char* text;
};

// General status codes that a controller of this kind answers with.
const StatusName kStatusNames[] = {
    {0x01, "connection failure"},
    {0x02, "resource unavailable"},
    {0x03, "invalid parameter value"},
    {0x04, "path segment error"},
    {0x05, "path destination unknown"},
    {0x06, "partial transfer"},
    {0x07, "connection lost"},
    {0x08, "service not supported"},
    {0x09, "invalid attribute value"},
    {0x0C, "object state conflict"},
    {0x0D, "object already exists"},
    {0x0E, "attribute not settable"},
    {0x0F, "privilege violation"},
    {0x10, "device state conflict"},
    {0x11, "reply too large"},
    {0x13, "not enough data"},
    {0x14, "attribute not supported"},
    {0x15, "too much data"},
    {0x16, "object does not exist"},
    {0x1A, "request too large for routing"},
    {0x1B, "reply too large for routing"},
    {0x1E, "embedded service error"},
    {0x1F, "vendor-specific error"},
    {0x20, "invalid parameter"},
    {0x26, "invalid path size"},
    {0xFF, "general error"},
};

// Extended status words of the vendor-specific general error, and of the connection failure.
struct ExtendedName
{
    quint8 status;
    quint16 extended;
    const char* text;
};

const ExtendedName kExtendedNames[] = {
    {0x01, 0x0100, "connection in use"},
    {0x01, 0x0107, "connection not found"},
    {0x01, 0x0113, "out of connections"},
    {0x01, 0x0203, "connection timed out"},
    {0xFF, 0x2104, "offset beyond the end of the tag"},
    {0xFF, 0x2105, "access beyond the end of the tag"},
    {0xFF, 0x2107, "type does not match the tag"},
};

QString nameOf(const Reply& reply)
{
    for (const ExtendedName& name : kExtendedNames) {
        if (name.status == reply.generalStatus && !reply.extendedStatus.isEmpty() &&
            name.extended == reply.extendedStatus.first())
            return QString::fromLatin1(name.text);
    }
    for (const StatusName& name : kStatusNames) {
        if (name.status == reply.generalStatus)
            return QString::fromLatin1(name.text);
    }
    return QStringLiteral("refused");
}

QString serviceText(quint8 service)
{
    switch (service) {
    case kGetAttributesAll:
        return QStringLiteral("identity");
    case kForwardOpen:
        return QStringLiteral("open connection");
    case kReadTagFragmented:
        return QStringLiteral("read");
    case kWriteTagFragmented:
        return QStringLiteral("write");
    default:
        return QStringLiteral("service %1").arg(service, 2, 16, QLatin1Char('0'));
    }
}

QString replyText(const Reply& reply)
{
    QString text = QStringLiteral("TNS %1 %2 reply").arg(reply.tns).arg(serviceText(reply.service));
    if (!reply.good())
        return text + QStringLiteral(": ") + statusText(reply);
    if (reply.service != kReadTagFragmented)
        return text;
    const CipType* type = cipTypeOf(reply.typeCode());
    return text + QStringLiteral(": %1, %2 bytes")
                      .arg(type ? QString::fromLatin1(type->name)
                                : QStringLiteral("type %1").arg(reply.typeCode(), 4, 16))
                      .arg(reply.values().size());
}

} // namespace

QString requestText(const Request& request)
{
    const QString text = serviceText(request.service);
    if (request.tag.isEmpty())
        return text;
    return text +
           QStringLiteral(" %1[%2] x%3")
               .arg(request.tag, QString::number(request.element), QString::number(request.count));
}

namespace {

QString messageText(const QByteArray& data)
{
    const Reply reply = decodeReply(data);
    const Request request = decodeRequest(data);
    if (!reply.valid || !request.valid)
        return QStringLiteral("no frame");
    return (reply.command & kReplyCommandBit) != 0
               ? replyText(reply)
               : QStringLiteral("TNS %1 ").arg(request.tns) + requestText(request);
}

} // namespace

QString controlText(ReplyCollector::Kind kind)
{
    if (kind == ReplyCollector::Kind::Nak)
        return QStringLiteral("NAK: not received intact");
    if (kind == ReplyCollector::Kind::Enq)
        return QStringLiteral("ENQ: asks for the last response");
    return QStringLiteral("ACK");
}

// The last event counts: controls can come before a frame and within it.
QString frameText(const QByteArray& frame)
{
    const QList<ReplyCollector::Event> events = ReplyCollector().feed(frame);
    if (events.isEmpty())
        return QStringLiteral("no frame");
    const ReplyCollector::Event& last = events.last();
    if (last.kind == ReplyCollector::Kind::Frame)
        return messageText(last.data);
    return last.kind == ReplyCollector::Kind::Corrupt ? QStringLiteral("corrupt frame")
                                                      : controlText(last.kind);
}

QString statusText(const Reply& reply)
{
    if (reply.good())
        return QString();
    if (reply.linkStatus != 0)
        return QStringLiteral("refused by the link layer (status %1)")
            .arg(hex(reply.linkStatus, 2));
    return QStringLiteral("%1 (status %2)").arg(nameOf(reply), statusKey(reply));
}

QString statusKey(const Reply& reply)
{
    if (reply.good())
        return QString();
    if (reply.linkStatus != 0)
        return QStringLiteral("link %1").arg(hex(reply.linkStatus, 2));
    QString key = hex(reply.generalStatus, 2);
    if (!reply.extendedStatus.isEmpty())
        key += QLatin1Char('/') + hex(reply.extendedStatus.first(), 4);
    return key;
}

} // namespace micro850::host
