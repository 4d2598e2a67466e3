// The CRC of one byte more, for every CRC: with all bits of the byte at once and bit by bit.

#include "internal/Crc16.h"

#include <QtCore/QByteArray>

#include <gtest/gtest.h>

namespace {

// As the parameter set defines it.
unsigned int shifted(unsigned int crc, unsigned int byte)
{
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) {
        const bool odd = crc % 2 == 1;
        crc /= 2;
        if (odd)
            crc ^= 0xA001;
    }
    return crc;
}

} // namespace

TEST(Crc16, IsTheShiftedRegisterForEveryCrcAndEveryByte)
{
    for (unsigned int crc = 0; crc <= 0xFFFF; ++crc) {
        // The byte counts only together with the low byte of the CRC.
        for (const char each : QByteArray("\x00\x01\x03\x10\x5A\x80\xFF", 7)) {
            const auto byte = static_cast<quint8>(each);
            ASSERT_EQ(crc16::extended(crc, byte), shifted(crc, byte)) << crc << ' ' << int(byte);
            ASSERT_EQ(crc16::extended(crc, byte, 0xA001), shifted(crc, byte));
        }
    }
    for (unsigned int byte = 0; byte <= 0xFF; ++byte)
        EXPECT_EQ(crc16::extended(0xABCD, static_cast<quint8>(byte)), shifted(0xABCD, byte));
}
