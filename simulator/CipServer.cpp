#include "CipServer.h"

#include "CipMessage.h"
#include "Df1.h"

#include <algorithm>
#include <utility>

namespace micro850::sim {

namespace {

// Value bytes that one message carries on a connection of 504 bytes.
constexpr std::size_t kLongestValue = 480;

/// True for the path of instance 1 of a class: one class and one instance segment, 8 bits each.
bool isPath(const Bytes& path, std::uint8_t objectClass)
{
    return path == Bytes{0x20, objectClass, 0x24, 0x01};
}

} // namespace

CipServer::CipServer(const Clock& clock, TagTable& tags, Identity identity)
    : m_clock(clock), m_tags(tags), m_identity(std::move(identity))
{
}

void CipServer::reset()
{
    m_connections.clear();
    m_answers.clear();
}

std::optional<Bytes> CipServer::handle(const Bytes& message)
{
    if (message.size() <= df1::kHeaderSize)
        return std::nullopt;
    const std::uint8_t command = message[df1::kCommand];
    Bytes body;
    if (command == kUnconnectedCommand)
        body = handleUnconnected({message.begin() + df1::kHeaderSize, message.end()});
    else if (command == kConnectedCommand && message.size() > kConnectedHeaderSize)
        body = handleConnected(message);
    else
        return std::nullopt;
    Bytes reply = {message[df1::kSource], message[df1::kDestination],
                   static_cast<std::uint8_t>(command | df1::kReplyFlag), 0};
    append(reply, {message[df1::kTransactionLow], message[df1::kTransactionHigh], 0, 0});
    append(reply, body);
    return reply;
}

std::optional<CipServer::Request> CipServer::parseRequest(const Bytes& cip)
{
    ByteReader reader(cip);
    if (!reader.has(2))
        return std::nullopt;
    Request request;
    request.service = static_cast<std::uint8_t>(reader.number(1));
    const auto pathSize = static_cast<std::size_t>(2 * reader.number(1));
    if (!reader.has(pathSize))
        return std::nullopt;
    request.path = reader.bytes(pathSize);
    request.data = reader.bytes(reader.left());
    return request;
}

Bytes CipServer::encodeReply(std::uint8_t service, const Reply& reply)
{
    ++m_answers[static_cast<std::uint8_t>(reply.status)];
    Bytes cip = {static_cast<std::uint8_t>(service | kServiceReply), 0,
                 static_cast<std::uint8_t>(reply.status), 0};
    if (reply.extended != CipExtended::None) {
        cip[3] = 1;
        appendNumber(cip, static_cast<std::uint16_t>(reply.extended), 2);
    }
    append(cip, reply.data);
    return cip;
}

Bytes CipServer::handleUnconnected(const Bytes& cip)
{
    const std::optional<Request> request = parseRequest(cip);
    if (!request)
        return encodeReply(cip[0], {CipStatus::NotEnoughData, CipExtended::None, {}});
    return encodeReply(request->service, answerUnconnected(*request));
}

Bytes CipServer::handleConnected(const Bytes& message)
{
    const Bytes cip(message.begin() + kConnectedHeaderSize, message.end());
    const auto lowHalf =
        static_cast<std::uint16_t>(message[kConnection] | message[kConnection + 1] << 8);
    Connection* connection = findConnection(lowHalf);
    const std::optional<Request> request = parseRequest(cip);
    Bytes body;
    appendNumber(body, connection ? connection->originatorId : lowHalf, 2);
    append(body, {message[kSequence], message[kSequence + 1]});
    if (!connection)
        append(body,
               encodeReply(cip[0],
                           {CipStatus::ConnectionFailure, CipExtended::ConnectionNotFound, {}}));
    else if (!request)
        append(body, encodeReply(cip[0], {CipStatus::NotEnoughData, CipExtended::None, {}}));
    else
        append(body, encodeReply(request->service, answerConnected(*request)));
    return body;
}

CipServer::Reply CipServer::failure() const
{
    return {static_cast<CipStatus>(m_failure->status),
            static_cast<CipExtended>(m_failure->extended),
            {}};
}

CipServer::Reply CipServer::answerUnconnected(const Request& request)
{
    if (m_failure)
        return failure();
    const bool identity = isPath(request.path, 0x01);
    const bool connectionManager = isPath(request.path, 0x06);
    if (!identity && !connectionManager)
        return {CipStatus::PathDestinationUnknown, CipExtended::None, {}};
    if (identity && request.service == kGetAttributesAll)
        return allAttributes();
    if (connectionManager && request.service == kForwardOpen)
        return forwardOpen(request);
    if (connectionManager && request.service == kForwardClose)
        return forwardClose(request);
    return {CipStatus::ServiceNotSupported, CipExtended::None, {}};
}

CipServer::Reply CipServer::answerConnected(const Request& request)
{
    if (m_failure)
        return failure();
    switch (request.service) {
    case kReadTagFragmented:
        return readTag(request);
    case kWriteTagFragmented:
        return writeTag(request);
    case kGetAttributesAll:
        return isPath(request.path, 0x01)
                   ? allAttributes()
                   : Reply{CipStatus::PathDestinationUnknown, CipExtended::None, {}};
    default:
        return {CipStatus::ServiceNotSupported, CipExtended::None, {}};
    }
}

CipServer::Reply CipServer::allAttributes() const
{
    Reply reply;
    appendNumber(reply.data, m_identity.vendor, 2);
    appendNumber(reply.data, m_identity.deviceType, 2);
    appendNumber(reply.data, m_identity.productCode, 2);
    appendNumber(reply.data, m_identity.major, 1);
    appendNumber(reply.data, m_identity.minor, 1);
    appendNumber(reply.data, 0x0030, 2); // configured, no fault
    appendNumber(reply.data, m_identity.serial, 4);
    appendNumber(reply.data, m_identity.name.size(), 1);
    append(reply.data, Bytes(m_identity.name.begin(), m_identity.name.end()));
    return reply;
}

// The request has: priority, ticks, O->T identifier, T->O identifier, connection serial, vendor,
// originator serial, multiplier, reserved, O->T interval and parameters, T->O interval and
// parameters, transport, path.
CipServer::Reply CipServer::forwardOpen(const Request& request)
{
    ByteReader reader(request.data);
    if (!reader.has(36))
        return {CipStatus::NotEnoughData, CipExtended::None, {}};
    reader.skip(2 + 4);
    Connection connection;
    connection.originatorId = static_cast<std::uint32_t>(reader.number(4));
    connection.key = reader.bytes(8);
    const std::uint64_t multiplier = std::uint64_t{4} << (reader.number(1) & 7);
    reader.skip(3);
    const std::uint64_t toTarget = reader.number(4);
    reader.skip(2);
    const std::uint64_t toOriginator = reader.number(4);
    connection.timeout = Duration(static_cast<std::int64_t>(toTarget * multiplier));
    connection.expires = m_clock.now() + connection.timeout;
    expireConnections();
    const auto same = findOpen(connection.key);
    if (same != m_connections.end() && !m_replacesConnections)
        return {CipStatus::ConnectionFailure, CipExtended::ConnectionInUse, {}};
    if (same != m_connections.end())
        m_connections.erase(same);
    if (m_connectionLimit && m_connections.size() >= *m_connectionLimit)
        return {CipStatus::ConnectionFailure, CipExtended::OutOfConnections, {}};

    Reply reply;
    appendNumber(reply.data, m_nextConnectionId, 4);
    appendNumber(reply.data, connection.originatorId, 4);
    append(reply.data, connection.key);
    appendNumber(reply.data, toTarget, 4);
    appendNumber(reply.data, toOriginator, 4);
    appendNumber(reply.data, 0, 2);
    m_connections[m_nextConnectionId] = std::move(connection);
    m_nextConnectionId += 0x00010103;
    return reply;
}

CipServer::Reply CipServer::forwardClose(const Request& request)
{
    ByteReader reader(request.data);
    if (!reader.has(10))
        return {CipStatus::NotEnoughData, CipExtended::None, {}};
    reader.skip(2);
    const Bytes key = reader.bytes(8);
    const auto open = findOpen(key);
    if (open == m_connections.end())
        return {CipStatus::ConnectionFailure, CipExtended::ConnectionNotFound, {}};
    m_connections.erase(open);
    Reply reply;
    append(reply.data, key);
    appendNumber(reply.data, 0, 2);
    return reply;
}

std::map<std::uint32_t, CipServer::Connection>::iterator CipServer::findOpen(const Bytes& key)
{
    return std::find_if(m_connections.begin(), m_connections.end(),
                        [&](const auto& each) { return each.second.key == key; });
}

void CipServer::expireConnections()
{
    for (auto it = m_connections.begin(); it != m_connections.end();)
        it = it->second.expires <= m_clock.now() ? m_connections.erase(it) : std::next(it);
}

std::size_t CipServer::openConnections()
{
    expireConnections();
    return m_connections.size();
}

CipServer::Connection* CipServer::findConnection(std::uint16_t lowHalf)
{
    expireConnections();
    for (auto& [id, connection] : m_connections) {
        if ((id & 0xFFFF) != lowHalf)
            continue;
        connection.expires = m_clock.now() + connection.timeout;
        return &connection;
    }
    return nullptr;
}

// Accepts a symbol segment (91, length, name, pad) and at most one member segment (28 xx or
// 29 00 xx xx).
std::optional<CipServer::Reply> CipServer::locate(const Bytes& path, Target& target)
{
    const Reply segmentError = {CipStatus::PathSegmentError, CipExtended::None, {}};
    ByteReader reader(path);
    if (reader.number(1) != 0x91)
        return segmentError;
    const auto size = static_cast<std::size_t>(reader.number(1));
    if (!reader.has(size + size % 2))
        return segmentError;
    const Bytes name = reader.bytes(size);
    reader.skip(size % 2);
    if (reader.has(1)) {
        const std::uint64_t kind = reader.number(1);
        if (kind == 0x28 && reader.left() == 1)
            target.element = static_cast<std::size_t>(reader.number(1));
        else if (kind == 0x29 && reader.left() == 3 && reader.number(1) == 0)
            target.element = static_cast<std::size_t>(reader.number(2));
        else
            return segmentError;
    }
    target.tag = m_tags.find(std::string(name.begin(), name.end()));
    if (!target.tag)
        return Reply{CipStatus::PathDestinationUnknown, CipExtended::None, {}};
    if (target.element >= target.tag->elements.size())
        return Reply{CipStatus::VendorSpecific, CipExtended::BeyondObject, {}};
    return std::nullopt;
}

CipServer::Reply CipServer::readTag(const Request& request)
{
    Target target;
    if (const auto error = locate(request.path, target))
        return *error;
    if (request.data.size() != 6)
        return {request.data.size() < 6 ? CipStatus::NotEnoughData : CipStatus::TooMuchData,
                CipExtended::None,
                {}};
    ByteReader reader(request.data);
    const auto count = static_cast<std::size_t>(reader.number(2));
    const auto offset = static_cast<std::size_t>(reader.number(4));
    const Tag& tag = *target.tag;
    if (count == 0 || count > tag.elements.size() - target.element)
        return {CipStatus::VendorSpecific, CipExtended::BeyondObject, {}};

    Bytes value;
    for (std::size_t i = 0; i < count; ++i)
        append(value, tag.elements[target.element + i]);
    if (offset >= value.size())
        return {CipStatus::VendorSpecific, CipExtended::BeyondObject, {}};
    Reply reply;
    appendNumber(reply.data, tag.type->code, 2);
    const std::size_t size = std::min(value.size() - offset, kLongestValue);
    const auto first = value.begin() + static_cast<std::ptrdiff_t>(offset);
    reply.data.insert(reply.data.end(), first, first + static_cast<std::ptrdiff_t>(size));
    if (offset + size < value.size())
        reply.status = CipStatus::PartialTransfer;
    return reply;
}

namespace {

// Splits `data` into `count` elements of the type. Returns nothing unless it fits exactly.
std::optional<std::vector<Bytes>> elementsOf(const CipType& type, const Bytes& data,
                                             std::size_t count)
{
    std::vector<Bytes> elements;
    ByteReader reader(data);
    for (std::size_t i = 0; i < count; ++i) {
        Bytes element;
        auto size = static_cast<std::size_t>(type.size);
        if (type.kind == CipKind::String) {
            element = reader.bytes(static_cast<std::size_t>(type.lengthBytes));
            ByteReader length(element);
            size = static_cast<std::size_t>(length.number(element.size())) *
                   static_cast<std::size_t>(type.characterBytes);
        }
        if (!reader.has(size) || (type.kind == CipKind::String && element.empty()))
            return std::nullopt;
        append(element, reader.bytes(size));
        elements.push_back(std::move(element));
    }
    return reader.left() == 0 ? std::optional(elements) : std::nullopt;
}

} // namespace

CipServer::Reply CipServer::writeTag(const Request& request)
{
    Target target;
    if (const auto error = locate(request.path, target))
        return *error;
    ByteReader reader(request.data);
    if (!reader.has(8))
        return {CipStatus::NotEnoughData, CipExtended::None, {}};
    const auto type = static_cast<std::uint16_t>(reader.number(2));
    const auto count = static_cast<std::size_t>(reader.number(2));
    const auto offset = static_cast<std::size_t>(reader.number(4));
    Tag& tag = *target.tag;
    if (type != tag.type->code)
        return {CipStatus::VendorSpecific, CipExtended::TypeMismatch, {}};
    if (tag.readOnly)
        return {CipStatus::AttributeNotSettable, CipExtended::None, {}};
    if (count == 0 || count > tag.elements.size() - target.element)
        return {CipStatus::VendorSpecific, CipExtended::BeyondObject, {}};
    const auto size = static_cast<std::size_t>(tag.type->size);
    const bool isText = tag.type->kind == CipKind::String;
    if (offset != 0 && (isText || offset % size != 0 || offset >= count * size))
        return {CipStatus::VendorSpecific, CipExtended::BeyondObject, {}};
    const std::size_t skipped = isText ? 0 : offset / size;
    const Bytes value = reader.bytes(reader.left());
    // A fragment carries as many whole elements as it has bytes for. A value that fits into one
    // request must come in one.
    const std::size_t carried =
        isText ? count : std::min(std::max<std::size_t>(value.size() / size, 1), count - skipped);
    const bool fragment = offset != 0 || (!isText && count * size > kLongestValue);
    const auto elements = elementsOf(*tag.type, value, fragment ? carried : count);
    if (!elements) {
        const bool tooMuch = !isText && value.size() > (count - skipped) * size;
        return {tooMuch ? CipStatus::TooMuchData : CipStatus::NotEnoughData, CipExtended::None, {}};
    }
    std::copy(elements->begin(), elements->end(),
              tag.elements.begin() + static_cast<std::ptrdiff_t>(target.element + skipped));
    return {};
}

} // namespace micro850::sim
