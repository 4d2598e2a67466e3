// The two requests that connect a station, and the effects of their replies.

#include "driver_fixture.h"
#include "fixed_time_of_day.h"
#include "lock_witness.h"
#include "serial_numbers.h"

#include <vector>

using wire::hex;

namespace {

const int kStation = 3;

class Handshake : public DriverTest
{
protected:
    Handshake() : clock(QTime(12, 34, 56)) { startAt(1); }

    void startAt(quint16 counter)
    {
        PLC_driver.sendQueue.clear();
        PLCDataStorage.clear();
        PLCDataStorage[kStation].transactionCounter = counter;
    }
    // Queues both requests.
    void begin(quint16 counter = 1)
    {
        startAt(counter);
        EXPECT_EQ(HandshakeFunction(kStation), 1);
        ASSERT_EQ(PLC_driver.sendQueue.size(), 2);
    }
    // Queues both requests and answers the first, so that the connection request is in flight.
    void beginConnecting(quint16 counter = 1)
    {
        begin(counter);
        const QByteArray reply = wire::identityReply(counter);
        EXPECT_EQ(HandshakeFunctionCheck(&reply), 1);
        PLC_driver.sendQueue.removeFirst();
        settings.framesAnswered = 1;
    }
    static int check(const QByteArray& reply) { return HandshakeFunctionCheck(&reply); }
    static Protocol& queued(int i) { return PLC_driver.sendQueue[i]; }
    static PLCTAGCOMMUNICATION& station() { return PLCDataStorage[kStation]; }
    static QByteArray connectionRequest(quint16 tns, quint32 serial)
    {
        return wire::framed(wire::forwardOpenRequest(tns, serial));
    }

    FixedTimeOfDay clock;
};

void expectOnlyTheStation(const RW_VAR& request)
{
    EXPECT_EQ(request.stationNo, kStation);
    EXPECT_EQ(request.tagName, QString());
    EXPECT_EQ(request.addressText, QString());
    EXPECT_BYTES(request.data, QByteArray());
    for (int field : {request.varType, request.varIndex, request.accessMode, request.hostField3,
                      request.linkId, request.retValue, request.areaType, request.startAddress,
                      request.count, request.reqFlag, request.onceFlag})
        EXPECT_EQ(field, 0);
}

void expectQueued(const Protocol& request, const QByteArray& frame, int replyLength)
{
    EXPECT_BYTES(request.frame, frame);
    EXPECT_EQ(request.sendLength, frame.size());
    EXPECT_EQ(request.replyLength, replyLength);
    EXPECT_EQ(request.auxLength, 0);
    EXPECT_EQ(request.auxFlag, 0);
    expectOnlyTheStation(request.var);
}

TEST_F(Handshake, QueuesTheIdentityRequestByteForByte)
{
    begin(1);
    expectQueued(queued(0),
                 hex("10 06 10 02 00 01 0B 00 01 00 00 00 01 02 20 01 24 01 10 03 8E 35"), 61);
}

TEST_F(Handshake, QueuesTheConnectionRequestAfterIt)
{
    begin(1);
    const quint32 serial = serial_numbers::at(12 * 3600 + 34 * 60 + 56);
    expectQueued(queued(1), connectionRequest(2, serial), 46);
    const QByteArray plain = wire::unframed(queued(1).frame);
    EXPECT_BYTES(plain.left(28), hex("00 01 0B 00 02 00 00 00 54 02 20 06 24 01 05 F7 02 00 00 80 "
                                     "01 00 01 80 02 00 34 12"));
    EXPECT_BYTES(plain.mid(28, 3), wire::little(serial, 3));
    EXPECT_BYTES(plain.mid(31), hex("02 02 00 00 00 80 84 1E 00 F8 43 80 84 1E 00 F8 43 A3 02 20 "
                                    "02 24 01"));
}

TEST_F(Handshake, SetsTheCountsForTwoUnansweredFrames)
{
    settings.frameCount = 9;
    settings.framesAnswered = 9;
    begin();
    EXPECT_EQ(settings.frameCount, 2);
    EXPECT_EQ(settings.framesAnswered, 0);
}

TEST_F(Handshake, SendsTheCounterAndItsSuccessorLowByteFirst)
{
    begin(0x1234);
    EXPECT_BYTES(queued(0).frame, wire::framed(wire::identityRequest(0x1234)));
    EXPECT_BYTES(wire::unframed(queued(1).frame).mid(4, 2), hex("35 12"));
    begin(0x12FF);
    EXPECT_BYTES(wire::unframed(queued(1).frame).mid(4, 2), hex("00 13"));
}

TEST_F(Handshake, DoesNotAdvanceTheCounterWhenItStarts)
{
    begin(0x1234);
    EXPECT_EQ(station().transactionCounter, 0x1234);
    EXPECT_FALSE(station().handshakeDone);
}

TEST_F(Handshake, DoublesACounterThatIsADle)
{
    begin(0x0010);
    EXPECT_BYTES(queued(0).frame.mid(8, 3), hex("10 10 00"));
    EXPECT_EQ(queued(0).frame.size(), 23);
    EXPECT_EQ(queued(0).sendLength, 23);
    begin(0x1010);
    EXPECT_BYTES(queued(0).frame.mid(8, 4), hex("10 10 10 10"));
    EXPECT_EQ(queued(0).sendLength, 24);
}

TEST_F(Handshake, QueuesTheConnectionRequestWithZeroAfterTheLargestCounter)
{
    begin(65535);
    EXPECT_BYTES(queued(0).frame, wire::framed(wire::identityRequest(65535)));
    EXPECT_BYTES(wire::unframed(queued(1).frame).mid(4, 2), hex("00 00"));
    EXPECT_EQ(station().transactionCounter, 65535);
    EXPECT_EQ(check(wire::identityReply(65535)), 1);
    EXPECT_EQ(station().transactionCounter, 1);
    EXPECT_BYTES(wire::unframed(queued(1).frame).mid(4, 2), hex("01 00"));
}

TEST_F(Handshake, CreatesAnUnknownStationWithCounterZero)
{
    PLCDataStorage.clear();
    EXPECT_EQ(HandshakeFunction(kStation), 1);
    ASSERT_EQ(PLCDataStorage.size(), 1);
    EXPECT_EQ(station().transactionCounter, 0);
    EXPECT_BYTES(queued(0).frame, wire::framed(wire::identityRequest(0)));
    EXPECT_BYTES(wire::unframed(queued(1).frame).mid(4, 2), hex("01 00"));
}

TEST_F(Handshake, AppendsAfterQueuedFrames)
{
    begin(1);
    PLC_driver.sendQueue.removeLast();
    EXPECT_EQ(HandshakeFunction(kStation), 1);
    EXPECT_EQ(HandshakeFunction(kStation), 1);
    ASSERT_EQ(PLC_driver.sendQueue.size(), 5);
    const int lengths[] = {61, 61, 46, 61, 46};
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(queued(i).replyLength, lengths[i]);
}

TEST_F(Handshake, LengthensTheConnectionRequestByOneByteForEachDleInTheSerialNumber)
{
    for (int dles = 1; dles <= 2; ++dles) {
        clock.setSeconds(serial_numbers::secondWithDles(dles));
        begin(1);
        EXPECT_EQ(queued(1).frame.size(), 62 + dles);
        EXPECT_EQ(queued(1).sendLength, 62 + dles);
        EXPECT_BYTES(
            queued(1).frame,
            connectionRequest(2, serial_numbers::at(serial_numbers::secondWithDles(dles))));
    }
}

TEST_F(Handshake, QueuesBothRequestsWithoutSettings)
{
    SetComInfo(nullptr);
    begin(1);
    EXPECT_EQ(queued(1).replyLength, 46);
}

TEST_F(Handshake, LooksUpTheCounterUnderTheLockOfTheStore)
{
    PLCDataStorage.clear();
    LockWitness witness;
    HandshakeFunction(kStation);
    ASSERT_TRUE(witness.oneStep());
    EXPECT_GT(witness.guardedMapChanges(*witness.locked().front()), 0);
    EXPECT_EQ(witness.unguardedMapChanges(*witness.locked().front()), 0);
}

class HandshakeReply : public Handshake
{
};

TEST_F(HandshakeReply, AdvancesTheCounterWhetherAcceptedOrRejected)
{
    begin(5);
    EXPECT_EQ(check(QByteArray()), 0);
    EXPECT_EQ(station().transactionCounter, 6);
    EXPECT_EQ(check(hex("10 03 00")), 0);
    EXPECT_EQ(station().transactionCounter, 7);
    EXPECT_EQ(HandshakeFunctionCheck(nullptr), 0);
    EXPECT_EQ(station().transactionCounter, 8);
    EXPECT_EQ(check(wire::identityReply(5)), 1);
    EXPECT_EQ(station().transactionCounter, 9);
}

TEST_F(HandshakeReply, IsRejectedWhenItIsShorterThanItsTrailer)
{
    begin();
    const QByteArray trailer = hex("10 03 10 03");
    for (int size = 0; size < 4; ++size) {
        EXPECT_EQ(check(trailer.left(size)), 0) << size;
        EXPECT_EQ(check(trailer.right(size)), 0) << size;
    }
    EXPECT_EQ(check(trailer), 1);
}

TEST_F(HandshakeReply, IsNotReadBeforeItsFirstByte)
{
    begin();
    const char bytes[] = {0x10, 0x10, 0x03, 0x03, 0x41, 0x42};
    for (int from = 1; from < 6; ++from) {
        for (int size = 0; size < 4 && from + size <= 6; ++size)
            EXPECT_EQ(check(QByteArray::fromRawData(bytes + from, size)), 0) << from << ' ' << size;
    }
    EXPECT_EQ(check(QByteArray::fromRawData(bytes + 1, 4)), 1);
}

TEST_F(HandshakeReply, MustEndInDleEtxAndTwoBytes)
{
    begin();
    EXPECT_EQ(check(hex("41 10 03 AA BB")), 1);
    EXPECT_EQ(check(hex("41 11 03 AA BB")), 0);
    EXPECT_EQ(check(hex("41 10 02 AA BB")), 0);
    EXPECT_EQ(check(hex("10 03 AA BB CC")), 0);
    EXPECT_EQ(check(hex("41 42 10 03 AA")), 0);
    EXPECT_EQ(check(hex("41 10 10 03 AA BB")), 1);
}

TEST_F(HandshakeReply, ChangesOnlyTheCounterWhenItIsRejected)
{
    beginConnecting(5);
    const QByteArray frame = queued(0).frame;
    station().connectionId.clear();
    EXPECT_EQ(check(hex("41 10 02 AA BB")), 0);
    EXPECT_BYTES(queued(0).frame, frame);
    EXPECT_BYTES(station().connectionId, QByteArray());
    EXPECT_EQ(settings.framesAnswered, 1);
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
}

TEST_F(HandshakeReply, ChangesNeitherRequestWhenItIsRejectedAtTheFirstStep)
{
    begin(5);
    const QByteArray first = queued(0).frame, second = queued(1).frame;
    EXPECT_EQ(check(hex("41 10 02 AA BB")), 0);
    ASSERT_EQ(PLC_driver.sendQueue.size(), 2);
    EXPECT_BYTES(queued(0).frame, first);
    EXPECT_BYTES(queued(1).frame, second);
    EXPECT_BYTES(station().connectionId, QByteArray());
    EXPECT_EQ(settings.framesAnswered, 0);
}

TEST_F(HandshakeReply, IsAcceptedWithAWrongCrc)
{
    begin();
    QByteArray reply = wire::identityReply(1);
    reply[reply.size() - 1] = static_cast<char>(reply.at(reply.size() - 1) ^ 0x55);
    EXPECT_EQ(check(reply), 1);
}

TEST_F(HandshakeReply, BelongsToTheStationOfTheRequestInFlight)
{
    begin(5);
    queued(0).var.stationNo = 8;
    PLCDataStorage[8].transactionCounter = 0x70;
    EXPECT_EQ(check(wire::identityReply(5)), 1);
    EXPECT_EQ(PLCDataStorage[8].transactionCounter, 0x71);
    EXPECT_EQ(station().transactionCounter, 5);
    EXPECT_BYTES(wire::unframed(queued(1).frame).mid(4, 2), hex("71 00"));
}

TEST_F(HandshakeReply, IsRejectedWithoutARequestInFlightAndCreatesNoStation)
{
    PLCDataStorage.clear();
    EXPECT_EQ(check(wire::identityReply(1)), 0);
    EXPECT_TRUE(PLCDataStorage.isEmpty());
}

TEST_F(HandshakeReply, IsAcceptedAndOtherwiseIgnoredWithoutSettings)
{
    begin(5);
    SetComInfo(nullptr);
    const QByteArray frame = queued(1).frame;
    EXPECT_EQ(check(wire::identityReply(5)), 1);
    EXPECT_BYTES(queued(1).frame, frame);
    EXPECT_EQ(station().transactionCounter, 6);
}

TEST_F(HandshakeReply, IsAcceptedAndOtherwiseIgnoredAtAnyLaterStep)
{
    for (int step : {2, 3, -1}) {
        begin(5);
        settings.framesAnswered = step;
        const QByteArray frame = queued(1).frame;
        EXPECT_EQ(check(wire::forwardOpenReply(5, hex("5A 3C"))), 1);
        EXPECT_EQ(check(hex("10 03")), 0);
        EXPECT_BYTES(queued(1).frame, frame);
        EXPECT_BYTES(station().connectionId, QByteArray());
        EXPECT_EQ(settings.framesAnswered, step);
    }
}

TEST_F(HandshakeReply, ChangesTheStoreOnlyUnderItsLock)
{
    begin(5);
    const std::vector<QByteArray> replies = {wire::identityReply(5),
                                             wire::forwardOpenReply(6, hex("5A 3C"))};
    for (const QByteArray& reply : replies) {
        const QMap<int, PLCTAGCOMMUNICATION> shared = PLCDataStorage;
        LockWitness witness;
        EXPECT_EQ(check(reply), 1);
        ASSERT_EQ(witness.locked().size(), 2u)
            << "to advance the counter, then to read it or to store the identifier";
        EXPECT_TRUE(witness.balanced());
        const QMutex& lock = *witness.locked().front();
        EXPECT_EQ(witness.timesLocked(lock), 2);
        EXPECT_GT(witness.guardedMapChanges(lock), 0);
        EXPECT_EQ(witness.unguardedMapChanges(lock), 0);
        settings.framesAnswered = 1;
    }
}

class IdentityReply : public Handshake
{
};

TEST_F(IdentityReply, SetsTheCurrentCounterInTheConnectionRequest)
{
    begin(7);
    const QByteArray identity = queued(0).frame;
    const quint32 serial = serial_numbers::at(12 * 3600 + 34 * 60 + 56);
    check(QByteArray());
    clock.set(QTime(1, 2, 3));
    EXPECT_EQ(check(wire::identityReply(7)), 1);
    EXPECT_BYTES(queued(1).frame, connectionRequest(9, serial));
    EXPECT_BYTES(queued(0).frame, identity);
    EXPECT_BYTES(station().connectionId, QByteArray());
    EXPECT_EQ(PLC_driver.sendQueue.size(), 2);
}

TEST_F(IdentityReply, DoesNotChangeTheSendLengthOfALongerConnectionRequest)
{
    begin(0x000E);
    const int length = queued(1).sendLength;
    check(QByteArray());
    EXPECT_EQ(check(wire::identityReply(0x000E)), 1);
    EXPECT_BYTES(queued(1).frame.mid(8, 3), hex("10 10 00"));
    EXPECT_EQ(queued(1).frame.size(), length + 1);
    EXPECT_EQ(queued(1).sendLength, length);
    EXPECT_EQ(queued(1).replyLength, 46);
}

TEST_F(IdentityReply, UndoublesTheConnectionRequestBeforePatchingIt)
{
    // The transaction number 0x0010 and the serial number contain a DLE each, doubled in the queue.
    const int second = serial_numbers::secondWithDles(1);
    clock.setSeconds(second);
    begin(0x000F);
    EXPECT_EQ(queued(1).frame.size(), 64);
    check(QByteArray());
    EXPECT_EQ(check(wire::identityReply(0x000F)), 1);
    EXPECT_BYTES(queued(1).frame, connectionRequest(0x0011, serial_numbers::at(second)));
}

TEST_F(IdentityReply, IsAcceptedWithOneRequestQueuedAndPatchesNothing)
{
    begin(7);
    PLC_driver.sendQueue.removeLast();
    const QByteArray frame = queued(0).frame;
    EXPECT_EQ(check(wire::identityReply(7)), 1);
    ASSERT_EQ(PLC_driver.sendQueue.size(), 1);
    EXPECT_BYTES(queued(0).frame, frame);
    EXPECT_EQ(station().transactionCounter, 8);
}

TEST_F(IdentityReply, PatchesOnlyTheSecondRequest)
{
    begin(7);
    PLC_driver.sendQueue.append(queued(1));
    const QByteArray first = queued(0).frame, third = queued(2).frame;
    check(QByteArray());
    EXPECT_EQ(check(wire::identityReply(7)), 1);
    EXPECT_BYTES(queued(0).frame, first);
    EXPECT_BYTES(wire::unframed(queued(1).frame).mid(4, 2), hex("09 00"));
    EXPECT_BYTES(queued(2).frame, third);
}

TEST_F(IdentityReply, DoesNotPatchAFrameOfAnotherLength)
{
    begin(7);
    const QByteArray request = connectionRequest(8, 0x414243);
    ASSERT_EQ(request.size(), 62);
    ASSERT_NE(request.at(60), '\x10');
    const std::vector<QByteArray> frames = {QByteArray(),        hex("10 06 10 02 10 03 00 00"),
                                            request.left(60),    request.left(61),
                                            request + hex("00"), request.left(60) + hex("41")};
    for (const QByteArray& frame : frames) {
        queued(1).frame = frame;
        EXPECT_EQ(check(wire::identityReply(7)), 1);
        EXPECT_BYTES(queued(1).frame, frame);
    }
}

// The second of the day and the transaction number of a connection request with the wanted CRC.
struct CrcCase
{
    int second;
    quint16 tns;
};

CrcCase requestWithCrc(quint16 wanted)
{
    for (quint16 tns = 2; tns < 60; ++tns) {
        for (int second = 0; second < 86400; ++second) {
            const QByteArray data = wire::forwardOpenRequest(tns, serial_numbers::at(second));
            if (wire::crc16Arc(data + hex("03")) == wanted)
                return {second, tns};
        }
    }
    ADD_FAILURE() << "no such request";
    return {0, 2};
}

TEST_F(IdentityReply, PatchesARequestWhoseCrcLooksLikeAPairOfDles)
{
    const CrcCase found = requestWithCrc(0x1010);
    clock.setSeconds(found.second);
    begin(static_cast<quint16>(found.tns - 1));
    ASSERT_TRUE(queued(1).frame.endsWith(hex("10 03 10 10")));
    check(QByteArray());
    EXPECT_EQ(check(wire::identityReply(found.tns)), 1);
    EXPECT_BYTES(queued(1).frame, connectionRequest(static_cast<quint16>(found.tns + 1),
                                                    serial_numbers::at(found.second)));
}

TEST_F(IdentityReply, CanBeFollowedByAResendOfARequestWhoseCrcLooksLikeAPairOfDles)
{
    const CrcCase found = requestWithCrc(0x1010);
    clock.setSeconds(found.second);
    beginConnecting(static_cast<quint16>(found.tns - 1));
    ASSERT_TRUE(queued(0).frame.endsWith(hex("10 03 10 10")));
    QByteArray nothing;
    EXPECT_EQ(DataCom(&nothing, 0)->retValue, 201);
    EXPECT_BYTES(queued(0).frame, connectionRequest(static_cast<quint16>(found.tns + 1),
                                                    serial_numbers::at(found.second)));
}

TEST_F(IdentityReply, DoesNotDoubleACrcThatLooksLikeAPairOfDles)
{
    const CrcCase found = requestWithCrc(0x1010);
    clock.setSeconds(found.second);
    begin(static_cast<quint16>(found.tns - 2));
    check(QByteArray());
    EXPECT_EQ(check(wire::identityReply(found.tns)), 1);
    EXPECT_BYTES(queued(1).frame, connectionRequest(found.tns, serial_numbers::at(found.second)));
    ASSERT_TRUE(queued(1).frame.endsWith(hex("10 03 10 10")));
}

class ForwardOpenReply : public Handshake
{
};

TEST_F(ForwardOpenReply, SetsTheConnectionIdentifier)
{
    beginConnecting(1);
    const QByteArray frame = queued(0).frame;
    EXPECT_EQ(check(wire::forwardOpenReply(2, hex("5A 3C"))), 1);
    EXPECT_BYTES(station().connectionId, hex("5A 3C"));
    EXPECT_EQ(station().transactionCounter, 3);
    EXPECT_FALSE(station().handshakeDone);
    EXPECT_BYTES(queued(0).frame, frame);
}

TEST_F(ForwardOpenReply, PatchesNoQueuedRequest)
{
    begin(1);
    settings.framesAnswered = 1;
    const QByteArray first = queued(0).frame, second = queued(1).frame;
    EXPECT_EQ(check(wire::forwardOpenReply(2, hex("5A 3C"))), 1);
    EXPECT_BYTES(queued(0).frame, first);
    EXPECT_BYTES(queued(1).frame, second);
    EXPECT_BYTES(station().connectionId, hex("5A 3C"));
}

TEST_F(ForwardOpenReply, IsUndoubledBeforeTheIdentifierIsRead)
{
    beginConnecting(0x000F);
    EXPECT_EQ(check(wire::forwardOpenReply(0x0010, hex("10 10"))), 1);
    EXPECT_BYTES(station().connectionId, hex("10 10"));
}

TEST_F(ForwardOpenReply, IsAcceptedWithAnyStatus)
{
    beginConnecting(1);
    EXPECT_EQ(check(hex("10 06 10 02 01 00 4B 00 02 00 00 00 D4 00 01 01 07 11 10 03 AA BB")), 1);
    EXPECT_BYTES(station().connectionId, hex("07 11"));
}

TEST_F(ForwardOpenReply, HasZerosForMissingBytes)
{
    beginConnecting(1);
    EXPECT_EQ(check(hex("10 03 AA BB")), 1);
    EXPECT_BYTES(station().connectionId, hex("00 00"));
    station().connectionId.clear();
    EXPECT_EQ(check(hex("10 06 10 02 01 00 4B 00 02 00 00 00 D4 10 03 AA BB")), 1);
    EXPECT_BYTES(station().connectionId, hex("BB 00"));
    station().connectionId.clear();
    EXPECT_EQ(check(hex("10 06 10 02 01 00 4B 00 02 00 00 00 D4 00 10 03 AA BB")), 1);
    EXPECT_BYTES(station().connectionId, hex("AA BB"));
}

TEST_F(ForwardOpenReply, AppendsToAnIdentifierThatWasNotReset)
{
    beginConnecting(1);
    check(wire::forwardOpenReply(2, hex("5A 3C")));
    check(wire::forwardOpenReply(3, hex("11 22")));
    EXPECT_BYTES(station().connectionId, hex("5A 3C 11 22"));
    PLC_driver.sendQueue.clear();
    RW_VAR request = readOf("Speed");
    request.stationNo = kStation;
    ReadRegister(&request);
    EXPECT_BYTES(queued(0).frame, wire::readRequest(4, hex("5A 3C"), wire::tagPath("Speed"), 1));
}

} // namespace
