#include "Df1.h"

#include "bytes.h"

#include <gtest/gtest.h>

namespace micro850::sim {
namespace {

const Bytes kIdentityData = hex("00 01 0B 00 01 00 00 00 01 02 20 01 24 01");

TEST(Df1Crc, HasTheCheckValueOfItsParameterSet)
{
    EXPECT_EQ(df1::crc(hex("31 32 33 34 35 36 37 38 39")), 0xBB3D);
    EXPECT_EQ(df1::crc({}), 0);
    EXPECT_EQ(df1::crc(kIdentityData + hex("03")), 0x358E);
}

TEST(Df1Crc, OfAMessageCoversItsDataAndEtx)
{
    EXPECT_EQ(df1::crcOfData(kIdentityData), 0x358E);
}

TEST(Df1Frame, DoublesEachDleOfTheDataButNotOfTheCrc)
{
    EXPECT_EQ(text(df1::frame(kIdentityData)),
              "10 02 00 01 0B 00 01 00 00 00 01 02 20 01 24 01 10 03 8E 35");
    EXPECT_EQ(text(df1::frame(hex("00 01 0B 00 10 00 00 00 01 02 20 01 24 01"))),
              "10 02 00 01 0B 00 10 10 00 00 00 01 02 20 01 24 01 10 03 DE 09");
}

} // namespace
} // namespace micro850::sim
