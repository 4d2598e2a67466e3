// Compares read and write requests with an independent encoder, for tags and settings of every
// kind.

#include "driver_fixture.h"

#include <rapidcheck/gtest.h>

#include <vector>

using wire::hex;

namespace {

QByteArray bytesOf(const std::vector<char>& bytes)
{
    return QByteArray(bytes.data(), static_cast<int>(bytes.size()));
}

// Random bytes in which DLE and other special bytes are frequent.
rc::Gen<QByteArray> anyBytes(int longest)
{
    const auto byte = rc::gen::weightedOneOf<char>(
        {{1, rc::gen::element('\x10', '\x03', '\xFF', '\0')}, {3, rc::gen::arbitrary<char>()}});
    return rc::gen::map(rc::gen::mapcat(rc::gen::inRange(0, longest + 1),
                                        [=](int size) {
                                            return rc::gen::container<std::vector<char>>(
                                                static_cast<std::size_t>(size), byte);
                                        }),
                        bytesOf);
}

// Most names are short; a few have lengths around the limits of the length byte and of the path
// size.
rc::Gen<QByteArray> anyName()
{
    const auto longName = rc::gen::map(rc::gen::element(254, 255, 256, 257, 507, 508, 509, 510),
                                       [](int size) { return QByteArray(size, 'n'); });
    return rc::gen::weightedOneOf<QByteArray>({{7, anyBytes(40)}, {1, longName}});
}

rc::Gen<int> anyIndex()
{
    return rc::gen::weightedOneOf<int>(
        {{3, rc::gen::inRange(0, 70000)},
         {3, rc::gen::element(0, 1, 16, 255, 256, 65535, 65536, 0x7FFFFFFF)},
         {1, rc::gen::inRange(0, 0x7FFFFFFF)}});
}

rc::Gen<int> anyClass()
{
    return rc::gen::weightedOneOf<int>(
        {{8, rc::gen::inRange(0, 6)}, {1, rc::gen::element(6, 0x10, 0xFE, 0xFF)}});
}

const int kRequestsPerCase = 20;

class Encoding : public DriverTest
{
protected:
    /// Connects station 4 and returns a random request to it.
    RW_VAR anyRequest()
    {
        counter = *rc::gen::weightedOneOf<quint16>(
            {{3, rc::gen::arbitrary<quint16>()},
             {1, rc::gen::element<quint16>(0x10, 0x1010, 0xF9, 0xFFFF, 1)}});
        id = *anyBytes(3);
        connectStation(4, id, counter);
        name = *anyName();
        RW_VAR request = readOf("");
        request.tagName = QString::fromLatin1(name.constData(), name.size());
        request.stationNo = 4;
        request.startAddress = *anyIndex();
        request.reqFlag = *rc::gen::element(0, 1, 1, 1, -1);
        request.onceFlag = *rc::gen::element(0, 1, 2);
        typeClass = *anyClass();
        type = *rc::gen::arbitrary<quint16>();
        return request;
    }
    void storeClass(bool confirmed)
    {
        PLCDataStorage[4].tagInfo[QString::fromLatin1(name.constData(), name.size())] =
            wire::little(static_cast<quint64>(typeClass), 1) + wire::little(type, 2) +
            (confirmed ? hex("FF") : hex("00"));
    }
    QByteArray sentId() const { return (id + hex("00 00")).left(2); }
    QByteArray path(const RW_VAR& request, bool withElement) const
    {
        return wire::tagPath(name, withElement ? static_cast<quint32>(request.startAddress) : 0);
    }

    quint16 counter = 0;
    QByteArray id;
    QByteArray name;
    int typeClass = 0;
    quint16 type = 0;
};

// The number of elements that a read asks for.
int modelReadCount(const RW_VAR& request, int typeClass)
{
    if (request.reqFlag == 0)
        return request.count;
    const int bytes = typeClass == 4 ? 4 : typeClass == 5 ? 8 : 2;
    if (typeClass == 1 || typeClass == 0xFF)
        return 1;
    if (bytes == 2)
        return request.count;
    return request.onceFlag == 0 ? request.count - (bytes / 2 - 1) : request.count / (bytes / 2);
}

RC_GTEST_FIXTURE_PROP(Encoding, AReadMatchesTheIndependentEncoder, ())
{
    for (int i = 0; i < kRequestsPerCase; ++i) {
        RW_VAR request = anyRequest();
        request.count = *rc::gen::weightedOneOf<int>(
            {{3, rc::gen::inRange(0, 40)}, {1, rc::gen::inRange(0, 0x7FFFFFFF)}});
        const bool confirmed = *rc::gen::weightedElement<bool>({{5, true}, {1, false}});
        storeClass(confirmed);
        const int known = confirmed || request.reqFlag == 0 ? typeClass : 0xFF;
        const bool withElement = request.reqFlag != 0 && known != 1 && known != 0xFF;
        const QByteArray expected =
            wire::readRequest(counter, sentId(), path(request, withElement),
                              static_cast<quint32>(modelReadCount(request, known)));
        ReadRegister(&request);
        const Protocol& queued = PLC_driver.sendQueue.last();
        RC_ASSERT(wire::text(queued.frame) == wire::text(expected));
        RC_ASSERT(queued.sendLength == expected.size());
        RC_ASSERT(queued.auxLength == 22);
    }
}

/// What a write sends: the number of elements and the value bytes.
struct Shape
{
    int elements;
    QByteArray value;
};

QByteArray fitted(const QByteArray& data, int size)
{
    return (data + QByteArray(qMax(0, size), '\0')).left(size);
}

Shape modelShape(int typeClass, int count, const QByteArray& data)
{
    const int doubles = count / 2 + count % 2;
    const int quads = count / 4 + (count % 4 != 0 ? 1 : 0);
    QByteArray everySecond;
    for (int i = 0; i < count; ++i)
        everySecond += fitted(data.mid(2 * i), 1);
    switch (typeClass) {
    case 0:
        return {count, fitted(data, count)};
    case 1:
        return {1, wire::little(static_cast<quint64>(data.size()), 1) + data};
    case 2:
        return {count, everySecond};
    case 3:
        return {count, fitted(data, 2 * count)};
    case 4:
        return {doubles, fitted(data, 4 * doubles)};
    case 5:
        return {quads, fitted(data, 8 * quads)};
    default:
        return {count, data};
    }
}

RC_GTEST_FIXTURE_PROP(Encoding, AWriteMatchesTheIndependentEncoder, ())
{
    for (int i = 0; i < kRequestsPerCase; ++i) {
        RW_VAR request = anyRequest();
        request.accessMode = 1;
        request.count = *rc::gen::inRange(0, 40);
        request.data = *anyBytes(90);
        storeClass(*rc::gen::arbitrary<bool>());
        const Shape shape = modelShape(typeClass, request.count, request.data);
        const QByteArray expected = wire::writeRequest(
            counter, sentId(), path(request, request.reqFlag != 0 && typeClass != 1), type,
            static_cast<quint32>(shape.elements), shape.value);
        WriteRegister(&request);
        const Protocol& queued = PLC_driver.sendQueue.last();
        RC_ASSERT(wire::text(queued.frame) == wire::text(expected));
        RC_ASSERT(queued.sendLength == expected.size());
        RC_ASSERT(wire::text(request.data) == wire::text(shape.value));
        RC_ASSERT(wire::text(queued.var.data) == wire::text(shape.value));
    }
}

} // namespace
