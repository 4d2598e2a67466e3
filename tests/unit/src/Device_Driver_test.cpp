#include "driver_fixture.h"
#include "fresh_driver.h"

#include <cstdio>
#include <iterator>
#include <type_traits>

using wire::hex;

namespace {

// ---- Records ------------------------------------------------------------------------------------

TEST(DriverObject, StartsEmptyWithNothingInFlight)
{
    expectFresh(Device_Driver());
}

TEST(DriverObject, HasThreeLocksThatAreNotRecursive)
{
    Device_Driver fresh;
    for (QMutex* mutex : {&fresh.listMutex, &fresh.dataMutex, &fresh.stationMutex}) {
        ASSERT_TRUE(mutex->tryLock());
        EXPECT_FALSE(mutex->tryLock());
        mutex->unlock();
    }
}

// ---- Layout in memory ---------------------------------------------------------------------------

// A host that was built against these records keeps its layout of them, so it must not change.

const bool kWide = sizeof(void*) == 8;

template<typename Record, typename Field> int offset(Field Record::*field)
{
    static const Record record = Record();
    return static_cast<int>(reinterpret_cast<const char*>(&(record.*field)) -
                            reinterpret_cast<const char*>(&record));
}

TEST(DriverRecords, HaveTheHostsLayoutOfARequest)
{
    const int wide[] = {0, 4, 8, 12, 16, 20, 24, 32, 40, 44, 48, 52, 56, 60, 64, 72};
    const int narrow[] = {0, 4, 8, 12, 16, 20, 24, 28, 32, 36, 40, 44, 48, 52, 56, 60};
    const int actual[] = {offset(&RW_VAR::varType),    offset(&RW_VAR::varIndex),
                          offset(&RW_VAR::accessMode), offset(&RW_VAR::hostField3),
                          offset(&RW_VAR::linkId),     offset(&RW_VAR::retValue),
                          offset(&RW_VAR::tagName),    offset(&RW_VAR::addressText),
                          offset(&RW_VAR::areaType),   offset(&RW_VAR::startAddress),
                          offset(&RW_VAR::stationNo),  offset(&RW_VAR::count),
                          offset(&RW_VAR::reqFlag),    offset(&RW_VAR::onceFlag),
                          offset(&RW_VAR::data),       int(sizeof(RW_VAR))};
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(actual[i], kWide ? wide[i] : narrow[i]) << i;
}

TEST(DriverRecords, HaveTheHostsLayoutOfATransaction)
{
    const int wide[] = {0, 8, 12, 16, 20, 24, 96, 100, 104, 112};
    const int narrow[] = {0, 4, 8, 12, 16, 20, 80, 84, 88, 92};
    const int actual[] = {offset(&Protocol::frame),       offset(&Protocol::sendLength),
                          offset(&Protocol::replyLength), offset(&Protocol::auxLength),
                          offset(&Protocol::auxFlag),     offset(&Protocol::var),
                          offset(&Protocol::reserve1),    offset(&Protocol::reserve2),
                          offset(&Protocol::reserve3),    int(sizeof(Protocol))};
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(actual[i], kWide ? wide[i] : narrow[i]) << i;
}

TEST(DriverRecords, HaveTheHostsLayoutOfANameAndOfTheAuxiliaryRecord)
{
    EXPECT_EQ(offset(&varName::name), 0);
    EXPECT_EQ(offset(&varName::kind), kWide ? 8 : 4);
    EXPECT_EQ(offset(&varName::hostField2), kWide ? 12 : 8);
    EXPECT_EQ(offset(&varName::hostField3), kWide ? 16 : 12);
    EXPECT_EQ(sizeof(varName), kWide ? 24u : 16u);
    EXPECT_EQ(offset(&EXTENDVAR::field1), 0);
    EXPECT_EQ(offset(&EXTENDVAR::field2), 4);
    EXPECT_EQ(offset(&EXTENDVAR::field3), 8);
    EXPECT_EQ(offset(&EXTENDVAR::data), kWide ? 16 : 12);
    EXPECT_EQ(sizeof(EXTENDVAR), kWide ? 24u : 16u);
}

// A host for the same processor relies on sizes and alignments. The output of the test lists them.
TEST(DriverRecords, AreAlignedLikePointersAndPrintTheirSizes)
{
    const struct
    {
        const char* name;
        std::size_t size;
        std::size_t alignment;
        std::size_t widest;
    } records[] = {
        {"RW_VAR", sizeof(RW_VAR), alignof(RW_VAR), alignof(void*)},
        {"Protocol", sizeof(Protocol), alignof(Protocol), alignof(void*)},
        {"EXTENDVAR", sizeof(EXTENDVAR), alignof(EXTENDVAR), alignof(void*)},
        {"varName", sizeof(varName), alignof(varName), alignof(void*)},
        {"ComInfo", sizeof(ComInfo), alignof(ComInfo), alignof(int)},
        {"Device_Driver", sizeof(Device_Driver), alignof(Device_Driver), alignof(void*)}};
    for (const auto& record : records) {
        std::printf("%-13s size %3zu alignment %zu\n", record.name, record.size, record.alignment);
        EXPECT_EQ(record.alignment, record.widest) << record.name;
    }
}

TEST(DriverRecords, HaveEachSettingAtItsWord)
{
    EXPECT_EQ(offset(&ComInfo::defaultStation), 4 * 6);
    EXPECT_EQ(offset(&ComInfo::retryLimit), 4 * 7);
    EXPECT_EQ(offset(&ComInfo::failureCount), 4 * 8);
    EXPECT_EQ(offset(&ComInfo::multiStation), 4 * 9);
    EXPECT_EQ(offset(&ComInfo::clearedWord10), 4 * 10);
    EXPECT_EQ(offset(&ComInfo::frameCount), 4 * 11);
    EXPECT_EQ(offset(&ComInfo::framesAnswered), 4 * 12);
    EXPECT_EQ(offset(&ComInfo::clearedWord13), 4 * 13);
    EXPECT_EQ(offset(&ComInfo::remoteMode), 4 * 14);
    EXPECT_EQ(offset(&ComInfo::localLink), 4 * 15);
    EXPECT_EQ(offset(&ComInfo::writeMode), 4 * 16);
    EXPECT_EQ(offset(&ComInfo::passComplete), 4 * 17);
    EXPECT_EQ(offset(&ComInfo::callbackChannel), 4 * 18);
    EXPECT_EQ(sizeof(ComInfo::callbackChannel), 4u);
}

TEST(DriverObject, HasItsMembersInTheHostsOrder)
{
    const Device_Driver d;
    const void* members[] = {
        &d.comInfo,    &d.readList,   &d.writeList,        &d.onceReadList,   &d.spareList,
        &d.sendQueue,  &d.extendList, &d.disabledStations, &d.finishCallback, &d.refreshCallback,
        &d.listMutex,  &d.dataMutex,  &d.stationMutex,     &d.result,         &d.currentList,
        &d.writeBurst, &d.onceBurst,  &d.readCycleCount,   &d.errorFlag,      &d.spareFlag};
    EXPECT_EQ(members[0], &d) << "nothing precedes the first member";
    for (std::size_t i = 1; i < std::size(members); ++i)
        EXPECT_LT(members[i - 1], members[i]) << i;
    EXPECT_EQ(sizeof d.errorFlag, 1u);
    EXPECT_EQ(sizeof d.spareFlag, 1u);
}

TEST(DriverRecords, ArePlainValues)
{
    EXPECT_FALSE(std::is_polymorphic<Device_Driver>::value);
    EXPECT_FALSE(std::is_polymorphic<RW_VAR>::value);
    EXPECT_FALSE(std::is_polymorphic<Protocol>::value);
    EXPECT_FALSE(std::is_polymorphic<EXTENDVAR>::value);
    EXPECT_FALSE(std::is_polymorphic<varName>::value);
    EXPECT_FALSE(std::is_polymorphic<PLCTAGCOMMUNICATION>::value);
    EXPECT_FALSE(std::is_polymorphic<ComInfo>::value);
}

TEST(DriverRecords, InitializeATransactionWithZeros)
{
    const Protocol fresh;
    EXPECT_EQ(fresh.sendLength, 0);
    EXPECT_EQ(fresh.replyLength, 0);
    EXPECT_EQ(fresh.auxLength, 0);
    EXPECT_EQ(fresh.auxFlag, 0);
    EXPECT_EQ(fresh.reserve1, 0);
    EXPECT_EQ(fresh.reserve2, 0);
    EXPECT_EQ(fresh.reserve3, 0);
}

TEST(DriverRecords, AreCopiedByValue)
{
    Protocol queued;
    queued.frame = "frame";
    queued.var.tagName = "T";
    queued.var.addressText = "1";
    queued.var.data = "data";
    Protocol copy = queued;
    EXPECT_EQ(copy.frame.constData(), queued.frame.constData()) << "shared until one copy changes";
    EXPECT_EQ(copy.var.tagName.constData(), queued.var.tagName.constData());
    EXPECT_EQ(copy.var.addressText.constData(), queued.var.addressText.constData());
    EXPECT_EQ(copy.var.data.constData(), queued.var.data.constData());
    copy.frame[0] = 'F';
    copy.var.tagName[0] = QLatin1Char('U');
    copy.var.addressText[0] = QLatin1Char('2');
    copy.var.data.clear();
    EXPECT_EQ(queued.frame, QByteArray("frame"));
    EXPECT_EQ(queued.var.tagName, QString("T"));
    EXPECT_EQ(queued.var.addressText, QString("1"));
    EXPECT_EQ(queued.var.data, QByteArray("data"));
}

class DriverHelpers : public DriverTest
{
};

TEST_F(DriverHelpers, CopyAResultWithoutItsValue)
{
    RW_VAR from = readOf("T", 10, 12);
    from.varType = 1;
    from.varIndex = 2;
    from.accessMode = 3;
    from.hostField3 = 4;
    from.linkId = 5;
    from.retValue = 6;
    from.areaType = 9;
    from.stationNo = 11;
    from.reqFlag = 13;
    from.onceFlag = 14;
    from.data = "value";
    RW_VAR to = RW_VAR();
    to.data = "old";
    passRetValue(from, to);
    EXPECT_EQ(to.varType, 1);
    EXPECT_EQ(to.varIndex, 2);
    EXPECT_EQ(to.accessMode, 3);
    EXPECT_EQ(to.hostField3, 4);
    EXPECT_EQ(to.linkId, 5);
    EXPECT_EQ(to.retValue, 6);
    EXPECT_EQ(to.tagName, QString("T"));
    EXPECT_EQ(to.addressText, QString("10"));
    EXPECT_EQ(to.areaType, 9);
    EXPECT_EQ(to.startAddress, 10);
    EXPECT_EQ(to.stationNo, 11);
    EXPECT_EQ(to.count, 12);
    EXPECT_EQ(to.reqFlag, 13);
    EXPECT_EQ(to.onceFlag, 14);
    EXPECT_TRUE(to.data.isEmpty());
    EXPECT_EQ(from.data, QByteArray("value"));
}

// ---- Return codes -------------------------------------------------------------------------------

class ReturnCodes : public DriverTest
{
protected:
    void putTypeInFlight(int varType)
    {
        RW_VAR request = RW_VAR();
        request.varType = varType;
        putInFlight(request);
    }
};

TEST_F(ReturnCodes, AreConstantForOutcomesThatAreNoFailure)
{
    putTypeInFlight(3);
    EXPECT_EQ(GetDriverReturnValue(0), 1);
    EXPECT_EQ(GetDriverReturnValue(4), 100);
    for (int other : {8, 9, -1, 1000})
        EXPECT_EQ(GetDriverReturnValue(other), 200);
    PLC_driver.sendQueue.clear();
    EXPECT_EQ(GetDriverReturnValue(4), 100);
    EXPECT_EQ(GetDriverReturnValue(8), 200);
}

TEST_F(ReturnCodes, DependOnTheVariableTypeForEachFailure)
{
    const std::pair<int, int> firsts[] = {{1, 11}, {2, 41}, {3, 71}, {5, 111}, {6, 141}, {7, 171}};
    for (const auto& [outcome, first] : firsts) {
        for (int kind = 1; kind <= 11; ++kind) {
            putTypeInFlight(kind);
            EXPECT_EQ(GetDriverReturnValue(outcome), first + kind);
        }
        for (int kind : {0, 12, -1}) {
            putTypeInFlight(kind);
            EXPECT_EQ(GetDriverReturnValue(outcome), first);
        }
    }
}

TEST_F(ReturnCodes, UseOnlyTheTransactionInFlight)
{
    putTypeInFlight(3);
    Protocol second;
    second.var.varType = 5;
    PLC_driver.sendQueue.append(second);
    EXPECT_EQ(SwitchErrorReturn(40), 44);
    PLC_driver.sendQueue.clear();
    EXPECT_EQ(SwitchErrorReturn(40), 41);
}

// ---- Catalogue ----------------------------------------------------------------------------------

class Catalogue : public DriverTest
{
protected:
    static varName named(const char* name, int kind, int field = 0)
    {
        varName record = varName();
        record.name = QString::fromLatin1(name);
        record.kind = kind;
        record.hostField2 = field;
        record.hostField3 = QList<QString>() << QString::number(field);
        return record;
    }
};

TEST_F(Catalogue, KeepsOnlyNamesOfKindTwoAndTheLaterOfDuplicates)
{
    QList<varName> names = {named("A", 1), named("B", 2, 5), named("C", 3), named("B", 2, 6),
                            named("D", -2)};
    PassVarName(&names);
    EXPECT_EQ(plcAddList.size(), 1);
    EXPECT_TRUE(getPassVarName("B"));
    EXPECT_FALSE(getPassVarName("A"));
    EXPECT_FALSE(getPassVarName("b")) << "names are case-sensitive";
    EXPECT_EQ(plcAddList["B"].name, QString("B"));
    EXPECT_EQ(plcAddList["B"].kind, 2);
    EXPECT_EQ(plcAddList["B"].hostField2, 6);
    EXPECT_EQ(plcAddList["B"].hostField3, QList<QString>() << "6");
}

TEST_F(Catalogue, KeepsAnyNumberOfNames)
{
    const int size = 10000;
    QList<varName> names;
    for (int i = 0; i < size; ++i)
        names.append(named(QByteArray::number(i).constData(), 2));
    PassVarName(&names);
    EXPECT_EQ(plcAddList.size(), size);
    EXPECT_TRUE(getPassVarName(QString::number(size - 1)));
}

TEST_F(Catalogue, KeepsItsNamesInLaterCalls)
{
    QList<varName> first = {named("A", 2, 1)}, second = {named("B", 2), named("A", 1)}, none;
    PassVarName(&first);
    PassVarName(&second);
    PassVarName(&none);
    PassVarName(nullptr);
    EXPECT_EQ(plcAddList.size(), 2);
    EXPECT_EQ(plcAddList["A"].kind, 2);
}

TEST_F(Catalogue, KeepsItsOwnCopyOfTheHostsRecords)
{
    QList<varName> names = {named("B", 2, 5)};
    PassVarName(&names);
    names[0].name = "C";
    names[0].kind = 1;
    names[0].hostField2 = 7;
    names[0].hostField3.clear();
    EXPECT_EQ(plcAddList["B"].name, QString("B"));
    EXPECT_EQ(plcAddList["B"].kind, 2);
    EXPECT_EQ(plcAddList["B"].hostField2, 5);
    EXPECT_EQ(plcAddList["B"].hostField3, QList<QString>() << "5");
}

TEST_F(Catalogue, DoesNotAddANameThatIsOnlyLookedUp)
{
    RW_VAR request = readOf("A", 5, 9);
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(getPassVarName("A"));
        updateRwVar(&request);
        EXPECT_EQ(request.reqFlag, 0);
    }
    EXPECT_TRUE(plcAddList.isEmpty());
}

TEST_F(Catalogue, SetsTheElementOfACataloguedRequestAndKeepsItsCount)
{
    declareIndexed("T");
    const std::pair<const char*, int> texts[] = {{"12", 12},
                                                 {"abc", 0},
                                                 {"", 0},
                                                 {"-3", -3},
                                                 {"+3", 3},
                                                 {"0x10", 0},
                                                 {"010", 10},
                                                 {" 7 ", 7},
                                                 {"7 8", 0},
                                                 {"1a", 0},
                                                 {"\xB2", 0},
                                                 {"1/", 0},
                                                 {"1:", 0},
                                                 {"-", 0},
                                                 {"000000000012", 12},
                                                 {"999999999", 999999999},
                                                 {"2147483647", 2147483647},
                                                 {"2147483648", 0},
                                                 {"-2147483648", -2147483647 - 1},
                                                 {"99999999999999999999", 0}};
    for (const auto& [text, element] : texts) {
        RW_VAR request = readOf("T", 77, 9);
        request.addressText = QString::fromLatin1(text);
        request.reqFlag = 77;
        EXPECT_EQ(updateRwVar(&request), 1);
        EXPECT_EQ(request.startAddress, element) << text;
        EXPECT_EQ(request.count, 9);
        EXPECT_EQ(request.reqFlag, 1);
    }
}

TEST_F(Catalogue, SetsAnyOtherRequestToOneElementAtIndexZero)
{
    QList<varName> names = {named("K", 1)};
    PassVarName(&names);
    RW_VAR request = readOf("K", 5, 9);
    EXPECT_EQ(updateRwVar(&request), 1);
    EXPECT_EQ(request.startAddress, 0);
    EXPECT_EQ(request.count, 1);
    EXPECT_EQ(request.reqFlag, 0);
    EXPECT_EQ(request.addressText, QString("5"));
    EXPECT_EQ(request.tagName, QString("K"));
    EXPECT_EQ(request.stationNo, 1);
    EXPECT_EQ(request.varType, 3);
}

TEST_F(Catalogue, SetsARequestOfAnotherKindToOneElement)
{
    QList<varName> names = {named("K", 3)};
    PassVarName(&names);
    RW_VAR request = readOf("K", 5, 9);
    updateRwVar(&request);
    EXPECT_EQ(request.startAddress, 0);
    EXPECT_EQ(request.count, 1);
    EXPECT_EQ(request.reqFlag, 0);
}

TEST_F(Catalogue, ChangesOnlyThreeFieldsOfARequest)
{
    for (const bool catalogued : {false, true}) {
        RW_VAR request = distinctRequest("T");
        RW_VAR expected = request;
        expected.startAddress = catalogued ? 17 : 0;
        expected.count = catalogued ? 24 : 1;
        expected.reqFlag = catalogued ? 1 : 0;
        updateRwVar(&request);
        EXPECT_EQ(fieldsOf(request), fieldsOf(expected));
        declareIndexed("T");
    }
}

TEST_F(Catalogue, UsesTheDescriptionOfTheLastCall)
{
    QList<varName> first = {named("B", 2, 5)}, second = {named("B", 2, 6)};
    PassVarName(&first);
    PassVarName(&second);
    EXPECT_EQ(plcAddList["B"].hostField2, 6);
    EXPECT_EQ(plcAddList["B"].hostField3, QList<QString>() << "6");
}

TEST_F(Catalogue, SeedsOnlyTheEntryOfTheRequestsStation)
{
    confirm("T", 3, 0xC3, 1);
    RW_VAR request = readOf("T");
    request.stationNo = 2;
    updateRwVar(&request);
    EXPECT_BYTES(infoOf("T", 1), hex("03 C3 00 FF"));
    EXPECT_BYTES(infoOf("T", 2), hex("FF 00 00 00"));
}

TEST_F(Catalogue, SeedsAnUnconfirmedEntryOnEveryCall)
{
    RW_VAR request = readOf("T");
    updateRwVar(&request);
    EXPECT_BYTES(infoOf("T"), hex("FF 00 00 00"));
    for (const char* before : {"01 00 00 00", "01", "01 C3 FF", "FF 00 00 FE"}) {
        PLCDataStorage[1].tagInfo["T"] = hex(before);
        updateRwVar(&request);
        EXPECT_BYTES(infoOf("T"), hex("FF 00 00 00")) << before;
    }
    PLCDataStorage[1].tagInfo["T"] = hex("01 02 03 04 05");
    updateRwVar(&request);
    EXPECT_BYTES(infoOf("T"), hex("FF 00 00 00 05"));
}

TEST_F(Catalogue, DoesNotChangeAConfirmedEntry)
{
    RW_VAR request = readOf("T");
    for (const char* before : {"01 00 00 FF", "03 C3 00 FF 07"}) {
        PLCDataStorage[1].tagInfo["T"] = hex(before);
        updateRwVar(&request);
        EXPECT_BYTES(infoOf("T"), hex(before));
    }
}

TEST_F(Catalogue, CreatesTheStationThatARequestNames)
{
    RW_VAR request = readOf("T");
    request.stationNo = -9;
    updateRwVar(&request);
    ASSERT_TRUE(PLCDataStorage.contains(-9));
    EXPECT_FALSE(PLCDataStorage[-9].handshakeDone);
    EXPECT_EQ(PLCDataStorage[-9].transactionCounter, 0);
    EXPECT_EQ(updateRwVar(nullptr), 1);
}

} // namespace
