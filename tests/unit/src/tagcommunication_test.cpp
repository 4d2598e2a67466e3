// The tag store of each station, and the queries about a tag.

#include "driver_fixture.h"
#include "lock_witness.h"

#include <cstddef>
#include <functional>
#include <type_traits>
#include <vector>

using wire::hex;

namespace {

// The five fields are in the order that hosts are compiled for.
static_assert(std::is_standard_layout<PLCTAGCOMMUNICATION>::value, "a plain record");
static_assert(std::is_same<decltype(PLCTAGCOMMUNICATION::handshakeDone), bool>::value, "flag");
static_assert(sizeof(PLCTAGCOMMUNICATION::handshakeDone) == 1, "one byte");
static_assert(std::is_same<decltype(PLCTAGCOMMUNICATION::transactionCounter), quint16>::value,
              "16 bits, unsigned");
static_assert(offsetof(PLCTAGCOMMUNICATION, handshakeDone) == 0, "first field");
static_assert(offsetof(PLCTAGCOMMUNICATION, transactionCounter) == 2, "second field");
static_assert(offsetof(PLCTAGCOMMUNICATION, connectionId) == sizeof(void*), "third field");
static_assert(offsetof(PLCTAGCOMMUNICATION, tagData) == 2 * sizeof(void*), "fourth field");
static_assert(offsetof(PLCTAGCOMMUNICATION, tagInfo) == 3 * sizeof(void*), "fifth field");

class TagStore : public DriverTest
{
protected:
    static PLCTAGCOMMUNICATION& station(int number)
    {
        EXPECT_TRUE(PLCDataStorage.contains(number));
        return PLCDataStorage[number];
    }
    // Makes a connected station with a tag.
    static void fill(int number)
    {
        PLCTAGCOMMUNICATION& record = PLCDataStorage[number];
        record.handshakeDone = true;
        record.transactionCounter = 77;
        record.connectionId = hex("5A 3C");
        record.tagData["Speed"] = hex("D2 04");
        record.tagInfo["Speed"] = hex("03 C3 00 FF");
    }
    static void expectFresh(const PLCTAGCOMMUNICATION& record, int counter)
    {
        EXPECT_FALSE(record.handshakeDone);
        EXPECT_EQ(record.transactionCounter, counter);
        EXPECT_BYTES(record.connectionId, QByteArray());
        EXPECT_TRUE(record.tagData.isEmpty());
        EXPECT_TRUE(record.tagInfo.isEmpty());
    }
    static void expectTagsKept(const PLCTAGCOMMUNICATION& record)
    {
        EXPECT_EQ(record.tagData.size(), 1);
        EXPECT_EQ(record.tagInfo.size(), 1);
        EXPECT_BYTES(record.tagData.value("Speed"), hex("D2 04"));
        EXPECT_BYTES(record.tagInfo.value("Speed"), hex("03 C3 00 FF"));
    }
};

TEST_F(TagStore, AddsAFreshStationWithCounterOne)
{
    EXPECT_EQ(AddTheTagInformationContainer(4), 1);
    EXPECT_EQ(PLCDataStorage.size(), 1);
    expectFresh(station(4), 1);
}

TEST_F(TagStore, ReplacesAllDataOfAStation)
{
    fill(4);
    fill(5);
    EXPECT_EQ(AddTheTagInformationContainer(4), 1);
    EXPECT_EQ(PLCDataStorage.size(), 2);
    expectFresh(station(4), 1);
    EXPECT_TRUE(station(5).handshakeDone);
    expectTagsKept(station(5));
}

TEST_F(TagStore, ReportsAnUnknownStationAsNotConnectedAndCreatesAFreshRecord)
{
    EXPECT_FALSE(getHandshakeInformation(-3));
    expectFresh(station(-3), 1);
    EXPECT_FALSE(getHandshakeInformation(8));
    expectFresh(station(8), 1);
    EXPECT_EQ(PLCDataStorage.size(), 2);
}

TEST_F(TagStore, KeepsTheCounterOfAKnownStationWhenAskedAgain)
{
    EXPECT_FALSE(getHandshakeInformation(8));
    station(8).transactionCounter = 9;
    EXPECT_FALSE(getHandshakeInformation(8));
    EXPECT_EQ(station(8).transactionCounter, 9);
}

TEST_F(TagStore, ReportsTheConnectionStateOfEachStation)
{
    fill(1);
    AddTheTagInformationContainer(2);
    EXPECT_TRUE(getHandshakeInformation(1));
    EXPECT_FALSE(getHandshakeInformation(2));
    EXPECT_EQ(station(1).transactionCounter, 77);
    expectTagsKept(station(1));
}

TEST_F(TagStore, ConnectsAStationWithoutARecordAndKeepsItsCounterZero)
{
    EXPECT_EQ(setHandshakeInformation(6, true), 1);
    EXPECT_TRUE(station(6).handshakeDone);
    EXPECT_EQ(station(6).transactionCounter, 0);
    EXPECT_BYTES(station(6).connectionId, QByteArray());
}

TEST_F(TagStore, ChangesOnlyTheFlagWhenAStationConnects)
{
    fill(6);
    station(6).handshakeDone = false;
    EXPECT_EQ(setHandshakeInformation(6, true), 1);
    EXPECT_TRUE(station(6).handshakeDone);
    EXPECT_EQ(station(6).transactionCounter, 77);
    EXPECT_BYTES(station(6).connectionId, hex("5A 3C"));
    expectTagsKept(station(6));
}

TEST_F(TagStore, ClearsTheConnectionIdentifierAndKeepsTheTagsWhenAStationIsLost)
{
    fill(6);
    fill(7);
    EXPECT_EQ(setHandshakeInformation(6, false), 1);
    EXPECT_FALSE(station(6).handshakeDone);
    EXPECT_BYTES(station(6).connectionId, QByteArray());
    EXPECT_EQ(station(6).transactionCounter, 77);
    expectTagsKept(station(6));
    EXPECT_TRUE(station(7).handshakeDone);
    EXPECT_BYTES(station(7).connectionId, hex("5A 3C"));
}

TEST_F(TagStore, CreatesAnUnknownStationThatIsMarkedAsLost)
{
    EXPECT_EQ(setHandshakeInformation(6, false), 1);
    expectFresh(station(6), 0);
}

TEST_F(TagStore, AdvancesTheCounterByOne)
{
    fill(1);
    EXPECT_EQ(addPlcNumber(1), 1);
    EXPECT_EQ(station(1).transactionCounter, 78);
    EXPECT_TRUE(station(1).handshakeDone);
    station(1).transactionCounter = 0x00FF;
    addPlcNumber(1);
    EXPECT_EQ(station(1).transactionCounter, 0x0100);
    station(1).transactionCounter = 65534;
    addPlcNumber(1);
    EXPECT_EQ(station(1).transactionCounter, 65535);
}

TEST_F(TagStore, AdvancesTheCounterOfNoOtherStation)
{
    for (int station : {1, 2, 3})
        connectStation(station, kId, 0x21);
    settings.multiStation = 0;
    addPlcNumber(2);
    EXPECT_EQ(PLCDataStorage[1].transactionCounter, 0x21) << "the default station";
    EXPECT_EQ(PLCDataStorage[2].transactionCounter, 0x22);
    EXPECT_EQ(PLCDataStorage[3].transactionCounter, 0x21);
}

TEST_F(TagStore, SkipsZeroWhenTheCounterWraps)
{
    fill(1);
    station(1).transactionCounter = 65535;
    EXPECT_EQ(addPlcNumber(1), 1);
    EXPECT_EQ(station(1).transactionCounter, 1);
}

TEST_F(TagStore, AdvancesTheCounterOfAnUnknownStationToOne)
{
    EXPECT_EQ(addPlcNumber(12), 1);
    expectFresh(station(12), 1);
}

TEST_F(TagStore, RunsEachOperationInOneStepUnderOneLock)
{
    RW_VAR request = readOf("Speed");
    const std::vector<std::function<void()>> operations = {
        [] { AddTheTagInformationContainer(1); },
        [] { getHandshakeInformation(1); },
        [] { getHandshakeInformation(99); },
        [] { setHandshakeInformation(1, true); },
        [] { setHandshakeInformation(1, false); },
        [] { addPlcNumber(1); },
        [&] { getTagData(&request); },
        [&] { getAddressType(&request); },
    };
    const QMutex* lock = nullptr;
    for (const auto& operation : operations) {
        const QMap<int, PLCTAGCOMMUNICATION> shared = PLCDataStorage;
        LockWitness witness;
        operation();
        ASSERT_TRUE(witness.oneStep());
        EXPECT_EQ(witness.unguardedMapChanges(*witness.locked().front()), 0);
        EXPECT_TRUE(!lock || lock == witness.locked().front()) << "one lock guards the store";
        lock = witness.locked().front();
    }
    EXPECT_NE(lock, &PLC_driver.listMutex);
    EXPECT_NE(lock, &PLC_driver.dataMutex);
    EXPECT_NE(lock, &PLC_driver.stationMutex);
}

TEST_F(TagStore, IsReadOnlyAfterTakingTheLock)
{
    fill(1);
    LockWitness witness;
    witness.beforeNextLock([] { setHandshakeInformation(99, true); });
    EXPECT_TRUE(getHandshakeInformation(99))
        << "another thread connected it before the lock was taken";
}

TEST_F(TagStore, CanBeUsedWhileTheHostHoldsEveryNamedLock)
{
    RW_VAR request = readOf("Speed");
    QMutexLocker list(&PLC_driver.listMutex);
    QMutexLocker data(&PLC_driver.dataMutex);
    QMutexLocker stations(&PLC_driver.stationMutex);
    EXPECT_FALSE(getHandshakeInformation(1));
    EXPECT_FALSE(getTagData(&request));
    EXPECT_FALSE(getAddressType(&request));
    EXPECT_EQ(addPlcNumber(1), 1);
    EXPECT_EQ(setHandshakeInformation(1, true), 1);
}

class TagData : public TagStore
{
};

TEST_F(TagData, IsKnownForANameWithAStoredValue)
{
    RW_VAR request = readOf("Speed");
    PLCDataStorage[1].tagData["Speed"] = hex("D2 04");
    EXPECT_TRUE(getTagData(&request));
}

TEST_F(TagData, IsKnownForANameWithAnEmptyValue)
{
    RW_VAR request = readOf("Speed");
    PLCDataStorage[1].tagData["Speed"] = QByteArray();
    EXPECT_TRUE(getTagData(&request));
}

TEST_F(TagData, IsUnknownForAnotherNameCaseOrStation)
{
    PLCDataStorage[1].tagData["Speed"] = hex("D2 04");
    for (const char* name : {"speed", "Spee", "Speed ", ""}) {
        RW_VAR request = readOf(name);
        EXPECT_FALSE(getTagData(&request)) << name;
    }
    RW_VAR elsewhere = readOf("Speed");
    elsewhere.stationNo = 2;
    EXPECT_FALSE(getTagData(&elsewhere));
    EXPECT_EQ(PLCDataStorage[1].tagData.size(), 1);
}

TEST_F(TagData, IsUnknownForATagWithATypeButNoValue)
{
    RW_VAR request = readOf("Speed");
    confirm("Speed", 3, 0xC3);
    EXPECT_FALSE(getTagData(&request));
}

TEST_F(TagData, IsUnknownForAnUnknownStationAndCreatesAnEmptyRecord)
{
    RW_VAR request = readOf("Speed");
    request.stationNo = 31;
    EXPECT_FALSE(getTagData(&request));
    expectFresh(station(31), 0);
}

TEST_F(TagData, IsUnknownWithoutARequest)
{
    EXPECT_FALSE(getTagData(nullptr));
    EXPECT_TRUE(PLCDataStorage.isEmpty());
}

class AddressType : public TagStore
{
protected:
    bool confirmedBy(const char* info)
    {
        RW_VAR request = readOf("Speed");
        PLCDataStorage[1].tagInfo["Speed"] = hex(info);
        return getAddressType(&request);
    }
};

TEST_F(AddressType, IsConfirmedByAnEntryWhoseFourthByteIsFF)
{
    EXPECT_TRUE(confirmedBy("03 00 00 FF"));
    EXPECT_TRUE(confirmedBy("FF 00 00 FF"));
    EXPECT_TRUE(confirmedBy("00 C1 00 FF 00"));
}

TEST_F(AddressType, IsNotConfirmedByASeededEntry)
{
    EXPECT_FALSE(confirmedBy("FF 00 00 00"));
    EXPECT_FALSE(confirmedBy("03 C3 00 FE"));
    EXPECT_FALSE(confirmedBy("FF FF FF 7F"));
}

TEST_F(AddressType, IsNotConfirmedByAShortEntry)
{
    EXPECT_FALSE(confirmedBy(""));
    EXPECT_FALSE(confirmedBy("FF"));
    EXPECT_FALSE(confirmedBy("03 00 FF"));
}

TEST_F(AddressType, IsNotConfirmedForAnotherNameCaseOrStationAndCreatesNoEntry)
{
    confirm("Speed", 3, 0xC3);
    RW_VAR lower = readOf("speed");
    EXPECT_FALSE(getAddressType(&lower));
    RW_VAR elsewhere = readOf("Speed");
    elsewhere.stationNo = 2;
    EXPECT_FALSE(getAddressType(&elsewhere));
    EXPECT_EQ(PLCDataStorage[1].tagInfo.size(), 1);
    expectFresh(station(2), 0);
}

TEST_F(AddressType, IsNotConfirmedWithoutARequest)
{
    EXPECT_FALSE(getAddressType(nullptr));
    EXPECT_TRUE(PLCDataStorage.isEmpty());
}

TEST_F(AddressType, DoesNotChangeTheRequest)
{
    confirm("Speed", 3, 0xC3);
    PLCDataStorage[1].tagData["Speed"] = hex("D2 04");
    RW_VAR request = distinctRequest("Speed");
    const std::string before = fieldsOf(request);
    EXPECT_TRUE(getAddressType(&request));
    EXPECT_EQ(fieldsOf(request), before);
    EXPECT_TRUE(getTagData(&request));
    EXPECT_EQ(fieldsOf(request), before);
}

// Codes 0xC1 to 0xDA in order.
const int kClasses[] = {0, 2, 3, 4, 5, 2, 3, 4, 5, 4, 5, 2, 2,
                        2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 1};

int expectedClass(int code)
{
    return code >= 0xC1 && code <= 0xDA ? kClasses[code - 0xC1] : 2;
}

TEST(RegType, IsTheClassOfEachTypeCode)
{
    for (int code = 0; code < 256; ++code) {
        if (code != 0xA3) {
            EXPECT_EQ(getRegType(wire::little(quint64(code), 2)), expectedClass(code)) << code;
        }
    }
}

TEST(RegType, SkipsTheStructureMark)
{
    for (int code = 0; code < 256; ++code)
        EXPECT_EQ(getRegType(hex("A3") + wire::little(quint64(code), 1)), expectedClass(code));
}

TEST(RegType, MatchesTheWorkedExamples)
{
    EXPECT_EQ(getRegType(hex("A3 C4")), 4);
    EXPECT_EQ(getRegType(hex("C1 00")), 0);
    EXPECT_EQ(getRegType(hex("DA 00")), 1);
    EXPECT_EQ(getRegType(hex("A0 02")), 2);
    EXPECT_EQ(getRegType(hex("D3 00")), 2);
}

TEST(RegType, IsTwoForAMissingCode)
{
    EXPECT_EQ(getRegType(QByteArray()), 2);
    EXPECT_EQ(getRegType(hex("A3")), 2);
    EXPECT_EQ(getRegType(hex("A3 A3 C4")), 2);
}

TEST(RegType, ReadsNothingAfterTheEndOfAnUnterminatedArray)
{
    const char bytes[] = {'\xA3', '\xC4'};
    EXPECT_EQ(getRegType(QByteArray::fromRawData(bytes, 1)), 2);
    EXPECT_EQ(getRegType(QByteArray::fromRawData(bytes + 1, 0)), 2);
    EXPECT_EQ(getRegType(QByteArray::fromRawData(bytes + 1, 1)), 4);
}

TEST(RegType, NeedsNoSecondByte)
{
    EXPECT_EQ(getRegType(hex("C3")), 3);
}

struct Place
{
    unsigned int address, count;
    bool operator==(const Place& o) const { return address == o.address && count == o.count; }
};

Place placeOf(int type, Place place)
{
    EXPECT_TRUE(getPlcAdd(type, place.address, place.count));
    return place;
}

TEST(PlcAdd, ConvertsElementsToBytesAndWordsToElements)
{
    EXPECT_EQ(placeOf(3, {7, 9}), (Place{14, 9}));
    EXPECT_EQ(placeOf(4, {10, 5}), (Place{40, 3}));
    EXPECT_EQ(placeOf(5, {1, 1}), (Place{8, 1}));
}

TEST(PlcAdd, RoundsCountsUpToWholeElements)
{
    const unsigned int doubles[] = {0, 1, 1, 2, 2, 3, 3, 4, 4};
    const unsigned int quads[] = {0, 1, 1, 1, 1, 2, 2, 2, 2};
    for (unsigned int words = 0; words < 9; ++words) {
        EXPECT_EQ(placeOf(4, {0, words}), (Place{0, doubles[words]}));
        EXPECT_EQ(placeOf(5, {0, words}), (Place{0, quads[words]}));
    }
}

TEST(PlcAdd, WrapsAtThirtyTwoBits)
{
    const struct
    {
        int type;
        unsigned address, count, newAddress, newCount;
    } rows[] = {{3, 0x80000000u, 0xFFFFFFFFu, 0, 0xFFFFFFFFu},
                {4, 0x40000001u, 0xFFFFFFFFu, 4, 0},
                {5, 0x20000001u, 0xFFFFFFFDu, 8, 0}};
    for (const auto& row : rows) {
        unsigned address = row.address, count = row.count;
        EXPECT_TRUE(getPlcAdd(row.type, address, count));
        EXPECT_EQ(address, row.newAddress) << row.type;
        EXPECT_EQ(count, row.newCount) << row.type;
    }
}

TEST(PlcAdd, LeavesEveryOtherClassUnchanged)
{
    for (int type : {-1, 0, 1, 2, 6, 0xFF})
        EXPECT_EQ(placeOf(type, {11, 13}), (Place{11, 13})) << type;
}

} // namespace
