#ifndef MICRO850_TESTS_SIMULATOR_BYTES_H
#define MICRO850_TESTS_SIMULATOR_BYTES_H

#include "CipType.h"

#include <sstream>
#include <string>

namespace micro850::sim {

// Bytes, their text, and frames for the tests of the simulator. The frames are built without its
// code, so that a mistake there cannot cancel another.

/// Bytes of a text like "10 06 10 02".
inline Bytes hex(const std::string& text)
{
    Bytes bytes;
    std::istringstream in(text);
    for (unsigned value; in >> std::hex >> value;)
        bytes.push_back(static_cast<std::uint8_t>(value));
    return bytes;
}

/// The text of bytes, so that a failed comparison can be read.
inline std::string text(const Bytes& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (std::uint8_t byte : bytes) {
        out += out.empty() ? "" : " ";
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// The CRC by long division: low bits first, divisor x^16 + x^15 + x^2 + 1, result reversed.
inline std::uint16_t dividedCrc(const Bytes& bytes)
{
    std::uint32_t remainder = 0;
    const auto divide = [&remainder](bool bit) {
        remainder = remainder << 1 | (bit ? 1 : 0);
        if (remainder & 0x10000)
            remainder ^= 0x18005;
    };
    for (const std::uint8_t byte : bytes) {
        for (int i = 0; i < 8; ++i)
            divide((byte >> i & 1) != 0);
    }
    for (int i = 0; i < 16; ++i)
        divide(false);
    std::uint16_t crc = 0;
    for (int i = 0; i < 16; ++i)
        crc = static_cast<std::uint16_t>(crc | (remainder >> i & 1) << (15 - i));
    return crc;
}

/// A message on the line, from DLE STX to its CRC.
inline Bytes framed(const Bytes& data)
{
    Bytes doubled;
    for (const std::uint8_t byte : data) {
        doubled.push_back(byte);
        if (byte == 0x10)
            doubled.push_back(byte);
    }
    const std::uint16_t crc = dividedCrc(data + hex("03"));
    return hex("10 02") + doubled + hex("10 03") +
           Bytes{static_cast<std::uint8_t>(crc & 0xFF), static_cast<std::uint8_t>(crc >> 8)};
}

} // namespace micro850::sim

#endif
