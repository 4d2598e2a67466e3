#include "driver_fixture.h"

using wire::hex;

namespace {

unsigned char* raw(QByteArray& bytes)
{
    return reinterpret_cast<unsigned char*>(bytes.data());
}

TEST(Crc16Ibm, HasTheCheckValueOfItsParameterSet)
{
    QByteArray digits = "123456789";
    EXPECT_EQ(CRC16_IBM(raw(digits), 9), 0xBB3Du);
    EXPECT_EQ(CRC16_IBM(raw(digits), 0), 0u);
}

} // namespace
