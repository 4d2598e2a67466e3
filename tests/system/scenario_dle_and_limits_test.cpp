// The DLE byte (10) at every place where it can occur, long names, large indices.

#include "scenario_fixture.h"

namespace {

using Requests = std::vector<std::string>;

class DleAndLimits : public ScenarioTest
{
protected:
    DleAndLimits() { looksForFrame = true; }

    void define(const QByteArray& name, const char* type, std::size_t length = 1)
    {
        micro850::sim::Tag tag;
        tag.name = name.toStdString();
        tag.type = &micro850::cipTypeNamed(type);
        tag.elements.assign(length, micro850::Bytes(static_cast<std::size_t>(tag.type->size)));
        tag.initial = tag.elements;
        controller.tags().put(tag);
        declareIndexed(name.constData());
    }
    void readOnce(const char* tag, int element, int count = 1)
    {
        RW_VAR request = readOf(tag, element, count);
        AddListOnceReadVar(&request, 0);
        ASSERT_GE(transactUntil([] { return PLC_driver.onceReadList.isEmpty(); }, 10), 0);
    }
    void writeNow(const char* tag, const QByteArray& value, int element, int count = 1)
    {
        write(tag, value, count, element);
        ASSERT_GE(transactUntil([] { return PLC_driver.writeList.isEmpty(); }, 10), 0);
    }
};

/// How often a byte 10 occurred at each place of the frames.
struct Seen
{
    int inCounter = 0;
    int inConnection = 0;
    int inElement = 0;
    int inValue = 0;
    int inRequestCrc = 0;
    int inReplyCrc = 0;

    void note(const QByteArray& frame, const QByteArray& reply)
    {
        const QByteArray data = wire::unframed(frame);
        inCounter += data.mid(4, 2).contains('\x10');
        inConnection += data.mid(8, 2).contains('\x10');
        inElement += data.contains(wire::hex("28 10"));
        inValue += wire::unframed(reply).mid(18).contains('\x10');
        inRequestCrc += frame.right(2).contains('\x10');
        inReplyCrc += reply.right(2).contains('\x10');
    }
};

TEST_F(DleAndLimits, ValuesMatchAtBothEndsOver70000TransactionsAndTheCounterWraps)
{
    const QByteArray name = "\x10"
                            "Tag\x10";
    controller.server().setNextConnectionId(0x10101010);
    define(name, "INT", 17);
    Seen seen;
    int last = 0;
    QList<int> wrap;
    int different = 0;
    for (int i = 0; i < 35000; ++i) {
        const QByteArray value = wire::little(static_cast<quint64>(i * 7919), 2);
        writeNow(name, value, 16);
        readOnce(name, 16);
        different += inController(name, 16) != wire::text(value);
        different += shown(name, 1, 16) != wire::text(value);
        for (const Exchange& exchange : exchanges) {
            seen.note(exchange.frame, exchange.reply);
            const int number = std::stoi(exchange.request);
            if (number != last + 1 && last != 0)
                wrap << last << number;
            last = number;
        }
        exchanges.clear();
    }
    EXPECT_EQ(different, 0);
    EXPECT_EQ(wrap, (QList<int>{65535, 1}));
    EXPECT_EQ(controller.counters().corrupt, 0u);
    EXPECT_GT(seen.inCounter, 300);
    EXPECT_GT(seen.inConnection, 69000);
    EXPECT_GT(seen.inElement, 69000);
    EXPECT_GT(seen.inValue, 200);
    EXPECT_GT(seen.inRequestCrc, 300);
    EXPECT_GT(seen.inReplyCrc, 300);
}

/// The value for which the reply to the first read, transaction 2, ends with the CRC 10 10.
quint16 valueWithCrcOfDles()
{
    for (unsigned value = 0; value < 0x10000; ++value) {
        const QByteArray data = wire::hex("01 00 4A 00 02 00 00 00 01 00 09 45 D2 00 00 00 C3 00") +
                                wire::little(value, 2);
        if (wire::crc16Arc(data + wire::hex("03")) == 0x1010)
            return static_cast<quint16>(value);
    }
    return 0;
}

TEST_F(DleAndLimits, AReplyWithCrc1010IsReadWhenTheHostAppendsAFillerByte)
{
    define("A", "INT");
    const QByteArray value = wire::little(valueWithCrcOfDles(), 2);
    setInController("A", wire::text(value).c_str());
    pollCyclically({{"A", 0, 1}});
    transact(3);
    ASSERT_TRUE(exchanges.back().reply.contains(wire::hex("10 03 10 10")));
    EXPECT_EQ(shown("A"), wire::text(value));
}

// The driver reads the two CRC bytes as one doubled DLE, so the value loses its last byte.
TEST_F(DleAndLimits, AReplyWithCrc1010LosesTheLastByteOfItsValueAsDocumented)
{
    looksForFrame = false;
    define("A", "INT");
    const QByteArray value = wire::little(valueWithCrcOfDles(), 2);
    setInController("A", wire::text(value).c_str());
    pollCyclically({{"A", 0, 1}});
    transact(3);
    EXPECT_EQ(exchanges.back().reply.right(4), wire::hex("10 03 10 10"));
    EXPECT_NE(value.at(1), '\0');
    EXPECT_EQ(shown("A"), wire::text(value.left(1) + '\0'));
}

TEST_F(DleAndLimits, NamesOf1To255CharactersAreReadAndWritten)
{
    for (int size = 1; size <= 255; ++size) {
        const QByteArray name(size, static_cast<char>('a' + size % 26));
        define(name, "INT");
        writeNow(name, wire::little(static_cast<quint64>(size + 1000), 2), 0);
        EXPECT_EQ(inController(name),
                  wire::text(wire::little(static_cast<quint64>(size + 1000), 2)))
            << size;
        setInController(name, "10 03");
        readOnce(name, 0);
        EXPECT_EQ(shown(name), "10 03") << size;
    }
    EXPECT_EQ(controller.server().answersByStatus().size(), 1u) << "no reply has an error";
}

TEST_F(DleAndLimits, ArrayIndicesUpTo65535AreReadAndWrittenWithoutTouchingOthers)
{
    define("A", "INT", 65536);
    int number = 100;
    for (const int element : {0, 1, 15, 16, 255, 256, 257, 4112, 65535}) {
        const auto index = static_cast<std::size_t>(element);
        const QByteArray value = wire::little(static_cast<quint64>(++number), 2);
        writeNow("A", value, element);
        EXPECT_EQ(inController("A", index), wire::text(value)) << element;
        setInController("A", "10 03", index);
        readOnce("A", element);
        EXPECT_EQ(shown("A", 1, element), "10 03") << element;
        setInController("A", "00 00", index);
    }
    const auto& elements = controller.tags().find("A")->elements;
    EXPECT_EQ(std::count(elements.begin(), elements.end(), micro850::Bytes{0, 0}), 65536)
        << "no other element was touched";
}

// Controllers do not know the 32-bit element segment.
TEST_F(DleAndLimits, AnIndexAbove65535GetsAPathSegmentErrorThatCountsAsAnAnswerAsDocumented)
{
    define("A", "INT", 65536);
    pollCyclically({{"A", 0, 1}});
    transact(3);
    popRequests();
    write("A", wire::hex("05 00"), 1, 65536, 17);
    transact();

    EXPECT_EQ(popRequests(), Requests{"3 write A[65536] x1 = 05 00"});
    EXPECT_TRUE(wire::unframed(exchanges.back().frame).contains(wire::hex("30 00 00 00 01 00")));
    EXPECT_EQ(wire::unframed(exchanges.back().reply).mid(12), wire::hex("D3 00 04 00"));
    EXPECT_EQ(finished, std::vector<Finished>({{9, 3, 17, 1}})) << "reported done";

    readOnce("A", 65536);
    EXPECT_EQ(popRequests(), Requests{"4 read A[65536] x1"});
    EXPECT_EQ(wire::unframed(exchanges.back().reply).mid(12), wire::hex("D2 00 04 00"));
    EXPECT_EQ(shown("A", 1, 65536), "00 00") << "like an element that was never read";
    const auto& elements = controller.tags().find("A")->elements;
    EXPECT_EQ(std::count(elements.begin(), elements.end(), micro850::Bytes{0, 0}), 65536);
}

} // namespace
