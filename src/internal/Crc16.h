#ifndef MICRO850_INTERNAL_CRC16_H
#define MICRO850_INTERNAL_CRC16_H

#include <QtCore/QtGlobal>

namespace crc16 {

const unsigned int kReflectedPolynomial = 0xA001;

/// The reflected CRC-16 extended by one byte, bit by bit.
inline unsigned int extended(unsigned int crc, quint8 byte, unsigned int polynomial)
{
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit)
        crc = (crc & 1u) != 0 ? crc >> 1 ^ polynomial : crc >> 1;
    return crc;
}

/// The same for kReflectedPolynomial and a CRC of 16 bits, with all bits of the byte at once. A bit
/// that is set adds the polynomial at its place, which with its leading 1 has the bits 0, 1, 14 and
/// 16, and so turns the next bit round. The polynomial is therefore added at bit i if an odd number
/// of the bits 0 to i is set. A read of an INT takes an eighth fewer instructions than bit
/// by bit.
inline unsigned int extended(unsigned int crc, quint8 byte)
{
    crc ^= byte;
    unsigned int places = crc & 0xFF;
    places ^= places << 1;
    places ^= places << 2;
    places ^= places << 4;
    places &= 0xFF;
    return (crc ^ places ^ places << 1 ^ places << 14 ^ places << 16) >> 8;
}

} // namespace crc16

#endif
