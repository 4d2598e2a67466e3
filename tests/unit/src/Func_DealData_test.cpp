#include "driver_fixture.h"

using wire::hex;

namespace {

class StoredReply : public DriverTest
{
protected:
    StoredReply() { connectStation(); }

    /// Stores a reply to `request` as DataCom() does. Returns the buffer as the call left it.
    QByteArray store(const RW_VAR& request, QByteArray reply)
    {
        putInFlight(request);
        SaveToLocalDataErea(&reply);
        EXPECT_EQ(PLC_driver.sendQueue.size(), 1) << "the call does not change the queue";
        EXPECT_EQ(fieldsOf(PLC_driver.sendQueue.first().var), fieldsOf(request));
        return reply;
    }
    QByteArray image(const char* tag = "T") { return PLCDataStorage[1].tagData.value(tag); }
    bool hasImage(const char* tag = "T") { return PLCDataStorage[1].tagData.contains(tag); }
};

TEST_F(StoredReply, ConfirmsTheTypeAndKeepsTheValue)
{
    store(readOf("T"), wire::readReply(0x21, 0xC3, hex("D2 04")));
    EXPECT_BYTES(infoOf("T"), hex("03 C3 00 FF"));
    EXPECT_BYTES(image(), hex("D2 04"));
}

TEST_F(StoredReply, FindsTheTypeBehindADoubledDle)
{
    const QByteArray reply = wire::readReply(0x10, 0xC3, hex("D2 04"));
    ASSERT_LT(reply.indexOf(hex("10 10")), 20);
    store(readOf("T"), reply);
    EXPECT_BYTES(infoOf("T"), hex("03 C3 00 FF"));
    EXPECT_BYTES(image(), hex("D2 04"));
}

TEST_F(StoredReply, IsLeftUndoubledInTheCallersBuffer)
{
    const QByteArray reply = wire::readReply(0x1021, 0xC3, hex("10 10"));
    EXPECT_BYTES(store(readOf("T"), reply), QByteArray(reply).replace(hex("10 10"), hex("10")));
    EXPECT_BYTES(image(), hex("10 10"));
}

TEST_F(StoredReply, PlacesAnElementByItsSizeAndFillsGapsWithZeros)
{
    store(readOf("T", 3), wire::readReply(0x21, 0xC3, hex("AA BB")));
    EXPECT_BYTES(image(), hex("00 00 00 00 00 00 AA BB"));
}

TEST_F(StoredReply, PlacesEveryClassByItsElementSize)
{
    const std::pair<quint16, int> sizes[] = {{0xC1, 1}, {0xC2, 1}, {0xC3, 2}, {0xC4, 4}, {0xC5, 8}};
    for (const auto& [type, size] : sizes) {
        PLCDataStorage[1].tagData.clear();
        PLCDataStorage[1].tagInfo.clear();
        store(readOf("T", 2), wire::readReply(0x21, type, QByteArray(size, 'v')));
        EXPECT_BYTES(image(), QByteArray(2 * size, '\0') + QByteArray(size, 'v')) << type;
    }
}

TEST_F(StoredReply, OverwritesOnlyItsOwnElements)
{
    PLCDataStorage[1].tagData["T"] = hex("09 08 07 06 05 04 03 02");
    store(readOf("T", 1, 2), wire::readReply(0x21, 0xC3, hex("AA BB CC DD")));
    EXPECT_BYTES(image(), hex("09 08 AA BB CC DD 03 02"));
}

TEST_F(StoredReply, PlacesAStringByCharacters)
{
    store(readOf("T", 2), wire::readReply(0x21, 0xDA, hex("02 41 42")));
    EXPECT_BYTES(image(), hex("00 00 41 42"));
}

TEST_F(StoredReply, DropsTheLengthByteOfAString)
{
    store(readOf("T"), wire::readReply(0x21, 0xDA, hex("03 41 42 43")));
    EXPECT_BYTES(infoOf("T"), hex("01 DA 00 FF"));
    EXPECT_BYTES(image(), hex("41 42 43"));
}

TEST_F(StoredReply, KeepsTheTailWhenAStringBecomesShorter)
{
    store(readOf("T"), wire::readReply(0x21, 0xDA, hex("03 41 42 43")));
    store(readOf("T"), wire::readReply(0x21, 0xDA, hex("01 58")));
    EXPECT_BYTES(image(), hex("58 42 43"));
}

TEST_F(StoredReply, LearnsTheTypeOnce)
{
    store(readOf("T"), wire::readReply(0x21, 0xC3, hex("01 02")));
    store(readOf("T"), wire::readReply(0x21, 0xC4, hex("01 02 03 04")));
    EXPECT_BYTES(infoOf("T"), hex("03 C3 00 FF"));
    EXPECT_BYTES(image(), hex("01 02 03 04"));
}

TEST_F(StoredReply, PlacesByTheTypeOfTheReplyNotByTheConfirmedType)
{
    confirm("T", 3, 0xC3);
    store(readOf("T", 1), wire::readReply(0x21, 0xC4, hex("01 02 03 04")));
    EXPECT_BYTES(image(), hex("00 00 00 00 01 02 03 04"));
}

TEST_F(StoredReply, ConfirmsASeededOrShortEntry)
{
    for (const char* before : {"FF 00 00 00", "FF", "", "03 C3 FF", "FF 00 00 FE"}) {
        PLCDataStorage[1].tagInfo["T"] = hex(before);
        store(readOf("T"), wire::readReply(0x21, 0x12CA, hex("01")));
        EXPECT_BYTES(infoOf("T"), hex("04 CA 12 FF")) << before;
    }
}

TEST_F(StoredReply, SkipsAnA3BeforeTheTypeCode)
{
    store(readOf("T", 1), wire::readReply(0x21, 0xC4A3, hex("01 02 03 04")));
    EXPECT_BYTES(infoOf("T"), hex("04 A3 C4 FF"));
    EXPECT_BYTES(image(), hex("00 00 00 00 01 02 03 04"));
}

TEST_F(StoredReply, StartsAtIndexZeroForANameOutsideTheCatalogue)
{
    RW_VAR request = readOf("T", 9);
    request.reqFlag = 0;
    PLCDataStorage[1].tagData["T"] = hex("09 09 09 09 09 09 09");
    store(request, wire::readReply(0x21, 0xC3, hex("01 02 03 04 05")));
    EXPECT_BYTES(image(), hex("01 02 03 04 05 09 09"));
}

TEST_F(StoredReply, StoresNoValueForAnyOtherRequestFlagButConfirmsTheType)
{
    for (int flag : {-1, 2}) {
        PLCDataStorage[1].tagInfo.clear();
        RW_VAR request = readOf("T");
        request.reqFlag = flag;
        store(request, wire::readReply(0x21, 0xC3, hex("01 02")));
        EXPECT_FALSE(hasImage()) << flag;
        EXPECT_BYTES(infoOf("T"), hex("03 C3 00 FF")) << flag;
    }
}

TEST_F(StoredReply, ConfirmsTheTypeOfAReplyWithoutAValueAndStoresNone)
{
    const QByteArray reply = wire::readReply(0x21, 0xC3, QByteArray());
    ASSERT_EQ(reply.size(), 26);
    store(readOf("T"), reply);
    EXPECT_BYTES(infoOf("T"), hex("03 C3 00 FF"));
    EXPECT_FALSE(hasImage());
}

TEST_F(StoredReply, ConfirmsATypeEvenWhenTheReplyEndsBeforeIt)
{
    const QByteArray whole = wire::readReply(0x21, 0xC3, hex("01"));
    for (int size : {0, 1, 20, 21, 24, 25}) {
        PLCDataStorage[1].tagInfo.clear();
        store(readOf("T"), whole.left(size));
        EXPECT_FALSE(hasImage()) << size;
        EXPECT_EQ(infoOf("T").size(), 4) << size;
        EXPECT_EQ(static_cast<quint8>(infoOf("T").at(3)), 0xFF) << size;
        if (size < 21) {
            EXPECT_BYTES(infoOf("T"), hex("02 00 00 FF")) << size;
        }
    }
}

TEST_F(StoredReply, StopsAtTheEndOfAPartialElement)
{
    store(readOf("T", 0, 4), wire::readReply(0x21, 0xC4, hex("01 02 03 04 05 06")));
    EXPECT_BYTES(image(), hex("01 02 03 04 05 06"));
}

TEST_F(StoredReply, StoresAnErrorReplyLikeAnyOtherWhichIsAKnownBehaviour)
{
    const QByteArray refusal = wire::errorReply(0x21, 0x52, 0x05);
    store(readOf("T"), refusal);
    EXPECT_EQ(static_cast<quint8>(infoOf("T").at(3)), 0xFF);
    EXPECT_BYTES(infoOf("T").mid(1, 2), refusal.mid(20, 2)) << "DLE ETX is where the type would be";
}

TEST_F(StoredReply, BelongsToTheStationOfItsRequest)
{
    RW_VAR request = readOf("T");
    request.stationNo = 5;
    store(request, wire::readReply(0x21, 0xC3, hex("01 02")));
    EXPECT_BYTES(PLCDataStorage[5].tagData["T"], hex("01 02"));
    EXPECT_FALSE(hasImage());
}

TEST_F(StoredReply, BelongsToTheRequestInFlight)
{
    Protocol later = putInFlight(readOf("T"));
    later.var = readOf("U");
    PLC_driver.sendQueue.append(later);
    QByteArray reply = wire::readReply(0x21, 0xC3, hex("01 02"));
    SaveToLocalDataErea(&reply);
    EXPECT_BYTES(image("T"), hex("01 02"));
    EXPECT_BYTES(infoOf("T"), hex("03 C3 00 FF"));
    EXPECT_FALSE(PLCDataStorage[1].tagInfo.contains("U"));
    EXPECT_FALSE(hasImage("U"));
}

TEST_F(StoredReply, IsNotStoredAtAnImpossibleIndex)
{
    for (int index :
         {-1, std::numeric_limits<int>::min(), 1 << 25, std::numeric_limits<int>::max()}) {
        store(readOf("T", index), wire::readReply(0x21, 0xC5, QByteArray(8, 'v')));
        EXPECT_FALSE(hasImage()) << index;
    }
}

TEST_F(StoredReply, IsNotStoredBeyondTheLargestValue)
{
    const int largest = 1 << 24; // bytes
    store(readOf("T", largest / 8), wire::readReply(0x21, 0xC5, QByteArray(8, 'v')));
    EXPECT_FALSE(hasImage());
    store(readOf("T", largest / 8 - 1), wire::readReply(0x21, 0xC5, QByteArray(9, 'v')));
    EXPECT_FALSE(hasImage());
    store(readOf("T", largest / 8 - 1), wire::readReply(0x21, 0xC5, QByteArray(8, 'v')));
    EXPECT_EQ(PLCDataStorage[1].tagData["T"].size(), largest);
}

TEST_F(StoredReply, StartsItsValueAtTheOffsetOfItsRequest)
{
    store(readOf("T"), wire::readReply(0x21, 0xC3, hex("01 02")));
    PLC_driver.sendQueue.first().auxLength = 24;
    QByteArray reply = wire::readReply(0x21, 0xC3, hex("01 02 03 04"));
    SaveToLocalDataErea(&reply);
    EXPECT_BYTES(image(), hex("03 04"));
    EXPECT_BYTES(infoOf("T"), hex("03 C3 00 FF"));
}

TEST_F(StoredReply, DropsTheLengthByteOfAStringOutsideTheCatalogueToo)
{
    RW_VAR request = readOf("T");
    request.reqFlag = 0;
    store(request, wire::readReply(0x21, 0xDA, hex("03 41 42 43")));
    EXPECT_BYTES(image(), hex("41 42 43"));
}

TEST_F(StoredReply, StoresNoValueForAnEmptyString)
{
    store(readOf("T"), wire::readReply(0x21, 0xDA, hex("00")));
    EXPECT_BYTES(infoOf("T"), hex("01 DA 00 FF"));
    EXPECT_FALSE(hasImage());
    QByteArray out;
    EXPECT_EQ(GetRegisterData("T", 0, "0", 1, out, 1), 0);
}

TEST_F(StoredReply, StoresNoValueForAStringWithoutALengthByte)
{
    store(readOf("T"), wire::readReply(0x21, 0xDA, QByteArray()));
    EXPECT_BYTES(infoOf("T"), hex("01 DA 00 FF"));
    EXPECT_FALSE(hasImage());
}

TEST_F(StoredReply, KeepsTheBytesOfAnEntryAfterItsConfirmation)
{
    PLCDataStorage[1].tagInfo["T"] = hex("FF 00 00 00 07");
    store(readOf("T"), wire::readReply(0x21, 0xC3, hex("01 02")));
    EXPECT_BYTES(infoOf("T"), hex("03 C3 00 FF 07"));
}

TEST_F(StoredReply, LosesItsLastByteWhenTheCrcLooksLikeAPairOfDlesWhichIsAKnownBehaviour)
{
    // Undoubling shortens such a CRC to one byte, so the trailer includes the last byte of the
    // value.
    for (unsigned value = 0; value < 0x10000; ++value) {
        const QByteArray reply = wire::readReply(0x21, 0xC3, wire::little(value, 2));
        if (!reply.endsWith(hex("10 03 10 10")))
            continue;
        store(readOf("T"), reply);
        EXPECT_BYTES(image(), wire::little(value, 1));
        return;
    }
    FAIL() << "no such reply";
}

TEST_F(StoredReply, StoresNoValueForANegativeOffset)
{
    store(readOf("T"), wire::readReply(0x21, 0xC3, hex("01 02")));
    PLC_driver.sendQueue.first().auxLength = -1;
    QByteArray reply = wire::readReply(0x21, 0xC3, hex("03 04"));
    SaveToLocalDataErea(&reply);
    EXPECT_BYTES(PLCDataStorage[1].tagData["T"], hex("01 02"));
}

TEST_F(StoredReply, ChangesNothingWithoutAReplyOrARequest)
{
    SaveToLocalDataErea(nullptr);
    QByteArray reply = wire::readReply(0x21, 0xC3, hex("01 02"));
    PLC_driver.sendQueue.clear();
    SaveToLocalDataErea(&reply);
    EXPECT_TRUE(PLCDataStorage[1].tagInfo.isEmpty());
}

} // namespace
