#include "Bytes.h"

#include <gtest/gtest.h>

using namespace micro850;

TEST(ByteReader, ReadsNumbersWithTheLowByteFirst)
{
    const Bytes bytes = {0x01, 0x34, 0x12, 0x78, 0x56, 0x34, 0x12};
    ByteReader reader(bytes);
    EXPECT_EQ(reader.number(1), 0x01u);
    EXPECT_EQ(reader.number(2), 0x1234u);
    EXPECT_EQ(reader.left(), 4u);
    EXPECT_EQ(reader.number(4), 0x12345678u);
    EXPECT_EQ(reader.left(), 0u);
}

TEST(ByteReader, CountsMissingBytesAs00)
{
    const Bytes bytes = {0xFF};
    ByteReader reader(bytes);
    EXPECT_TRUE(reader.has(1));
    EXPECT_FALSE(reader.has(2));
    EXPECT_EQ(reader.number(8), 0xFFu);
    EXPECT_EQ(reader.number(2), 0u);
}

TEST(ByteReader, ReturnsNoMoreBytesThanThereAre)
{
    const Bytes bytes = {1, 2, 3};
    ByteReader reader(bytes);
    EXPECT_EQ(reader.bytes(2), (Bytes{1, 2}));
    EXPECT_EQ(reader.bytes(2), Bytes{3});
    EXPECT_EQ(reader.bytes(1), Bytes());
}

TEST(AppendNumber, AppendsTheLowByteFirst)
{
    Bytes bytes = {0xAA};
    appendNumber(bytes, 0x12345678, 2);
    appendNumber(bytes, 1, 8);
    EXPECT_EQ(bytes, (Bytes{0xAA, 0x78, 0x56, 1, 0, 0, 0, 0, 0, 0, 0}));
}
