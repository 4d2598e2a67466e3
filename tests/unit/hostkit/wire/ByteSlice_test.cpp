#include "ByteSlice.h"

#include "wire.h"

#include <gtest/gtest.h>

using micro850::host::ByteSlice;
using wire::hex;

TEST(ByteSlice, IsThePartThatItWasMadeOf)
{
    const ByteSlice slice(hex("01 02 03 04 05"), 1, 3);
    EXPECT_EQ(slice.size(), 3);
    EXPECT_EQ(wire::text(slice.bytes()), "02 03 04");
    EXPECT_TRUE(slice == ByteSlice(hex("02 03 04")));
    EXPECT_FALSE(slice == ByteSlice(hex("02 03")));
}

TEST(ByteSlice, HasZerosOutsideItself)
{
    const ByteSlice slice(hex("01 F2 03 04"), 1, 2);
    EXPECT_EQ(slice.at(0), 0xF2);
    EXPECT_EQ(slice.at(2), 0) << "there is a byte behind it";
    EXPECT_EQ(slice.at(-1), 0) << "and one before it";
}

TEST(ByteSlice, IsCutToWhatIsThere)
{
    const ByteSlice slice(hex("01 02 03 04"), 1, 3);
    EXPECT_EQ(wire::text(slice.mid(1).bytes()), "03 04");
    EXPECT_EQ(wire::text(slice.mid(2, 9).bytes()), "04");
    EXPECT_TRUE(slice.mid(4).isEmpty());
    EXPECT_TRUE(slice.mid(-2, -1).isEmpty());
    EXPECT_TRUE(ByteSlice().mid(1, 2).isEmpty());
}

TEST(ByteSlice, SharesItsBytesAndKeepsThem)
{
    ByteSlice slice;
    const char* shared = nullptr;
    {
        const QByteArray all = hex("01 02 03");
        slice = ByteSlice(all, 1, 2);
        shared = all.constData();
    }
    EXPECT_EQ(slice.begin(), shared + 1);
    EXPECT_EQ(wire::text(slice.bytes()), "02 03");
}
