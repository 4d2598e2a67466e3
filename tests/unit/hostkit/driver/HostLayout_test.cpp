#include "HostLayout.h"

#include "wire.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using wire::hex;

namespace {

const micro850::CipType& type(const char* name)
{
    return micro850::cipTypeNamed(name);
}

std::string hostBytes(const char* name, const char* element)
{
    const HostValue value = toHostLayout(type(name), hex(element));
    return wire::text(value.bytes) + " in " + std::to_string(value.count);
}

} // namespace

TEST(HostLayout, AddsToTheCountOfACyclicRunWhatTheDriverSubtracts)
{
    // The driver asks for count - 1 elements of 32 bits and count - 3 of 64.
    EXPECT_EQ(cyclicCount(TypeClass::DoubleWord, 20) - 1, 20);
    EXPECT_EQ(cyclicCount(TypeClass::QuadWord, 20) - 3, 20);
    EXPECT_EQ(cyclicCount(TypeClass::Word, 20), 20);
    EXPECT_EQ(cyclicCount(TypeClass::Byte, 20), 20);
    EXPECT_EQ(cyclicCount(TypeClass::Boolean, 20), 20);
    // A single value is counted as its words, the usual way.
    EXPECT_EQ(cyclicCount(TypeClass::DoubleWord, 1), 2);
    EXPECT_EQ(cyclicCount(TypeClass::QuadWord, 1), 4);
}

TEST(HostLayout, CountsAOneShotReadInWords)
{
    EXPECT_EQ(oneShotCount(TypeClass::DoubleWord, 3), 6);
    EXPECT_EQ(oneShotCount(TypeClass::QuadWord, 3), 12);
    EXPECT_EQ(oneShotCount(TypeClass::Word, 3), 3);
}

TEST(HostLayout, FetchesAllBytesOfAReply)
{
    EXPECT_EQ(fetchCount(TypeClass::Boolean, 8), 8);
    EXPECT_EQ(fetchCount(TypeClass::Byte, 8), 8);
    EXPECT_EQ(fetchCount(TypeClass::Word, 8), 4);
    EXPECT_EQ(fetchCount(TypeClass::QuadWord, 16), 8);
    EXPECT_EQ(fetchCount(TypeClass::ShortString, 4), 2);
}

TEST(HostLayout, RemovesTheZeroBytesOfByteElements)
{
    EXPECT_EQ(wire::text(fromHostLayout(TypeClass::Byte, hex("12 00 34 00"), hex("12 34"))),
              "12 34");
}

TEST(HostLayout, CutsAStringToTheLengthOfTheReply)
{
    // "Pea" was read; the store still holds the tail of "Apple".
    EXPECT_EQ(
        wire::text(fromHostLayout(TypeClass::ShortString, hex("50 65 61 6C"), hex("03 50 65 61"))),
        "03 50 65 61");
    EXPECT_EQ(wire::text(fromHostLayout(TypeClass::ShortString, QByteArray(), hex("00"))), "00");
}

TEST(HostLayout, LaysOutAWriteByItsClass)
{
    EXPECT_EQ(hostBytes("BOOL", "01"), "01 in 1");
    EXPECT_EQ(hostBytes("SINT", "FB"), "FB 00 in 1");
    EXPECT_EQ(hostBytes("INT", "D2 04"), "D2 04 in 1");
    EXPECT_EQ(hostBytes("REAL", "00 00 AC 41"), "00 00 AC 41 in 2");
    EXPECT_EQ(hostBytes("LINT", "01 02 03 04 05 06 07 08"), "01 02 03 04 05 06 07 08 in 4");
    EXPECT_EQ(hostBytes("SHORT_STRING", "03 41 42 43"), "41 42 43 in 2");
    EXPECT_EQ(hostBytes("SHORT_STRING", "00"), " in 1");
}
