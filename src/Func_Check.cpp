#include "Func_Check.h"

#include "internal/Crc16.h"
#include "internal/DriverState.h"

void InvertUint16(unsigned short* out, unsigned short* in)
{
    if (!out || !in)
        return;
    unsigned int reversed = 0;
    for (int bit = 0; bit < 16; ++bit) {
        if (*in & (1u << bit))
            reversed |= 0x8000u >> bit;
    }
    *out = static_cast<unsigned short>(reversed);
}

unsigned int CRC16_IBM(unsigned char* data, unsigned int length)
{
    unsigned short polynomial = 0x8005;
    InvertUint16(&polynomial, &polynomial);
    unsigned int crc = 0;
    for (unsigned int i = 0; data && i < length; ++i)
        crc = crc16::extended(crc, data[i], polynomial);
    return crc;
}

unsigned short CalSUM(unsigned char* data, unsigned short length)
{
    unsigned int sum = 0;
    for (unsigned int i = 0; data && i < length; ++i)
        sum += data[i];
    return static_cast<unsigned short>(sum);
}

unsigned short CalCRC(unsigned char* data, unsigned short length)
{
    unsigned int crc = 0xFFFF;
    for (unsigned int i = 0; data && i < length; ++i)
        crc = crc16::extended(crc, data[i], crc16::kReflectedPolynomial);
    return static_cast<unsigned short>(crc);
}

int CalLRC(unsigned char* data, unsigned short length)
{
    // Not reduced to 8 bits again: hosts compare with 256 where the sum is a multiple of 256.
    return static_cast<int>(~static_cast<unsigned int>(CalSUM(data, length)) & 0xFFu) + 1;
}

unsigned char CalXOR(unsigned char* data, unsigned short length)
{
    if (!data)
        return 0;
    unsigned int value = data[0];
    for (unsigned int i = 1; i < length; ++i)
        value ^= data[i];
    return static_cast<unsigned char>(value);
}

int DigitalToASCII(int value)
{
    const unsigned int digit = static_cast<unsigned int>(value);
    return static_cast<int>(value < 10 ? digit + 0x30u : digit + 0x37u);
}

int ASCIIToDigital(int character)
{
    if (character < 0x30 || character == 0x40)
        return 0;
    return character < 0x40 ? character - 0x30 : character - 0x37;
}

int CheckGetData(QByteArray*, int)
{
    if (PLC_driver.sendQueue.isEmpty())
        return 0;
    switch (driverstate::inFlight().var.accessMode) {
    case 0:
        return 1;
    case 1:
        return 2;
    default:
        return 0;
    }
}
