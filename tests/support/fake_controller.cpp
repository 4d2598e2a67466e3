#include "fake_controller.h"

#include "wire.h"

#include <algorithm>

namespace {

quint8 byteAt(const QByteArray& bytes, int index)
{
    return static_cast<quint8>(bytes.at(index));
}

quint16 wordAt(const QByteArray& bytes, int index)
{
    return static_cast<quint16>(byteAt(bytes, index) + 256 * byteAt(bytes, index + 1));
}

QByteArray extendedError(quint16 tns, quint8 service, quint8 status, quint16 extended)
{
    const QByteArray bare = wire::unframed(wire::errorReply(tns, service, status));
    return wire::framed(bare.left(bare.size() - 1) + wire::hex("01") + wire::little(extended, 2));
}

// The reply to an unconnected request: the part of the header and the CIP part.
QByteArray unconnectedReply(quint16 tns, const QByteArray& cip)
{
    return wire::framed(wire::hex("01 00 4B 00") + wire::little(tns, 2) + wire::hex("00 00") + cip);
}

} // namespace

FakeController::FakeController(FakeLine& line) : m_line(line)
{
    line.onSend = [this](const QByteArray& piece) { handlePiece(piece); };
}

int FakeController::count(quint8 service, const char* tag) const
{
    return static_cast<int>(std::count_if(requests.begin(), requests.end(), [=](const Request& r) {
        return r.service == service && (!tag || r.tag == tag);
    }));
}

void FakeController::handlePiece(const QByteArray& piece)
{
    const QByteArray data = wire::unframed(piece);
    if (data.isEmpty())
        return; // a control, or a damaged frame
    Request request = {wordAt(data, 4), 0, QByteArray(), 0, 0};
    QByteArray reply = replyTo(data, request);
    requests.push_back(request);
    if (silent)
        return;
    if (onReply)
        onReply(request, reply);
    if (!reply.isEmpty())
        m_line.arrive(reply);
}

QByteArray FakeController::replyTo(const QByteArray& data, Request& request)
{
    if (byteAt(data, 2) == 0x0A)
        return replyToConnected(data, request);
    request.service = byteAt(data, 8);
    if (request.service == 0x01)
        return wire::identityReply(request.tns);
    if (request.service == 0x4E)
        return close(data, request.tns);
    const QByteArray key = data.mid(24, 8);
    opened.push_back(key);
    if (refusesOpenAgain && m_open.contains(key))
        return unconnectedReply(request.tns, wire::hex("D4 00 01 01 00 01"));
    m_open.removeOne(key);
    if (m_open.size() >= connectionLimit)
        return unconnectedReply(request.tns, wire::hex("D4 00 01 01 13 01"));
    m_open.append(key);
    m_connected = true;
    return wire::forwardOpenReply(request.tns, wire::hex("5A 3C"));
}

// Service, path to the connection manager, times, key, size and path of the connection.
QByteArray FakeController::close(const QByteArray& data, quint16 tns)
{
    const QByteArray key = data.mid(16, 8);
    closed.push_back(wire::text(data.mid(8)));
    return unconnectedReply(tns, m_open.removeOne(key)
                                     ? wire::hex("CE 00 00 00") + key + wire::hex("00 00")
                                     : wire::hex("CE 00 01 01 07 01"));
}

QByteArray FakeController::replyToConnected(const QByteArray& data, Request& request)
{
    request.service = byteAt(data, 12);
    const int nameSize = byteAt(data, 15);
    const int pathEnd = 14 + 2 * byteAt(data, 13);
    request.tag = data.mid(16, nameSize);
    const int segment = 16 + nameSize + nameSize % 2;
    if (segment < pathEnd)
        request.element =
            byteAt(data, segment) == 0x28 ? byteAt(data, segment + 1) : wordAt(data, segment + 2);
    const bool writes = request.service == 0x53;
    request.count = wordAt(data, pathEnd + (writes ? 2 : 0));
    if (!m_connected)
        return extendedError(request.tns, request.service, 0x01, 0x0107);
    return writes ? write(request, data.mid(pathEnd + 8)) : read(request);
}

QByteArray FakeController::read(const Request& request) const
{
    if (!tags.contains(request.tag))
        return wire::errorReply(request.tns, 0x52, 0x05);
    const Tag tag = tags.value(request.tag);
    const int element = static_cast<int>(request.element);
    if (request.count == 0 || element + request.count > tag.elements.size())
        return extendedError(request.tns, 0x52, 0xFF, 0x2105);
    QByteArray value;
    for (int i = 0; i < request.count; ++i)
        value += tag.elements.at(element + i);
    return wire::readReply(request.tns, tag.type, value);
}

QByteArray FakeController::write(const Request& request, const QByteArray& value)
{
    const int element = static_cast<int>(request.element);
    if (!tags.contains(request.tag) || element >= tags.value(request.tag).elements.size())
        return wire::errorReply(request.tns, 0x53, 0x05);
    tags[request.tag].elements[element] = value;
    return wire::writeReply(request.tns);
}
