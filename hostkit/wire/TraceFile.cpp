#include "TraceFile.h"

#include "CipType.h"
#include "UserError.h"

#include <stdexcept>

namespace micro850::host {

namespace {

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

// What stands last: controls may stand in front of a frame and within it.
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

TraceFile::TraceFile(const QString& path)
{
    if (path.isEmpty())
        return;
    try {
        m_writer = TraceWriter::open(path.toStdString());
    } catch (const std::runtime_error& error) {
        throw UserError(error.what());
    }
}

Exchange::Observer TraceFile::observer() const
{
    if (!m_writer)
        return nullptr;
    const std::shared_ptr<TraceWriter> writer = m_writer;
    return [writer](Exchange::Direction direction, const QByteArray& frame, Duration) {
        TraceRecord record;
        record.time = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::system_clock::now().time_since_epoch());
        record.direction =
            direction == Exchange::Direction::Out ? Direction::Sent : Direction::Received;
        record.bytes.assign(frame.begin(), frame.end());
        record.note = frameText(frame).toStdString();
        writer->write(record);
    };
}

} // namespace micro850::host
