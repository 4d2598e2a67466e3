#ifndef MICRO850_FUNC_CHECK_H
#define MICRO850_FUNC_CHECK_H

// CRC and checksum helpers, and the check of a reply against its request.
// None of them reads outside `data`; a null `data` counts as no bytes.

#include "Micro850Export.h"

#include <QtCore/QByteArray>

/// `*out` = the 16 bits of `*in` in reverse order; both may be the same word.
MICRO850_EXPORT void InvertUint16(unsigned short* out, unsigned short* in);
/// CRC-16/ARC of `length` bytes (polynomial 0x8005 reflected, start 0, no final XOR) in the low
/// half.
MICRO850_EXPORT unsigned int CRC16_IBM(unsigned char* data, unsigned int length);

/// Sum of the bytes, low 16 bits.
MICRO850_EXPORT unsigned short CalSUM(unsigned char* data, unsigned short length);
/// CRC-16/MODBUS of the bytes; 0xFFFF for none.
MICRO850_EXPORT unsigned short CalCRC(unsigned char* data, unsigned short length);
/// Longitudinal redundancy check, 1 to 256: a sum that is a multiple of 256 gives 256, not 0.
MICRO850_EXPORT int CalLRC(unsigned char* data, unsigned short length);
/// XOR of the bytes. Byte 0 is read even if `length` is 0; a null `data` gives 0.
MICRO850_EXPORT unsigned char CalXOR(unsigned char* data, unsigned short length);
/// Hexadecimal digit of a value 0 to 15; no range check.
MICRO850_EXPORT int DigitalToASCII(int value);
/// Value of a hexadecimal digit, upper case only; no range check.
MICRO850_EXPORT int ASCIIToDigital(int character);

/// 1 = store the reply to the frame in flight, 2 = accept it without storing, 0 = reject it.
MICRO850_EXPORT int CheckGetData(QByteArray* reply, int length);

#endif
