// Compares the host's reads with a model of what replies have stored, for replies and reads of
// every kind.

#include "driver_fixture.h"

#include <rapidcheck/gtest.h>

#include <map>
#include <string>
#include <vector>

using wire::hex;

namespace {

// ---- Model of the store ------------------------------------------------------------------------

/// Type code, class, and the bytes of one element: in the store and for the host.
struct Type
{
    int code, typeClass, size, hostSize;
};

const Type kTypes[] = {{0xC1, 0, 1, 1}, {0xDA, 1, 1, 1}, {0xC2, 2, 1, 2}, {0xD3, 2, 1, 2},
                       {0xC3, 3, 2, 2}, {0xC4, 4, 4, 4}, {0xCA, 4, 4, 4}, {0xC9, 5, 8, 8}};

/// A tag after its replies: the type of the first reply, and the stored bytes by position.
struct Tag
{
    bool stored = false;
    const Type* type = nullptr;
    std::map<int, char> bytes;
};

struct Answer
{
    int result;
    QByteArray value;
};

char byteOf(const Tag& tag, int position)
{
    const auto found = tag.bytes.find(position);
    return found == tag.bytes.end() ? '\0' : found->second;
}

int elementsOf(const Type& type, int words)
{
    if (type.typeClass == 4)
        return words / 2 + words % 2;
    if (type.typeClass == 5)
        return words / 4 + (words % 4 != 0 ? 1 : 0);
    return words;
}

/// `element` and `words` as the catalogue completes them, `hostWords` as the host passes them.
Answer modelRead(bool connected, const Tag& tag, int element, int words, int hostWords)
{
    if (!connected || !tag.stored)
        return {0, QByteArray(2 * hostWords, '\0')};
    const int size = tag.type->size;
    int elements = elementsOf(*tag.type, words);
    if (elements != 0 && tag.type->typeClass == 1)
        elements = 2 * hostWords;
    QByteArray value;
    for (int i = 0; i < elements; ++i) {
        for (int b = 0; b < size; ++b)
            value.append(byteOf(tag, element * size + i * size + b));
        value.append(QByteArray(tag.type->hostSize - size, '\0'));
    }
    return {1, value};
}

// ---- Properties --------------------------------------------------------------------------------

const char* const kNames[] = {"Zone", "Speed", "plain"};
const int kCatalogued = 2; // the names before this one

class Store : public DriverTest
{
protected:
    Store()
    {
        for (int i = 0; i < kCatalogued; ++i)
            declareIndexed(kNames[i]);
        for (int each : {1, 2})
            connectStation(each);
    }

    Tag& tag() { return tags[std::to_string(station) + kNames[name]]; }
    void drawTag()
    {
        station = *rc::gen::inRange(1, 3);
        name = *rc::gen::inRange(0, 3);
    }
    static int anyElement()
    {
        return *rc::gen::weightedOneOf<int>(
            {{5, rc::gen::inRange(0, 6)}, {1, rc::gen::inRange(0, 300)}});
    }

    void reply()
    {
        drawTag();
        const Type& type = kTypes[*rc::gen::inRange(0, 8)];
        const int element = anyElement();
        const auto drawn = *rc::gen::container<std::vector<char>>(rc::gen::arbitrary<char>());
        const QByteArray value(drawn.data(), static_cast<int>(drawn.size()));
        RW_VAR request = readOf(kNames[name], element);
        request.stationNo = station;
        request.reqFlag = name < kCatalogued ? 1 : 0;
        putInFlight(request);
        QByteArray bytes = wire::readReply(5, static_cast<quint16>(type.code), value);
        SaveToLocalDataErea(&bytes);
        storeInModel(type, request.reqFlag == 1 ? element * type.size : 0,
                     type.typeClass == 1 ? value.mid(1) : value);
    }
    void storeInModel(const Type& type, int position, const QByteArray& value)
    {
        Tag& stored = tag();
        if (!stored.type)
            stored.type = &type;
        stored.stored = stored.stored || !value.isEmpty();
        for (int i = 0; i < value.size(); ++i)
            stored.bytes[position + i] = value.at(i);
    }
    void read()
    {
        drawTag();
        const int element = anyElement();
        const int words = *rc::gen::inRange(0, 20);
        const bool indexed = name < kCatalogued;
        const Answer expected =
            modelRead(connected[station], tag(), indexed ? element : 0, indexed ? words : 1, words);
        QByteArray out = "old bytes";
        const int result = GetRegisterData(QString::fromLatin1(kNames[name]), 0,
                                           QString::number(element), station, out, words);
        RC_ASSERT(result == expected.result);
        RC_ASSERT(wire::text(out) == wire::text(expected.value));
    }
    void connectOrDrop()
    {
        station = *rc::gen::inRange(1, 3);
        connected[station] = *rc::gen::arbitrary<bool>();
        setHandshakeInformation(station, connected[station]);
    }

    int station = 1;
    int name = 0;
    bool connected[3] = {false, true, true};
    std::map<std::string, Tag> tags;
};

RC_GTEST_FIXTURE_PROP(Store, ReturnsWhatTheModelHolds, ())
{
    const int steps = 60;
    for (int i = 0; i < steps; ++i) {
        const int step = *rc::gen::inRange(0, 20);
        if (step < 8)
            reply();
        else if (step < 19)
            read();
        else
            connectOrDrop();
    }
}

} // namespace
