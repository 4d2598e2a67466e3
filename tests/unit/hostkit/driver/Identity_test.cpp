#include "Identity.h"

#include "wire.h"

#include <gtest/gtest.h>

using micro850::host::decodeIdentity;
using micro850::host::Identity;

// Vendor, device type, product code, revision, status, serial number, length and name.
const char kReply[] = "34 12 0E 00 52 03 0C 02 30 00 EF BE AD DE 05 55 6E 69 74 31";

TEST(Identity, DecodesEveryField)
{
    const Identity identity = decodeIdentity(wire::hex(kReply));
    ASSERT_TRUE(identity.valid);
    EXPECT_EQ(identity.vendor, 0x1234);
    EXPECT_EQ(identity.deviceType, 14);
    EXPECT_EQ(identity.productCode, 850);
    EXPECT_EQ(identity.major, 12);
    EXPECT_EQ(identity.minor, 2);
    EXPECT_EQ(identity.status, 0x0030);
    EXPECT_EQ(identity.serial, 0xDEADBEEFu);
    EXPECT_EQ(identity.name, QString("Unit1"));
}

TEST(Identity, ReadsBytesAbove127AsUnsigned)
{
    QByteArray reply = wire::hex(kReply);
    reply[6] = static_cast<char>(0xC8);
    EXPECT_EQ(decodeIdentity(reply).major, 200);
}

TEST(Identity, HasAllCharactersOfANameWithAZeroByte)
{
    QByteArray reply = wire::hex(kReply);
    reply[17] = '\0';
    EXPECT_EQ(decodeIdentity(reply).name, QString::fromLatin1("Un\0t1", 5));
}

TEST(Identity, IsInvalidWithoutAllFieldsButMayHaveAShorterName)
{
    const QByteArray reply = wire::hex(kReply);
    for (int size = 0; size < 15; ++size)
        EXPECT_FALSE(decodeIdentity(reply.left(size)).valid) << size;
    EXPECT_EQ(decodeIdentity(reply.left(15)).name, QString());
    EXPECT_EQ(decodeIdentity(reply.left(18)).name, QString("Uni"));
    EXPECT_EQ(decodeIdentity(reply + "more").name, QString("Unit1"));
}
