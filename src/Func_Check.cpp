#include "Func_Check.h"

#include "internal/DriverState.h"
#include "internal/FrameBytes.h"
#include "internal/Wrapping.h"

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
    return data ? framebytes::crcShiftedOver(data, length, 0, polynomial) : 0;
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
    const unsigned int start = 0xFFFF;
    const unsigned int crc = framebytes::crcShiftedOver(data, data ? length : 0, start,
                                                        framebytes::kReflectedPolynomial);
    return static_cast<unsigned short>(crc);
}

int CalLRC(unsigned char* data, unsigned short length)
{
    // Not reduced to 8 bits again, so that a sum that is a multiple of 256 gives 256.
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
    return wrapping::sum(value, value < 10 ? 0x30 : 0x37);
}

int ASCIIToDigital(int character)
{
    if (character < 0x30 || character == 0x40)
        return 0;
    return character < 0x40 ? character - 0x30 : character - 0x37;
}

int CheckGetData(QByteArray*, int)
{
    const int kRead = 0;
    const int kWrite = 1;
    if (PLC_driver.sendQueue.isEmpty())
        return driverstate::kReject;
    switch (driverstate::inFlight().var.accessMode) {
    case kRead:
        return driverstate::kStore;
    case kWrite:
        return driverstate::kAcceptOnly;
    default:
        return driverstate::kReject;
    }
}
