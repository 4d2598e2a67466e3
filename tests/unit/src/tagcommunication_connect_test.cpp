// A complete connection set-up as a host runs it: request, reply, request, reply, data.

#include "driver_fixture.h"
#include "fixed_time_of_day.h"
#include "serial_numbers.h"

using wire::hex;

namespace {

class Connecting : public DriverTest
{
protected:
    Connecting() : clock(QTime(0, 0, 0)), second(1000)
    {
        clock.setSeconds(second);
        AddListReadVar(&request);
    }

    // The frame that the host has to send; empty without one.
    static QByteArray next()
    {
        const Protocol* protocol = ComCommunication();
        return protocol ? protocol->frame : QByteArray();
    }
    static int reply(QByteArray bytes) { return DataCom(&bytes, bytes.size())->retValue; }
    // Advances the clock by one second, so that the next serial number is a different one.
    quint32 nextSerial()
    {
        clock.setSeconds(++second);
        return serial_numbers::at(second);
    }
    static QByteArray connectionRequest(quint16 tns, quint32 serial)
    {
        return wire::framed(wire::forwardOpenRequest(tns, serial));
    }
    void identify(quint16 tns)
    {
        EXPECT_BYTES(next(), wire::framed(wire::identityRequest(tns)));
        EXPECT_EQ(reply(wire::identityReply(tns)), 1);
    }

    RW_VAR request = readOf("Speed");
    FixedTimeOfDay clock;
    int second;
};

TEST_F(Connecting, UsesOneTransactionNumberForEachFrame)
{
    const quint32 serial = serial_numbers::at(second);
    identify(1);
    EXPECT_BYTES(next(), connectionRequest(2, serial));
    EXPECT_FALSE(getHandshakeInformation(1));
    EXPECT_EQ(reply(wire::forwardOpenReply(2, hex("5A 3C"))), 1);
    EXPECT_TRUE(getHandshakeInformation(1));
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    EXPECT_BYTES(next(), wire::readRequest(3, hex("5A 3C"), wire::tagPath("Speed"), 1));
}

TEST_F(Connecting, CountsAcceptedRepliesInTheSettings)
{
    next();
    EXPECT_EQ(settings.frameCount, 2);
    EXPECT_EQ(settings.framesAnswered, 0);
    reply(wire::identityReply(1));
    EXPECT_EQ(settings.framesAnswered, 1);
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
    reply(wire::forwardOpenReply(2, hex("5A 3C")));
    EXPECT_EQ(settings.framesAnswered, 2);
}

TEST_F(Connecting, RestartsAfterAnUnansweredIdentityRequest)
{
    next();
    EXPECT_EQ(reply(QByteArray()), 201);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    EXPECT_FALSE(getHandshakeInformation(1));
    EXPECT_BYTES(next(), wire::framed(wire::identityRequest(2)));
}

TEST_F(Connecting, ResendsAConnectionRequestThreeTimesWithANewTransactionAndSerialNumber)
{
    const quint32 serial = serial_numbers::at(second);
    identify(1);
    EXPECT_BYTES(next(), connectionRequest(2, serial));
    for (quint16 tns = 3; tns <= 5; ++tns) {
        const quint32 newSerial = nextSerial();
        EXPECT_EQ(reply(QByteArray()), 201);
        EXPECT_BYTES(next(), connectionRequest(tns, newSerial));
        EXPECT_EQ(settings.framesAnswered, 1);
    }
    EXPECT_EQ(reply(QByteArray()), 201);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    EXPECT_FALSE(getHandshakeInformation(1));
    EXPECT_EQ(PLCDataStorage[1].transactionCounter, 6);
    EXPECT_BYTES(next(), wire::framed(wire::identityRequest(6)));
}

TEST_F(Connecting, ResendsWithTheSameSerialNumberWithinOneSecond)
{
    const quint32 serial = serial_numbers::at(second);
    identify(1);
    reply(QByteArray());
    EXPECT_BYTES(next(), connectionRequest(3, serial));
}

TEST_F(Connecting, DoesNotChangeTheSendLengthOfAResentRequest)
{
    PLCDataStorage[1].transactionCounter = 0x000D;
    identify(0x000D);
    const int length = PLC_driver.sendQueue.first().sendLength;
    EXPECT_EQ(length, PLC_driver.sendQueue.first().frame.size());
    second = serial_numbers::secondWithDles(1) - 1;
    const quint32 serial = nextSerial();
    reply(QByteArray());
    EXPECT_BYTES(next(), connectionRequest(0x000F, serial));
    reply(QByteArray());
    EXPECT_BYTES(next(), connectionRequest(0x0010, serial));
    EXPECT_EQ(next().size(), 64);
    EXPECT_EQ(PLC_driver.sendQueue.first().sendLength, length);
}

TEST_F(Connecting, ConnectsOnTheLastResend)
{
    identify(1);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(reply(QByteArray()), 201);
    EXPECT_EQ(reply(wire::forwardOpenReply(5, hex("5A 3C"))), 1);
    EXPECT_TRUE(getHandshakeInformation(1));
    EXPECT_BYTES(next(), wire::readRequest(6, hex("5A 3C"), wire::tagPath("Speed"), 1));
}

TEST_F(Connecting, RestartsTheCountOfResendsForEachSetUp)
{
    identify(1);
    for (int i = 0; i < 3; ++i)
        reply(QByteArray());
    reply(wire::forwardOpenReply(5, hex("5A 3C")));
    setHandshakeInformation(1, false);
    identify(6);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(reply(QByteArray()), 201);
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
    EXPECT_EQ(reply(QByteArray()), 201);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
}

TEST_F(Connecting, AllowsFourAttemptsInEachSetUpAfterAFailedOne)
{
    for (int setUp = 0; setUp < 2; ++setUp) {
        next();
        EXPECT_EQ(reply(wire::identityReply(1)), 1);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(reply(QByteArray()), 201);
        EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
        EXPECT_EQ(reply(QByteArray()), 201);
        EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    }
}

TEST_F(Connecting, SendsOnlyTheNewIdentifierAfterTheStationWasLost)
{
    identify(1);
    reply(wire::forwardOpenReply(2, hex("5A 3C")));
    setHandshakeInformation(1, false);
    identify(3);
    reply(wire::forwardOpenReply(4, hex("11 22")));
    EXPECT_BYTES(PLCDataStorage[1].connectionId, hex("11 22"));
    EXPECT_BYTES(next(), wire::readRequest(5, hex("11 22"), wire::tagPath("Speed"), 1));
}

} // namespace
