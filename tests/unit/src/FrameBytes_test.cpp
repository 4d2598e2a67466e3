// The CRC of one byte more, for every CRC and byte; what doubling, undoubling and the element
// segment write in a buffer.

#include "internal/FrameBytes.h"

#include <QtCore/QByteArray>

#include <gtest/gtest.h>

#include <string>

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

std::string hexOf(const unsigned char* bytes, std::size_t size)
{
    return QByteArray(reinterpret_cast<const char*>(bytes), static_cast<int>(size))
        .toHex(' ')
        .toStdString();
}

} // namespace

TEST(FrameBytes, ExtendsTheCrcAsTheShiftedRegisterDoesForEveryCrcAndEveryByte)
{
    for (unsigned int crc = 0; crc <= 0xFFFF; ++crc) {
        for (unsigned int byte = 0; byte <= 0xFF; ++byte) {
            const auto next = static_cast<unsigned char>(byte);
            // A plain comparison: an assertion takes ten times as long, and there are 16 million.
            if (framebytes::crcExtended(crc, next) != shifted(crc, byte))
                FAIL() << crc << ' ' << byte;
        }
        ASSERT_EQ(framebytes::crcShifted(crc, 0x5A, 0xA001), shifted(crc, 0x5A));
    }
}

TEST(FrameBytes, WritesNothingBehindADoubledFrame)
{
    unsigned char bytes[] = {0x10, 0x02, 0x10, 0x41, 0x10, 0x10, 0x03, 0x10, 0x22, 0, 0, 0, 0xEE};
    ASSERT_EQ(framebytes::countDles(bytes, 2, 5), 2u);
    framebytes::doubleInPlace(bytes, 2, 5, 2);
    EXPECT_EQ(hexOf(bytes, sizeof bytes), "10 02 10 10 41 10 10 10 03 10 22 00 ee");
}

TEST(FrameBytes, GivesAFrameBackUnlessBothBytesOfItsCrcAre10)
{
    for (const int crcHigh : {0x00, 0x0F, 0x10, 0x11}) {
        unsigned char bytes[16] = {0x10, 0x02, 0x10, 0x10,
                                   0x10, 0x03, 0x10, static_cast<unsigned char>(crcHigh)};
        const std::string before = hexOf(bytes, 8);
        framebytes::doubleInPlace(bytes, 2, 4, framebytes::countDles(bytes, 2, 4));
        const std::size_t size =
            framebytes::undoubleInPlace(bytes, framebytes::firstPair(bytes, 0, 10), 10);
        // A pair of bytes 10 10 in front of the CRC is a doubled DLE; in the CRC it is none.
        EXPECT_EQ(hexOf(bytes, size),
                  crcHigh == 0x10 ? std::string("10 02 10 10 10 03 10") : before);
    }
}

TEST(FrameBytes, WritesNoByteForElement0)
{
    unsigned char segment[framebytes::kElementSegment] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(framebytes::putElement(segment, 0), 0u);
    EXPECT_EQ(hexOf(segment, 6), "ee ee ee ee ee ee");
    EXPECT_EQ(framebytes::putElement(segment, 0x10000), 6u);
    EXPECT_EQ(hexOf(segment, 6), "30 00 00 00 01 00");
}
