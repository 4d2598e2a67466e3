// A good line: start-up, every type read and written, writes, disabled stations.

#include "scenario_fixture.h"

namespace {

using Requests = std::vector<std::string>;

class NormalOperation : public ScenarioTest
{
};

TEST_F(NormalOperation, AColdStartSendsTheTransactionNumbers0And1And2)
{
    defineTags(R"({"name": "A", "type": "INT", "value": 4660})");
    declareIndexed("A");
    pollCyclically({{"A", 0, 1}});
    EXPECT_EQ(shown("A"), "none");

    transact(3);

    EXPECT_EQ(popRequests(), (Requests{"0 identity", "1 open", "2 read A x1"}));
    EXPECT_EQ(shown("A"), "34 12");
    EXPECT_EQ(controller.server().openConnections(), 1u);
}

TEST_F(NormalOperation, AStationThatThePollCycleMeetsFirstStartsWithNumber1)
{
    defineTags(R"({"name": "A", "type": "INT"})");
    RW_VAR request = readOf("A");
    AddListReadVar(&request);
    transact(3);
    EXPECT_EQ(popRequests(), (Requests{"1 identity", "2 open", "3 read A x1"}));
}

/// A type in a tag file, on a screen and on the wire: the host bytes of three elements, and of the
/// three elements that are written.
struct TypeCase
{
    const char* type;
    const char* values; ///< of a tag file
    int words;          ///< 16-bit words of one element, or 1 for BOOL and 8 bits
    const char* shown;
    const char* written;
    const char* present; ///< the controller's bytes of the last element after the writes
};

// Each 8-bit element has a word, each BOOL a byte.
const TypeCase kTypes[] = {
    {"BOOL", "[true, false, true]", 1, "01 00 01", "00 01 00", "00"},
    {"SINT", "[-1, 2, -128]", 1, "FF 00 02 00 80 00", "05 00 06 00 F9 00", "F9"},
    {"USINT", "[255, 16, 0]", 1, "FF 00 10 00 00 00", "10 00 10 00 FF 00", "FF"},
    {"INT", "[-2, 4112, 1]", 1, "FE FF 10 10 01 00", "10 10 02 00 00 80", "00 80"},
    {"UINT", "[65535, 1, 16]", 1, "FF FF 01 00 10 00", "01 00 02 00 03 10", "03 10"},
    {"DINT", "[-1, 269488144, 7]", 2, "FF FF FF FF 10 10 10 10 07 00 00 00",
     "01 00 00 00 02 00 00 00 10 10 00 80", "10 10 00 80"},
    {"UDINT", "[4294967295, 1, 16]", 2, "FF FF FF FF 01 00 00 00 10 00 00 00",
     "01 00 00 00 02 00 00 00 03 00 00 FF", "03 00 00 FF"},
    {"REAL", "[1.5, -2, 0]", 2, "00 00 C0 3F 00 00 00 C0 00 00 00 00",
     "00 00 80 3F 00 00 00 40 00 00 C0 BF", "00 00 C0 BF"},
    {"LINT", "[-1, 1, 16]", 4,
     "FF FF FF FF FF FF FF FF 01 00 00 00 00 00 00 00 10 00 00 00 00 00 00 00",
     "01 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00 10 10 10 10 10 10 10 80",
     "10 10 10 10 10 10 10 80"},
    {"ULINT", "[18446744073709551615, 1, 0]", 4,
     "FF FF FF FF FF FF FF FF 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
     "01 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00 03 00 00 00 00 00 00 00",
     "03 00 00 00 00 00 00 00"},
    {"LREAL", "[1, -2, 0]", 4,
     "00 00 00 00 00 00 F0 3F 00 00 00 00 00 00 00 C0 00 00 00 00 00 00 00 00",
     "00 00 00 00 00 00 F0 3F 00 00 00 00 00 00 00 40 00 00 00 00 00 00 F8 3F",
     "00 00 00 00 00 00 F8 3F"},
};

class EveryType : public NormalOperation, public ::testing::WithParamInterface<TypeCase>
{
protected:
    EveryType()
    {
        defineTags(std::string(R"({"name": "A", "type": ")") + GetParam().type +
                   R"(", "length": 3, "value": )" + GetParam().values + "}");
        declareIndexed("A");
    }
    /// Bytes of one element in host layout.
    int elementSize() const { return wire::hex(GetParam().shown).size() / 3; }
    std::string part(const char* all, int element) const
    {
        return wire::text(wire::hex(all).mid(element * elementSize(), elementSize()));
    }
};

TEST_P(EveryType, IsReadFromAndWrittenToAScalarTag)
{
    const int words = GetParam().words;
    pollCyclically({{"A", 0, words}});
    ASSERT_GE(transactUntil([&] { return shown("A", words) != "none"; }), 0);
    EXPECT_EQ(shown("A", words), part(GetParam().shown, 0));

    write("A", wire::hex(GetParam().written).mid(2 * elementSize(), elementSize()), words);
    ASSERT_GE(transactUntil([&] { return !finished.empty(); }), 0);

    EXPECT_EQ(finished, std::vector<Finished>({{9, 3, 1, 1}}));
    EXPECT_EQ(inController("A"), GetParam().present);
    transact(2);
    EXPECT_EQ(shown("A", words), part(GetParam().written, 2));
}

// Each element has its own request, because a cyclic request for several wide elements asks for too
// many.
TEST_P(EveryType, IsReadFromAndWrittenToEachElementOfAnArray)
{
    const int words = GetParam().words;
    pollCyclically({{"A", 0, words}});
    transact(3);
    for (int element = 0; element < 3; ++element) {
        RW_VAR read = readOf("A", element, words);
        AddListOnceReadVar(&read, 0);
        ASSERT_GE(transactUntil([&] { return PLC_driver.onceReadList.isEmpty(); }), 0);
        EXPECT_EQ(shown("A", words, element), part(GetParam().shown, element)) << element;

        const QByteArray value =
            wire::hex(GetParam().written).mid(element * elementSize(), elementSize());
        write("A", value, words, element);
        ASSERT_GE(transactUntil([&] { return PLC_driver.writeList.isEmpty(); }), 0);
        AddListOnceReadVar(&read, 0);
        ASSERT_GE(transactUntil([&] { return PLC_driver.onceReadList.isEmpty(); }), 0);
        EXPECT_EQ(shown("A", words, element), part(GetParam().written, element)) << element;
    }
    EXPECT_EQ(inController("A", 2), GetParam().present);
}

INSTANTIATE_TEST_SUITE_P(Elementary, EveryType, ::testing::ValuesIn(kTypes),
                         [](const auto& given) { return std::string(given.param.type); });

/// A type that is transferred byte by byte, each byte in its own word.
struct ByteTypeCase
{
    const char* type;
    const char* value; ///< of a tag file
    const char* shown;
};

const ByteTypeCase kByteTypes[] = {
    {"BYTE", "\"0xA5\"", "A5 00"},
    {"WORD", "\"0x1234\"", "34 00 12 00"},
    {"DWORD", "\"0x10ABCDEF\"", "EF 00 CD 00 AB 00 10 00"},
    {"LWORD", "\"0x0123456789ABCDEF\"", "EF 00 CD 00 AB 00 89 00 67 00 45 00 23 00 01 00"},
    {"STIME", "-2", "FE 00 FF 00 FF 00 FF 00"},
    {"DATE", "19000", "38 00 4A 00"},
    {"TIME_OF_DAY", "21600000", "00 00 97 00 49 00 01 00"},
    {"DATE_AND_TIME", "1", "01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"},
    {"FTIME", "250", "FA 00 00 00 00 00 00 00"},
    {"LTIME", "16", "10 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"},
    {"ITIME", "-2", "FE 00 FF 00"},
    {"TIME", "2500", "C4 00 09 00 00 00 00 00"},
    {"STRING", "\"AB\"", "02 00 00 00 41 00 42 00"},
    {"STRING2", "\"A\"", "01 00 00 00 41 00 00 00"},
    {"STRINGN", "\"A\"", "01 00 00 00 41 00"},
};

class EveryByteType : public NormalOperation, public ::testing::WithParamInterface<ByteTypeCase>
{
protected:
    EveryByteType()
    {
        defineTags(std::string(R"({"name": "A", "type": ")") + GetParam().type +
                   R"(", "length": 3, "value": )" + GetParam().value + "}");
        declareIndexed("A");
        pollCyclically({{"A", 0, 1}});
        transact(4);
    }
    int bytes() const { return wire::hex(GetParam().shown).size() / 2; }
};

TEST_P(EveryByteType, IsShownByteByByte)
{
    EXPECT_EQ(shown("A", bytes()), GetParam().shown);
}

// The store counts the elements of such a type as one byte each, so that they overlap.
TEST_P(EveryByteType, ShowsAnArrayElementUntilItsNeighbourIsReadAsDocumented)
{
    const auto filled = [this](int byte, int wordSize) {
        return wire::text((QByteArray(1, static_cast<char>(byte)) + QByteArray(wordSize - 1, '\0'))
                              .repeated(bytes()));
    };
    for (int element = 0; element < 3; ++element) {
        setInController("A", filled(0x21 + element, 1).c_str(), static_cast<std::size_t>(element));
        RW_VAR read = readOf("A", element);
        AddListOnceReadVar(&read, 0);
        ASSERT_GE(transactUntil([] { return PLC_driver.onceReadList.isEmpty(); }), 0);
        EXPECT_EQ(shown("A", bytes(), element), filled(0x21 + element, 2)) << element;
    }
    EXPECT_EQ(shown("A", 1, 0), "21 00");
    EXPECT_EQ(shown("A", 1, 1), "22 00");
    EXPECT_EQ(shown("A", 1, 2), "23 00");
}

// The request announces as many elements as the value has bytes, so the controller finds too few
// bytes. The driver does not check the status and reports the write as done.
TEST_P(EveryByteType, IsReportedAsWrittenButIsNotWhenWiderThanAByteAsDocumented)
{
    const std::string before = inController("A");
    const QByteArray value(2 * bytes(), '\x01');
    write("A", value, bytes());
    ASSERT_GE(transactUntil([&] { return !finished.empty(); }), 0);

    EXPECT_EQ(finished, std::vector<Finished>({{9, 3, 1, 1}}));
    EXPECT_EQ(inController("A"), bytes() == 1 ? "01" : before);
    const unsigned refused = bytes() == 1 ? 0 : 1;
    const auto& answers = controller.server().answersByStatus();
    EXPECT_EQ(answers.size(), 1 + refused);
}

INSTANTIATE_TEST_SUITE_P(Elementary, EveryByteType, ::testing::ValuesIn(kByteTypes),
                         [](const auto& given) { return std::string(given.param.type); });

TEST_F(NormalOperation, AStringIsReadAndWritten)
{
    defineTags(R"({"name": "Name", "type": "SHORT_STRING", "value": "Apple"})");
    declareIndexed("Name");
    pollCyclically({{"Name", 0, 3}});
    transact(3);
    EXPECT_EQ(shown("Name", 3), "41 70 70 6C 65 00") << "characters without the length";

    write("Name", "Pears", 3);
    transact(1);
    EXPECT_EQ(inController("Name"), "05 50 65 61 72 73");
    EXPECT_EQ(finished, std::vector<Finished>({{9, 3, 1, 1}}));
}

TEST_F(NormalOperation, TheFirstWriteToATagIsPrecededByOneReadAndReportedOnce)
{
    defineTags(R"({"name": "Setpoint", "type": "DINT", "value": 1})");
    declareIndexed("Setpoint");
    write("Setpoint", wire::hex("10 20 30 40"), 2, 0, 17);

    while (transact()) {
    }

    EXPECT_EQ(popRequests(), (Requests{"0 identity", "1 open", "2 read Setpoint x1",
                                       "3 write Setpoint x1 = 10 20 30 40"}));
    EXPECT_EQ(finished, std::vector<Finished>({{9, 3, 17, 1}}));
    EXPECT_EQ(inController("Setpoint"), "10 20 30 40");
}

TEST_F(NormalOperation, FiveWritesAreSentBeforeTheNextCyclicRead)
{
    defineTags(R"({"name": "A", "type": "INT"}, {"name": "B", "type": "INT"},
             {"name": "W", "type": "INT", "length": 8})");
    for (const char* tag : {"A", "B", "W"})
        declareIndexed(tag);
    pollCyclically({{"A", 0, 1}, {"B", 0, 1}, {"W", 0, 1}});
    transact(5);
    popRequests();
    for (int i = 1; i <= 7; ++i)
        write("W", wire::little(static_cast<quint64>(i), 2), 1, i, i);

    transact(10);

    EXPECT_EQ(popRequests(),
              (Requests{"5 write W[1] x1 = 01 00", "6 write W[2] x1 = 02 00",
                        "7 write W[3] x1 = 03 00", "8 write W[4] x1 = 04 00",
                        "9 write W[5] x1 = 05 00", "10 read A x1", "11 write W[6] x1 = 06 00",
                        "12 write W[7] x1 = 07 00", "13 read B x1", "14 read W x1"}));
    EXPECT_EQ(finished.size(), 7u);
}

TEST_F(NormalOperation, ADisabledStationLosesItsWritesWithoutACallbackAsDocumented)
{
    defineTags(R"({"name": "A", "type": "INT"})");
    declareIndexed("A");
    pollCyclically({{"A", 0, 1}});
    transact(3);
    EnCommStation(1, 0);
    write("A", wire::hex("05 00"));

    EXPECT_FALSE(transact());
    EXPECT_FALSE(transact());

    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_TRUE(finished.empty());
    EXPECT_TRUE(refreshed.empty());
    EXPECT_EQ(inController("A"), "00 00");
    EXPECT_EQ(PLC_driver.readList.size(), 1) << "the cyclic request stays";
}

TEST_F(NormalOperation, AStationThatIsEnabledAgainContinuesWhereItStopped)
{
    defineTags(R"({"name": "A", "type": "INT"}, {"name": "B", "type": "INT"})");
    declareIndexed("A");
    declareIndexed("B");
    pollCyclically({{"A", 0, 1}, {"B", 0, 1}});
    transact(3);
    popRequests();
    EnCommStation(1, 0);
    transact(3);
    EnCommStation(1, 1);

    transact(2);

    EXPECT_EQ(popRequests(), (Requests{"3 read B x1", "4 read A x1"})) << "no new connection";
}

} // namespace
