// The largest value that a write can send. Its frame is long, so these tests are a separate
// program.

#include "driver_fixture.h"

namespace {

class LargestWrite : public DriverTest
{
};

TEST_F(LargestWrite, IsFittedToTheCountAndALargerOneIsNot)
{
    const int largest = 1 << 24; // bytes
    for (const quint8 typeClass : std::initializer_list<quint8>{0, 2}) {
        confirm("T", typeClass, 0xC1);
        RW_VAR request = writeOf("T", "abc", 0, largest);
        WriteRegister(&request);
        EXPECT_EQ(request.data.size(), largest) << int(typeClass);
        request = writeOf("T", "abc", 0, largest + 1);
        WriteRegister(&request);
        EXPECT_EQ(request.data, QByteArray("abc")) << int(typeClass);
        PLC_driver.sendQueue.clear();
    }
}

TEST_F(LargestWrite, HasTheLowByteOfEachWordInAn8BitClass)
{
    const int words = 1000000;
    confirm("T", 2, 0xC2);
    RW_VAR request = writeOf("T", wire::hex("01 02 03 04").repeated(words / 2), 0, words);
    WriteRegister(&request);
    EXPECT_TRUE(request.data == wire::hex("01 03").repeated(words / 2));
}

TEST_F(LargestWrite, TruncatesALongerValueOfAStringOrOfAnUnknownClass)
{
    const int largest = 1 << 24; // bytes
    for (const quint8 typeClass : std::initializer_list<quint8>{1, 0xFF}) {
        confirm("T", typeClass, 0xC1);
        RW_VAR request = writeOf("T", QByteArray(largest + 5, 'v'));
        WriteRegister(&request);
        EXPECT_EQ(request.data.size(), largest) << int(typeClass);
        EXPECT_EQ(request.data.at(0), typeClass == 1 ? '\0' : 'v')
            << "the length byte of the truncated string";
        EXPECT_LT(PLC_driver.sendQueue.last().frame.size(), largest + 100) << int(typeClass);
        PLC_driver.sendQueue.clear();
    }
}

} // namespace
