#include "FrameText.h"

#include "CipType.h"
#include "CipValue.h"
#include "DateText.h"
#include "DurationText.h"
#include "Visible.h"

#include <optional>

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
    {0x0A, "error in the attribute list"},
    {0x0B, "already in the requested mode or state"},
    {0x0C, "object state conflict"},
    {0x0D, "object already exists"},
    {0x0E, "attribute not settable"},
    {0x0F, "privilege violation"},
    {0x10, "device state conflict"},
    {0x11, "reply too large"},
    {0x12, "fragmentation of a primitive value"},
    {0x13, "not enough data"},
    {0x14, "attribute not supported"},
    {0x15, "too much data"},
    {0x16, "object does not exist"},
    {0x19, "data could not be stored"},
    {0x1A, "request too large for routing"},
    {0x1B, "reply too large for routing"},
    {0x1C, "missing attribute list entry"},
    {0x1E, "embedded service error"},
    {0x1F, "vendor-specific error"},
    {0x20, "invalid parameter"},
    {0x25, "key failure in the path"},
    {0x26, "invalid path size"},
    {0x27, "unexpected attribute in the list"},
    {0xFF, "general error"},
};

// What some of them mean when a tag is read or written.
struct TagStatus
{
    quint8 status;
    const char* text;
    const char* hint;
};

const TagStatus kTagStatuses[] = {
    {0x04, "path segment error", "the controller does not understand the name or the index"},
    {0x05, "no such tag", "names are as in the controller's program"},
    {0x0E, "attribute not settable", "the tag may be read-only"},
    {0x0F, "privilege violation", "the controller does not allow the access"},
    {0x10, "device state conflict", "the controller's mode may not allow it"},
};

// First words of the extended status: of the connection failure, and of the general error.
struct ExtendedName
{
    quint8 status;
    quint16 extended;
    const char* text;
};

const ExtendedName kExtendedNames[] = {
    {0x01, 0x0100, "connection in use"},
    {0x01, 0x0103, "transport class and trigger not supported"},
    {0x01, 0x0106, "owned by another originator"},
    {0x01, 0x0107, "connection not found"},
    {0x01, 0x0108, "invalid connection type"},
    {0x01, 0x0109, "invalid connection size"},
    {0x01, 0x0110, "connection target not configured"},
    {0x01, 0x0111, "requested packet interval not supported"},
    {0x01, 0x0112, "requested packet interval not acceptable"},
    {0x01, 0x0113, "out of connections"},
    {0x01, 0x0114, "vendor or product code does not match"},
    {0x01, 0x0115, "device type does not match"},
    {0x01, 0x0116, "revision does not match"},
    {0x01, 0x0117, "invalid produced or consumed path"},
    {0x01, 0x0118, "invalid configuration path"},
    {0x01, 0x0119, "no controlling connection is open"},
    {0x01, 0x011A, "target object out of connections"},
    {0x01, 0x011B, "interval shorter than the production inhibit time"},
    {0x01, 0x011C, "transport class not supported"},
    {0x01, 0x011D, "production trigger not supported"},
    {0x01, 0x011E, "direction not supported"},
    {0x01, 0x011F, "fixed or variable size to the target not accepted"},
    {0x01, 0x0120, "fixed or variable size to the originator not accepted"},
    {0x01, 0x0121, "priority to the target not accepted"},
    {0x01, 0x0122, "priority to the originator not accepted"},
    {0x01, 0x0123, "connection type to the target not accepted"},
    {0x01, 0x0124, "connection type to the originator not accepted"},
    {0x01, 0x0125, "redundant owner not accepted"},
    {0x01, 0x0126, "invalid configuration size"},
    {0x01, 0x0127, "invalid size to the target"},
    {0x01, 0x0128, "invalid size to the originator"},
    {0x01, 0x0129, "invalid configuration path"},
    {0x01, 0x012A, "invalid consumed path"},
    {0x01, 0x012B, "invalid produced path"},
    {0x01, 0x0132, "connection without data not supported"},
    {0x01, 0x0133, "time-out multiplier not acceptable"},
    {0x01, 0x0203, "connection timed out"},
    {0x01, 0x0204, "unconnected request timed out"},
    {0x01, 0x0205, "wrong parameter in an unconnected request"},
    {0x01, 0x0206, "message too large for an unconnected request"},
    {0x01, 0x0207, "acknowledged without a reply"},
    {0x01, 0x0301, "no buffer memory available"},
    {0x01, 0x0302, "no bandwidth available"},
    {0x01, 0x0303, "no connection filter available"},
    {0x01, 0x0304, "not configured for scheduled data"},
    {0x01, 0x0305, "schedule signature does not match"},
    {0x01, 0x0306, "schedule signature cannot be checked"},
    {0x01, 0x0311, "port in the path not available"},
    {0x01, 0x0312, "link address in the path not valid"},
    {0x01, 0x0315, "invalid segment in the path"},
    {0x01, 0x0316, "path of the close request does not match"},
    {0x01, 0x0317, "scheduling not specified"},
    {0x01, 0x0318, "link address of itself not valid"},
    {0x01, 0x0319, "secondary resources not available"},
    {0x01, 0x031A, "rack connection already open"},
    {0x01, 0x031B, "module connection already open"},
    {0x01, 0x031C, "miscellaneous connection error"},
    {0x01, 0x031D, "redundant connection does not match"},
    {0xFF, 0x2104, "offset beyond the end of the tag"},
    {0xFF, 0x2105, "access beyond the end of the tag"},
    {0xFF, 0x2107, "type does not match the tag"},
};

// Of more words than any status has, only the first are shown.
const int kMostExtendedWords = 8;

bool isOfTag(const Reply& reply)
{
    return reply.service == kReadTagFragmented || reply.service == kWriteTagFragmented;
}

const TagStatus* tagStatusOf(const Reply& reply)
{
    for (const TagStatus& each : kTagStatuses) {
        if (isOfTag(reply) && reply.extendedStatus.isEmpty() && each.status == reply.generalStatus)
            return &each;
    }
    return nullptr;
}

QString generalName(quint8 status)
{
    for (const StatusName& name : kStatusNames) {
        if (name.status == status)
            return QString::fromLatin1(name.text);
    }
    return QStringLiteral("refused");
}

QString nameOf(const Reply& reply)
{
    if (reply.linkStatus != 0)
        return QStringLiteral("refused by the link layer");
    const QString general = generalName(reply.generalStatus);
    if (reply.extendedStatus.isEmpty())
        return general;
    const quint16 extended = reply.extendedStatus.first();
    for (const ExtendedName& name : kExtendedNames) {
        if (name.status == reply.generalStatus && name.extended == extended)
            return QString::fromLatin1(name.text);
    }
    return general + QStringLiteral(", extended status %1").arg(hex(extended, 4));
}

// The status with all words of the extended status: "05", "FF/2105", "01/0109/01F4".
QString codesOf(const Reply& reply)
{
    if (reply.linkStatus != 0)
        return hex(reply.linkStatus, 2);
    QString codes = hex(reply.generalStatus, 2);
    for (int i = 0; i < reply.extendedStatus.size() && i < kMostExtendedWords; ++i)
        codes += QLatin1Char('/') + hex(reply.extendedStatus.at(i), 4);
    return codes;
}

// Of more values in a line only the first are shown.
const int kMostValues = 16;

QString valueText(const CipType& type, const char* bytes, int size)
{
    const CipValue value = CipValue::decode(type, reinterpret_cast<const std::uint8_t*>(bytes),
                                            static_cast<std::size_t>(size));
    if (const int perUnit = microsecondsPerUnit(type))
        return QString::fromStdString(durationText(value.signedNumber() * perUnit));
    const std::optional<std::string> date =
        dateExample(type) ? dateText(type, value.unsignedNumber()) : std::nullopt;
    const std::string text = date ? *date : value.text();
    const QString shown = QString::fromLatin1(text.data(), static_cast<int>(text.size()));
    return type.kind == CipKind::String ? visibleValue(shown) : shown;
}

QString replyText(const Reply& reply)
{
    QString text = QStringLiteral("TNS %1 %2 reply").arg(reply.tns).arg(serviceText(reply.service));
    if (!reply.good())
        return text + QStringLiteral(": ") + statusText(reply);
    if (reply.service != kReadTagFragmented)
        return text;
    return text + QStringLiteral(": ") + valuesText(reply.typeCode(), reply.values());
}

} // namespace

QString serviceText(quint8 service)
{
    switch (service) {
    case kGetAttributesAll:
        return QStringLiteral("identity");
    case kForwardOpen:
        return QStringLiteral("open connection");
    case kForwardClose:
        return QStringLiteral("close connection");
    case kReadTagFragmented:
        return QStringLiteral("read");
    case kWriteTagFragmented:
        return QStringLiteral("write");
    default:
        return QStringLiteral("service %1").arg(service, 2, 16, QLatin1Char('0'));
    }
}

QStringList valueTexts(quint16 typeCode, const ByteSlice& values)
{
    const CipType* const type = cipTypeOf(typeCode);
    QStringList texts;
    if (!type || values.isEmpty())
        return texts;
    const int size = type->kind == CipKind::String ? values.size() : type->size;
    for (int at = 0; at + size <= values.size(); at += size)
        texts += valueText(*type, values.begin() + at, size);
    return texts;
}

QString valuesText(quint16 typeCode, const ByteSlice& values)
{
    const CipType* const type = cipTypeOf(typeCode);
    if (!type)
        return QStringLiteral("type %1, %2 bytes").arg(hex(typeCode, 4)).arg(values.size());
    QStringList texts = valueTexts(typeCode, values);
    const int count = texts.size();
    if (count == 0)
        return QStringLiteral("%1, %2 bytes").arg(QLatin1String(type->name)).arg(values.size());
    texts = texts.mid(0, kMostValues);
    if (count > kMostValues)
        texts += QStringLiteral("... (%1 values)").arg(count);
    return QLatin1String(type->name) + ' ' + texts.join(' ');
}

QString requestText(const Request& request)
{
    const QString text = serviceText(request.service);
    if (request.name.isEmpty())
        return text;
    return text + QStringLiteral(" %1[%2] x%3")
                      .arg(request.tag(), QString::number(request.element),
                           QString::number(request.count));
}

namespace {

QString messageText(const ByteSlice& data)
{
    const Reply reply = decodeReply(data);
    const Request request = decodeRequest(data);
    if (!reply.valid || !request.valid)
        return QStringLiteral("no frame");
    if ((reply.command & kReplyCommandBit) != 0)
        return replyText(reply);
    const QString text = QStringLiteral("TNS %1 ").arg(request.tns) + requestText(request);
    if (request.service != kWriteTagFragmented || request.name.isEmpty())
        return text;
    return text + QStringLiteral(": ") + valuesText(request.typeCode, request.values);
}

} // namespace

QString controlText(ReplyCollector::Kind kind)
{
    return kind == ReplyCollector::Kind::Nak ? QStringLiteral("NAK: not received intact")
                                             : QStringLiteral("ENQ: asks for the last response");
}

// The last event counts: controls can come before a frame and within it.
QString frameText(const QByteArray& frame)
{
    const ReplyCollector::Events events = ReplyCollector().feed(frame);
    if (events.isEmpty())
        return frame == linkControl(kAck) ? QStringLiteral("ACK") : QStringLiteral("no frame");
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
    if (const TagStatus* status = reply.linkStatus == 0 ? tagStatusOf(reply) : nullptr) {
        return QStringLiteral("%1 (%2; status %3)")
            .arg(QLatin1String(status->text), QLatin1String(status->hint), codesOf(reply));
    }
    return QStringLiteral("%1 (status %2)").arg(nameOf(reply), codesOf(reply));
}

QString statusPhrase(const Reply& reply)
{
    return reply.good() ? QString()
                        : QStringLiteral("%1, status %2").arg(nameOf(reply), codesOf(reply));
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
