#include "RemoteSession.h"

#include "Elements.h"
#include "Writable.h"

#include <algorithm>

namespace micro850::host {

namespace {

// So many elements of any type fit into one reply, and the reader sees the progress.
const int kElementsAtOnce = 200;
const std::chrono::milliseconds kLook(50);
// How long a write that is taken back may still be answered.
const std::chrono::seconds kLastMoment(2);

[[noreturn]] void refuse(const GatewayRefused& error, const QString& tag)
{
    if (error.code() != errorcode::kRefused)
        throw UserError(error.what(), kExitRefused);
    const int refused = error.element();
    const QString name =
        refused > 0 ? QStringLiteral("%1[%2]").arg(tag, QString::number(refused)) : tag;
    throw TagRefused(name.toStdString(), error.why(), refused);
}

// The rules of the gateway name the variable, and so does the message that this becomes a part of.
std::string withoutName(const std::string& text, const QString& tag)
{
    const std::string name = tag.toStdString() + ": ";
    return text.compare(0, name.size(), name) == 0 ? text.substr(name.size()) : text;
}

[[noreturn]] void refuseWrite(const GatewayRefused& error, const QString& tag, int element)
{
    const std::string& code = error.code();
    if (code == errorcode::kUnknownOutcome)
        throw UserError(error.what(), kExitRefused);
    if (code == errorcode::kUnreachable || code == errorcode::kCancelled)
        throw NotWritten(error.what());
    const bool isController = code == errorcode::kRefused;
    throw TagRefused(tag.toStdString(), isController ? error.why() : withoutName(error.what(), tag),
                     isController && error.element() < 0 ? -1 : element);
}

void requireOutcome(const JsonNode& reply, const char* outcome)
{
    if (reply.at("outcome").text() != outcome)
        reply.at("outcome").fail(reply.at("outcome").found() + " is no outcome");
}

} // namespace

void RemoteSession::setInterrupt(const std::function<bool()>& interrupt)
{
    m_interrupt = interrupt;
    m_gateway.setInterrupt(interrupt);
}

Json RemoteSession::requestFor(const char* name, const TagKey& tag) const
{
    return {{"request", name},
            {"line", m_line.toStdString()},
            {"station", tag.station},
            {"tag", tag.name.toStdString()}};
}

const CipType& RemoteSession::typeOf(const TagKey& tag)
{
    const CipType*& type = m_types[tag];
    if (type)
        return *type;
    try {
        const GatewayClient::Reply reply = m_gateway.ask(requestFor("type", tag));
        type = &cipTypeNamed(reply.first().at("type").text());
    } catch (const GatewayRefused& error) {
        refuse(error, tag.name);
    }
    return *type;
}

QVector<QByteArray> RemoteSession::read(const TagKey& tag, int element, int elements,
                                        const std::function<void(int)>& progress)
{
    requireReachable(typeOf(tag), element, elements, tag.name);
    QVector<QByteArray> values;
    while (values.size() < elements) {
        const int left = elements - values.size();
        values += readRun(tag, element + values.size(), std::min(left, kElementsAtOnce));
        if (progress)
            progress(values.size());
    }
    return values;
}

QVector<QByteArray> RemoteSession::readRun(const TagKey& tag, int element, int elements)
{
    Json request = requestFor("read", tag);
    request["element"] = element;
    request["elements"] = elements;
    QVector<QByteArray> values;
    try {
        const CipType& type = *m_types.value(tag);
        for (const JsonNode& part : m_gateway.ask(request)) {
            for (const JsonNode& each : part.at("elements").elements()) {
                values.append(bytesOf(QString::fromStdString(each.text()), "elements"));
                if (type.kind != CipKind::String && values.last().size() != type.size)
                    each.fail("is not the size of " + std::string(type.name));
            }
        }
        if (values.size() == elements)
            return values;
    } catch (const GatewayRefused& error) {
        refuse(error, tag.name);
    }
    throw TagRefused(tag.name.toStdString(),
                     "the reply holds " + std::to_string(values.size()) + " of " +
                         std::to_string(elements) + " elements",
                     element + std::min(values.size(), elements - 1));
}

void RemoteSession::requireElements(const TagKey& tag, int element, int elements)
{
    requireReachable(typeOf(tag), element, elements, tag.name);
    const int last = element + elements - 1;
    if (last == 0)
        return; // learning the type has read element 0
    try {
        readRun(tag, last, 1);
    } catch (const TagRefused&) {
        if (elements > 1)
            read(tag, element, elements); // names the first one that is not there
        throw;
    }
}

Json RemoteSession::writeRequest(const TagKey& tag, int element, const QByteArray& value)
{
    const CipType& type = typeOf(tag);
    requireWritable(type, tag.name);
    requireReachable(type, element, 1, tag.name);
    Json request = requestFor("write", tag);
    request["element"] = element;
    request["bytes"] = value.toHex().toStdString();
    return request;
}

void RemoteSession::requireAllowed(const TagKey& tag, int element, const QByteArray& value)
{
    Json request = writeRequest(tag, element, value);
    request["check"] = true;
    try {
        requireOutcome(m_gateway.ask(request).first(), "allowed");
    } catch (const GatewayRefused& error) {
        refuseWrite(error, tag.name, element);
    }
}

void RemoteSession::write(const TagKey& tag, int element, const QByteArray& value)
{
    const qint64 id = m_gateway.post(writeRequest(tag, element, value));
    try {
        awaitWrite(id);
        requireOutcome(m_gateway.takeReply(id).first(), "written");
    } catch (const GatewayRefused& error) {
        if (error.code() == errorcode::kCancelled && m_interrupt && m_interrupt())
            throw NotWritten("interrupted");
        refuseWrite(error, tag.name, element);
    }
}

void RemoteSession::awaitWrite(qint64 id)
{
    while (!m_gateway.isAnswered(id)) {
        if (m_interrupt && m_interrupt()) {
            takeBack(id);
            return;
        }
        m_gateway.wait(kLook);
    }
}

// Its reply tells whether it was sent.
void RemoteSession::takeBack(qint64 id)
{
    m_gateway.forget(m_gateway.post({{"request", "cancel"}, {"of", id}}));
    const SystemClock clock;
    while (!m_gateway.isAnswered(id)) {
        if (clock.now() > kLastMoment)
            throw Interrupted();
        m_gateway.wait(kLook);
    }
}

} // namespace micro850::host
