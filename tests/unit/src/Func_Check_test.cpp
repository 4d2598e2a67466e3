#include "driver_fixture.h"

#include <rapidcheck/gtest.h>

#include <climits>

using wire::hex;

namespace {

unsigned char* raw(QByteArray& bytes)
{
    return reinterpret_cast<unsigned char*>(bytes.data());
}

quint16 inverted(quint16 in)
{
    unsigned short word = in;
    unsigned short out = 0x5A5A;
    InvertUint16(&out, &word);
    EXPECT_EQ(word, in);
    return out;
}

unsigned int crc16Ibm(QByteArray bytes)
{
    return CRC16_IBM(raw(bytes), static_cast<unsigned int>(bytes.size()));
}

quint16 length(const QByteArray& bytes)
{
    return static_cast<quint16>(bytes.size());
}

int sum(QByteArray bytes)
{
    return CalSUM(raw(bytes), length(bytes));
}

int crcModbus(QByteArray bytes)
{
    return CalCRC(raw(bytes), length(bytes));
}

int lrc(QByteArray bytes)
{
    return CalLRC(raw(bytes), length(bytes));
}

int exclusiveOr(QByteArray bytes)
{
    return CalXOR(raw(bytes), length(bytes));
}

TEST(InvertUint16, ReversesTheOrderOfTheSixteenBits)
{
    EXPECT_EQ(inverted(0x0001), 0x8000);
    EXPECT_EQ(inverted(0x8000), 0x0001);
    EXPECT_EQ(inverted(0x8005), 0xA001);
    EXPECT_EQ(inverted(0x0000), 0x0000);
    EXPECT_EQ(inverted(0xFFFF), 0xFFFF);
    EXPECT_EQ(inverted(0x0180), 0x0180);
}

TEST(InvertUint16, MovesEachBitToTheMirroredPosition)
{
    for (int bit = 0; bit < 16; ++bit)
        EXPECT_EQ(inverted(static_cast<quint16>(1 << bit)), 1 << (15 - bit));
}

TEST(InvertUint16, MayWriteOverItsInput)
{
    unsigned short word = 0x1234;
    InvertUint16(&word, &word);
    EXPECT_EQ(word, 0x2C48);
}

TEST(InvertUint16, ChangesNothingWhenAnArgumentIsNull)
{
    unsigned short word = 0x1234;
    InvertUint16(nullptr, &word);
    InvertUint16(&word, nullptr);
    EXPECT_EQ(word, 0x1234);
}

TEST(Crc16Ibm, HasTheCheckValueOfItsParameterSet)
{
    EXPECT_EQ(crc16Ibm("123456789"), 0xBB3Du);
}

TEST(Crc16Ibm, IsZeroForNoBytes)
{
    EXPECT_EQ(crc16Ibm(QByteArray()), 0u);
    EXPECT_EQ(CRC16_IBM(nullptr, 3), 0u);
}

TEST(Crc16Ibm, IsTheCrcOfTheIdentityRequest)
{
    EXPECT_EQ(crc16Ibm(hex("00 01 0B 00 01 00 00 00 01 02 20 01 24 01 03")), 0x358Eu);
}

TEST(Crc16Ibm, ReadsOnlyTheGivenNumberOfBytes)
{
    QByteArray bytes = hex("31 32 33 FF");
    EXPECT_EQ(CRC16_IBM(raw(bytes), 3), wire::crc16Arc(hex("31 32 33")));
    EXPECT_EQ(CRC16_IBM(raw(bytes), 0), 0u);
}

TEST(Crc16Ibm, CoversMoreThan65535Bytes)
{
    QByteArray bytes(70000, '\0');
    bytes[69999] = 1;
    EXPECT_EQ(crc16Ibm(bytes), 0xC0C1u);
}

RC_GTEST_PROP(Crc16Ibm, AgreesWithTheTableDrivenCrc, (const std::string& bytes))
{
    const QByteArray data = QByteArray::fromStdString(bytes);
    RC_ASSERT(crc16Ibm(data) == wire::crc16Arc(data));
}

TEST(CalSum, AddsTheBytesAsUnsignedNumbers)
{
    EXPECT_EQ(sum(hex("01 02 03")), 6);
    EXPECT_EQ(sum(hex("80 FF")), 0x17F);
}

TEST(CalSum, KeepsTheLowSixteenBits)
{
    EXPECT_EQ(sum(QByteArray(300, '\xFF')), 10964);
}

TEST(CalSum, IsZeroForNoBytes)
{
    EXPECT_EQ(sum(QByteArray()), 0);
    EXPECT_EQ(CalSUM(nullptr, 5), 0);
}

TEST(CalSum, ReadsOnlyTheGivenNumberOfBytes)
{
    QByteArray bytes = hex("01 02 04");
    EXPECT_EQ(CalSUM(raw(bytes), 2), 3);
    EXPECT_EQ(CalSUM(raw(bytes), 1), 1);
    EXPECT_EQ(CalSUM(raw(bytes), 0), 0);
}

TEST(CalCrc, HasTheCheckValueOfItsParameterSet)
{
    EXPECT_EQ(crcModbus("123456789"), 0x4B37);
}

TEST(CalCrc, IsTheCrcOfAKnownRequest)
{
    EXPECT_EQ(crcModbus(hex("01 03 00 00 00 01")), 0x0A84);
}

TEST(CalCrc, IsAllOnesForNoBytes)
{
    EXPECT_EQ(crcModbus(QByteArray()), 0xFFFF);
    EXPECT_EQ(CalCRC(nullptr, 2), 0xFFFF);
}

RC_GTEST_PROP(CalCrc, AgreesWithTheTableDrivenCrc, (const std::string& bytes))
{
    const QByteArray data = QByteArray::fromStdString(bytes);
    RC_ASSERT(crcModbus(data) == wire::crc16Modbus(data));
}

TEST(CalLrc, IsTheTwosComplementOfTheSum)
{
    EXPECT_EQ(lrc(hex("01")), 255);
    EXPECT_EQ(lrc(hex("01 02")), 253);
    EXPECT_EQ(lrc(hex("FF")), 1);
    EXPECT_EQ(lrc(hex("FF 02")), 255);
    EXPECT_EQ(lrc(hex("80")), 128);
}

TEST(CalLrc, Is256WhenTheSumIsAMultipleOf256)
{
    EXPECT_EQ(lrc(hex("00")), 256);
    EXPECT_EQ(lrc(hex("80 80")), 256);
    EXPECT_EQ(lrc(QByteArray(512, '\xFF')), 256);
    EXPECT_EQ(lrc(QByteArray()), 256);
    EXPECT_EQ(CalLRC(nullptr, 1), 256);
}

TEST(CalXor, CombinesTheBytes)
{
    EXPECT_EQ(exclusiveOr(hex("12 34")), 0x26);
    EXPECT_EQ(exclusiveOr(hex("FF 0F 81")), 0x71);
}

TEST(CalXor, IsTheFirstByteForALengthOfZeroOrOne)
{
    QByteArray bytes = hex("A5 5A");
    EXPECT_EQ(CalXOR(raw(bytes), 0), 0xA5);
    EXPECT_EQ(CalXOR(raw(bytes), 1), 0xA5);
    EXPECT_EQ(CalXOR(raw(bytes), 2), 0xFF);
}

TEST(CalXor, IsZeroWithoutBytes)
{
    EXPECT_EQ(CalXOR(nullptr, 0), 0);
    EXPECT_EQ(CalXOR(nullptr, 4), 0);
}

TEST(Checksums, CoverUpTo65535Bytes)
{
    const int most = 65535;
    EXPECT_EQ(sum(QByteArray(most, '\x01')), 65535);
    EXPECT_EQ(sum(QByteArray(most, '\xFF')), 65535 * 255 % 65536);
    EXPECT_EQ(lrc(QByteArray(most, '\x01')), 1);
    EXPECT_EQ(exclusiveOr(QByteArray(most, '\x01')), 0x01);
    const QByteArray lateByte = QByteArray(most - 1, '\0') + '\x01';
    EXPECT_EQ(crcModbus(lateByte), wire::crc16Modbus(lateByte));
    EXPECT_EQ(exclusiveOr(lateByte), 0x01);
}

TEST(DigitalToAscii, ReturnsTheSixteenDigits)
{
    const char digits[] = "0123456789ABCDEF";
    for (int value = 0; value < 16; ++value)
        EXPECT_EQ(DigitalToASCII(value), digits[value]);
}

TEST(DigitalToAscii, ChecksNoRange)
{
    EXPECT_EQ(DigitalToASCII(-1), 0x2F);
    EXPECT_EQ(DigitalToASCII(-100), -52);
    EXPECT_EQ(DigitalToASCII(16), 'G');
    EXPECT_EQ(DigitalToASCII(INT_MIN), INT_MIN + 0x30);
    EXPECT_EQ(DigitalToASCII(INT_MAX), INT_MIN + 0x36);
}

TEST(AsciiToDigital, ReturnsTheValuesOfTheSixteenDigits)
{
    const char digits[] = "0123456789ABCDEF";
    for (int value = 0; value < 16; ++value)
        EXPECT_EQ(ASCIIToDigital(digits[value]), value);
}

TEST(AsciiToDigital, ContinuesAfterTheDigitNine)
{
    EXPECT_EQ(ASCIIToDigital(':'), 10);
    EXPECT_EQ(ASCIIToDigital('?'), 15);
}

TEST(AsciiToDigital, IsZeroBelowTheDigitsAndForTheAtSign)
{
    EXPECT_EQ(ASCIIToDigital(0x2F), 0);
    EXPECT_EQ(ASCIIToDigital(0x40), 0);
    EXPECT_EQ(ASCIIToDigital(0), 0);
    EXPECT_EQ(ASCIIToDigital(-5), 0);
    EXPECT_EQ(ASCIIToDigital(INT_MIN), 0);
}

TEST(AsciiToDigital, IsCaseSensitiveAndChecksNoRange)
{
    EXPECT_EQ(ASCIIToDigital('a'), 42);
    EXPECT_EQ(ASCIIToDigital('G'), 16);
    EXPECT_EQ(ASCIIToDigital(INT_MAX), INT_MAX - 0x37);
}

class CheckGetDataVerdict : public DriverTest
{
protected:
    int verdictFor(int accessMode)
    {
        Protocol inFlight;
        inFlight.var.accessMode = accessMode;
        PLC_driver.sendQueue.append(inFlight);
        Protocol other;
        other.var.accessMode = accessMode == 0 ? 1 : 0;
        PLC_driver.sendQueue.append(other);
        QByteArray reply;
        const int verdict = CheckGetData(&reply, 0);
        PLC_driver.sendQueue.clear();
        return verdict;
    }
};

TEST_F(CheckGetDataVerdict, IsToStoreTheReplyToARead)
{
    EXPECT_EQ(verdictFor(0), 1);
}

TEST_F(CheckGetDataVerdict, IsToAcceptTheReplyToAWriteWithoutStoringIt)
{
    EXPECT_EQ(verdictFor(1), 2);
}

TEST_F(CheckGetDataVerdict, IsToRejectTheReplyToAnyOtherAccess)
{
    for (int accessMode : {-1, 2, 3, 100, INT_MAX, INT_MIN})
        EXPECT_EQ(verdictFor(accessMode), 0);
}

TEST_F(CheckGetDataVerdict, DependsNeitherOnTheReplyNorOnItsLength)
{
    PLC_driver.sendQueue.append(Protocol());
    EXPECT_EQ(CheckGetData(nullptr, -1), 1);
    QByteArray reply = wire::errorReply(1, 0x52, 5);
    EXPECT_EQ(CheckGetData(&reply, reply.size()), 1);
    EXPECT_BYTES(reply, wire::errorReply(1, 0x52, 5));
}

TEST_F(CheckGetDataVerdict, IsToRejectAReplyWithoutARequestInFlight)
{
    EXPECT_EQ(CheckGetData(nullptr, 0), 0);
}

} // namespace
