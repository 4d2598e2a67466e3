#include "driver_fixture.h"

#include <thread>
#include <type_traits>

using wire::hex;

namespace {

// ---- Configuration ------------------------------------------------------------------------------

class Configuration : public DriverTest
{
};

TEST_F(Configuration, ClearsTwoWordsOfTheSettingsAndKeepsTheRecord)
{
    ComInfo info;
    int* words = reinterpret_cast<int*>(&info);
    for (int i = 0; i < 19; ++i)
        words[i] = 100 + i;
    SetComInfo(&info);
    EXPECT_EQ(PLC_driver.comInfo, &info);
    for (int i = 0; i < 19; ++i)
        EXPECT_EQ(words[i], i == 10 || i == 13 ? 0 : 100 + i) << i;
}

TEST_F(Configuration, ClearsTheTwoWordsEachTimeAlsoOfTheRecordThatItHas)
{
    ComInfo other = ComInfo();
    int* words = reinterpret_cast<int*>(&settings);
    const QList<ComInfo*> before = {&settings, &other, nullptr};
    for (int round = 0; round < before.size(); ++round) {
        SetComInfo(before[round]);
        PLC_driver.sendQueue = {Protocol()};
        for (int i = 0; i < 19; ++i)
            words[i] = 100 * round + 50 + i;
        for (int again = 0; again < 2; ++again) {
            words[10] = words[13] = 7;
            SetComInfo(&settings);
            EXPECT_EQ(PLC_driver.comInfo, &settings);
            for (int i = 0; i < 19; ++i)
                EXPECT_EQ(words[i], i == 10 || i == 13 ? 0 : 100 * round + 50 + i)
                    << round << ' ' << i;
            EXPECT_EQ(PLC_driver.sendQueue.size(), 1) << "the frame in flight is not touched";
        }
    }
}

TEST_F(Configuration, LeavesARecordAloneThatAnotherOneOrNoneReplaces)
{
    ComInfo other = ComInfo();
    for (ComInfo* next : {&other, static_cast<ComInfo*>(nullptr)}) {
        SetComInfo(&settings);
        settings.clearedWord10 = 7;
        settings.clearedWord13 = 8;
        SetComInfo(next);
        EXPECT_EQ(PLC_driver.comInfo, next);
        EXPECT_EQ(settings.clearedWord10, 7);
        EXPECT_EQ(settings.clearedWord13, 8);
    }
}

TEST_F(Configuration, StoresTheCallbacksAndReplacesThem)
{
    const FinishCallback finish = [](int, int, int, int) {};
    const RefreshCallback refresh = [](QList<RW_VAR>*, int, int) {};
    RegistCallBackFuncIntf(finish, refresh);
    EXPECT_EQ(PLC_driver.finishCallback, finish);
    EXPECT_EQ(PLC_driver.refreshCallback, refresh);
    RegistCallBackFuncIntf(nullptr, nullptr);
    EXPECT_EQ(PLC_driver.finishCallback, nullptr);
    EXPECT_EQ(PLC_driver.refreshCallback, nullptr);
}

TEST_F(Configuration, StoresTheAddressesOfTheLocalAreasInTheOrderBitWordThird)
{
    int areas[3];
    FlashLocalRegister(&areas[0], &areas[1], &areas[2]);
    EXPECT_EQ(LB, &areas[0]);
    EXPECT_EQ(LW, &areas[1]);
    EXPECT_EQ(RWI, &areas[2]);
}

TEST_F(Configuration, DoesNotAffectTheConstantEntryPoints)
{
    for (bool withSettings : {true, false}) {
        SetComInfo(withSettings ? &settings : nullptr);
        EXPECT_EQ(QueryFinishFlag(), 1);
        EXPECT_EQ(PLCAddressChangeIntef(), -1);
        EXPECT_EQ(PLCAddressChangeIntef(1, 2.5, "three"), -1);
        EXPECT_EQ(StringAddressToInt(3, QString("4")), -1);
    }
}

TEST_F(Configuration, DisablesAndEnablesAStation)
{
    EnCommStation(3, 0);
    EnCommStation(3, 0);
    EXPECT_EQ(PLC_driver.disabledStations.size(), 1);
    EXPECT_EQ(PLC_driver.disabledStations.value(3, -1), 0);
    EXPECT_TRUE(Ethernetcontains(3));
    EXPECT_FALSE(Ethernetcontains(4));
    EnCommStation(3, 2);
    EnCommStation(3, -1);
    EnCommStation(4, 1);
    EXPECT_TRUE(Ethernetcontains(3));
    EXPECT_EQ(PLC_driver.disabledStations.size(), 1);
    EnCommStation(3, 1);
    EXPECT_FALSE(Ethernetcontains(3));
}

TEST_F(Configuration, SetsTheValueOfAnAlreadyDisabledStationToZero)
{
    PLC_driver.disabledStations.insert(3, 9);
    EnCommStation(3, 0);
    EXPECT_EQ(PLC_driver.disabledStations.value(3), 0);
}

TEST_F(Configuration, TreatsStationZeroLikeAnyOther)
{
    EnCommStation(0, 0);
    EnCommStation(7, 0);
    EXPECT_EQ(PLC_driver.disabledStations.size(), 2);
    EXPECT_TRUE(Ethernetcontains(0));
    EnCommStation(0, 1);
    EXPECT_FALSE(Ethernetcontains(0));
    EXPECT_TRUE(Ethernetcontains(7));
}

TEST_F(Configuration, UsesTheAddressesOfTheLastCall)
{
    int areas[6];
    FlashLocalRegister(&areas[0], &areas[1], &areas[2]);
    FlashLocalRegister(&areas[3], &areas[4], &areas[5]);
    EXPECT_EQ(LB, &areas[3]);
    EXPECT_EQ(LW, &areas[4]);
    EXPECT_EQ(RWI, &areas[5]);
    FlashLocalRegister(nullptr, nullptr, nullptr);
    EXPECT_EQ(LB, nullptr);
    EXPECT_EQ(LW, nullptr);
    EXPECT_EQ(RWI, nullptr);
}

TEST_F(Configuration, EnablesAllStationsForANegativeNumberAndAnyFlag)
{
    for (const auto& [station, enable] :
         {std::make_pair(-1, 1), std::make_pair(-5, 0), std::make_pair(-1, 2),
          std::make_pair(std::numeric_limits<int>::min(), -7)})
    {
        EnCommStation(0, 0);
        EnCommStation(7, 0);
        EnCommStation(station, enable);
        EXPECT_TRUE(PLC_driver.disabledStations.isEmpty());
    }
}

// ---- Lists --------------------------------------------------------------------------------------

class Lists : public DriverTest
{
protected:
    static QList<QPair<int, int>> runs()
    {
        QList<QPair<int, int>> pairs;
        for (const RW_VAR& request : PLC_driver.readList)
            pairs.append(qMakePair(request.startAddress, request.count));
        return pairs;
    }
};

std::string text(const QList<QPair<int, int>>& pairs)
{
    std::string out;
    for (const auto& pair : pairs)
        out += "(" + std::to_string(pair.first) + "," + std::to_string(pair.second) + ")";
    return out;
}

TEST_F(Lists, HaveTheHostsLayoutOfAVariable)
{
    HOSTVAR variable;
    const int pointer = sizeof(void*);
    const auto offset = [&](const void* field) {
        return static_cast<const char*>(field) - reinterpret_cast<const char*>(&variable);
    };
    EXPECT_EQ(offset(&variable.hostField0), 0);
    EXPECT_EQ(offset(&variable.areaType), 1);
    EXPECT_EQ(offset(&variable.hostField1), 4);
    EXPECT_EQ(offset(&variable.addressText), 8);
    EXPECT_EQ(offset(&variable.tagName), 8 + pointer);
    EXPECT_EQ(offset(&variable.count), 8 + 2 * pointer);
    EXPECT_EQ(static_cast<int>(sizeof variable), 8 + 3 * pointer);
    EXPECT_EQ(sizeof variable.count, 4u);
    EXPECT_TRUE((std::is_same<decltype(HOSTVAR::areaType), unsigned char>::value));
    EXPECT_TRUE(QTypeInfo<HOSTVAR>::isLarge) << "a list stores pointers to its records";
}

TEST_F(Lists, AppendCyclicReadsWithoutComparisonOrLimit)
{
    RW_VAR request = readOf("T");
    for (int i = 1; i <= 1030; ++i)
        EXPECT_EQ(AddListReadVar(&request), i);
    EXPECT_EQ(AddListReadVar(nullptr), 1030);
}

TEST_F(Lists, AppendACyclicReadUnchangedAfterTheOthers)
{
    RW_VAR first = readOf("First"), second = distinctRequest("Second");
    const std::string before = fieldsOf(second);
    AddListReadVar(&first);
    AddListReadVar(&second);
    EXPECT_EQ(PLC_driver.readList[0].tagName, QString("First"));
    EXPECT_EQ(fieldsOf(PLC_driver.readList[1]), before);
    EXPECT_EQ(fieldsOf(second), before);
}

TEST_F(Lists, ReplaceTheFirstMatchingWriteAfterTheHead)
{
    for (const char* data : {"1", "2", "3"}) {
        RW_VAR request = writeOf("T", data);
        AddListWriteVar(&request, 1);
    }
    RW_VAR request = writeOf("T", "n");
    EXPECT_EQ(AddListWriteVar(&request, 0), 3);
    QByteArray all;
    for (const RW_VAR& queued : PLC_driver.writeList)
        all += queued.data;
    EXPECT_EQ(all, QByteArray("1n3"));
}

TEST_F(Lists, LookForAQueuedRequestInEveryModeExceptOne)
{
    RW_VAR write = writeOf("T", "x"), read = readOf("T");
    AddListWriteVar(&write, 1);
    AddListWriteVar(&write, 1);
    for (int mode : {0, 2, -1}) {
        EXPECT_EQ(AddListWriteVar(&write, mode), 2) << mode;
        EXPECT_EQ(AddListOnceReadVar(&read, mode), 1) << mode;
        EXPECT_EQ(PLC_driver.onceReadList.first().onceFlag, 1);
    }
}

TEST_F(Lists, AppendAWriteUnconditionallyInModeOne)
{
    RW_VAR request = writeOf("T", "x");
    for (int i = 1; i <= 1030; ++i)
        EXPECT_EQ(AddListWriteVar(&request, 1), i);
    EXPECT_EQ(AddListWriteVar(nullptr, 1), 1030);
    request.startAddress = 9;
    EXPECT_EQ(AddListWriteVar(&request, 0), 1030) << "the limit of every other mode is exceeded";
}

TEST_F(Lists, NeverCompareAWriteWithTheFirstQueued)
{
    RW_VAR request = writeOf("T", "1");
    EXPECT_EQ(AddListWriteVar(&request, 0), 1);
    request.data = "2";
    EXPECT_EQ(AddListWriteVar(&request, 0), 2)
        << "the list has one entry, so the write is appended";
    request.data = "3";
    EXPECT_EQ(AddListWriteVar(&request, 0), 2);
    EXPECT_EQ(PLC_driver.writeList[0].data, QByteArray("1"));
    EXPECT_EQ(PLC_driver.writeList[1].data, QByteArray("3"));
}

TEST_F(Lists, ReplaceAQueuedWriteToTheSamePlaceInAllItsFields)
{
    RW_VAR other = writeOf("Other", "0", 9);
    RW_VAR first = writeOf("First", "1", 4, 2);
    AddListWriteVar(&other, 1);
    AddListWriteVar(&other, 1);
    AddListWriteVar(&first, 1);
    AddListWriteVar(&other, 1);

    RW_VAR request = writeOf("Second", "2", 4, 2);
    request.varType = 11;
    request.varIndex = 12;
    request.accessMode = 13;
    request.hostField3 = 14;
    request.linkId = 15;
    request.retValue = 16;
    request.addressText = "17";
    request.reqFlag = 18;
    request.onceFlag = 19;
    EXPECT_EQ(AddListWriteVar(&request, 0), 4);

    for (int i : {0, 1, 3})
        EXPECT_EQ(fieldsOf(PLC_driver.writeList[i]), fieldsOf(other)) << i;
    EXPECT_EQ(fieldsOf(PLC_driver.writeList[2]), fieldsOf(request));
    const RW_VAR& queued = PLC_driver.writeList[2];
    EXPECT_EQ(queued.varType, 11);
    EXPECT_EQ(queued.varIndex, 12);
    EXPECT_EQ(queued.accessMode, 13);
    EXPECT_EQ(queued.hostField3, 14);
    EXPECT_EQ(queued.linkId, 15);
    EXPECT_EQ(queued.retValue, 16);
    EXPECT_EQ(queued.tagName, QString("Second")) << "the tag name is not compared";
    EXPECT_EQ(queued.addressText, QString("17"));
    EXPECT_EQ(queued.reqFlag, 18);
    EXPECT_EQ(queued.onceFlag, 19);
    EXPECT_EQ(queued.data, QByteArray("2"));
}

TEST_F(Lists, AppendAWriteThatDiffersInStationAreaStartOrCount)
{
    RW_VAR request = writeOf("T", "1", 4, 2);
    AddListWriteVar(&request, 1);
    AddListWriteVar(&request, 1);
    int queued = 2;
    for (int RW_VAR::*field :
         {&RW_VAR::stationNo, &RW_VAR::areaType, &RW_VAR::startAddress, &RW_VAR::count})
    {
        RW_VAR changed = request;
        changed.*field += 1;
        EXPECT_EQ(AddListWriteVar(&changed, 0), ++queued);
    }
}

TEST_F(Lists, DropAWriteBeyondTheLimitAndStillReplace)
{
    RW_VAR request = writeOf("T", "x");
    for (int i = 0; i < 1023; ++i) {
        request.startAddress = i;
        AddListWriteVar(&request, 1);
    }
    request.startAddress = 5000;
    EXPECT_EQ(AddListWriteVar(&request, 0), 1024);
    request.startAddress = 5001;
    EXPECT_EQ(AddListWriteVar(&request, 0), 1024);
    EXPECT_EQ(PLC_driver.writeList.last().startAddress, 5000);
    request.startAddress = 7;
    request.data = "new";
    EXPECT_EQ(AddListWriteVar(&request, 0), 1024);
    EXPECT_EQ(PLC_driver.writeList[7].data, QByteArray("new"));
}

TEST_F(Lists, AppendAnyNumberOfCyclicReads)
{
    const int size = 100000;
    RW_VAR request = readOf("T");
    for (int i = 1; i <= size; ++i)
        ASSERT_EQ(AddListReadVar(&request), i);
}

TEST_F(Lists, AppendAOneShotReadUnchangedInModeOne)
{
    RW_VAR request = readOf("T", 3, 4);
    request.onceFlag = 77;
    request.reqFlag = 78;
    request.stationNo = 79;
    EXPECT_EQ(AddListOnceReadVar(&request, 1), 1);
    EXPECT_EQ(AddListOnceReadVar(&request, 1), 2);
    const RW_VAR& queued = PLC_driver.onceReadList.first();
    EXPECT_EQ(queued.onceFlag, 77);
    EXPECT_EQ(queued.reqFlag, 78);
    EXPECT_EQ(queued.stationNo, 79);
    EXPECT_TRUE(PLCDataStorage.isEmpty()) << "no tag is looked up";
}

TEST_F(Lists, CompleteAOneShotReadOfACataloguedName)
{
    declareIndexed("T");
    RW_VAR request = readOf("T", 0, 4);
    request.addressText = "12";
    request.reqFlag = 0;
    EXPECT_EQ(AddListOnceReadVar(&request, 0), 1);
    const RW_VAR& queued = PLC_driver.onceReadList.first();
    EXPECT_EQ(queued.reqFlag, 1);
    EXPECT_EQ(queued.onceFlag, 1);
    EXPECT_EQ(queued.startAddress, 12);
    EXPECT_EQ(queued.count, 4);
    EXPECT_EQ(queued.stationNo, 1);
}

TEST_F(Lists, CompleteAOneShotReadOutsideTheCatalogueToOneElement)
{
    RW_VAR request = readOf("T", 5, 4);
    AddListOnceReadVar(&request, 0);
    const RW_VAR& queued = PLC_driver.onceReadList.first();
    EXPECT_EQ(queued.reqFlag, 0);
    EXPECT_EQ(queued.startAddress, 0);
    EXPECT_EQ(queued.count, 1);
}

TEST_F(Lists, UseTheDefaultStationForAOneShotReadOnlyInSingleStationMode)
{
    settings.defaultStation = 8;
    settings.multiStation = 0;
    RW_VAR request = readOf("T");
    request.stationNo = 3;
    AddListOnceReadVar(&request, 0);
    EXPECT_EQ(PLC_driver.onceReadList.last().stationNo, 8);
    settings.multiStation = 1;
    request.stationNo = 3;
    AddListOnceReadVar(&request, 0);
    EXPECT_EQ(PLC_driver.onceReadList.last().stationNo, 3);
}

TEST_F(Lists, CompleteTheCallersRecordOfAOneShotRead)
{
    declareIndexed("T");
    settings.multiStation = 0;
    settings.defaultStation = 8;
    RW_VAR request = distinctRequest("T");
    request.stationNo = 3;
    RW_VAR expected = request;
    expected.stationNo = 8;
    expected.startAddress = 17;
    expected.reqFlag = 1;
    expected.onceFlag = 1;
    AddListOnceReadVar(&request, 0);
    EXPECT_EQ(fieldsOf(request), fieldsOf(expected));
    EXPECT_EQ(fieldsOf(PLC_driver.onceReadList.first()), fieldsOf(expected));
    EXPECT_TRUE(PLCDataStorage.contains(8)) << "the station is set before the tag is looked up";
    EXPECT_FALSE(PLCDataStorage.contains(3));
}

TEST_F(Lists, KeepTheStationOfAOneShotReadInEveryMultiStationMode)
{
    settings.defaultStation = 8;
    for (int mode : {1, 2, -1}) {
        settings.multiStation = mode;
        RW_VAR request = readOf("T");
        request.stationNo = 3;
        AddListOnceReadVar(&request, 0);
        EXPECT_EQ(PLC_driver.onceReadList.last().stationNo, 3) << mode;
    }
}

TEST_F(Lists, KeepTheStationOfAOneShotReadWithoutSettings)
{
    SetComInfo(nullptr);
    RW_VAR request = readOf("T");
    request.stationNo = 3;
    EXPECT_EQ(AddListOnceReadVar(&request, 0), 1);
    EXPECT_EQ(PLC_driver.onceReadList.last().stationNo, 3);
}

TEST_F(Lists, QueueAOneShotReadOnce)
{
    declareIndexed("T");
    RW_VAR request = readOf("T", 3, 4);
    EXPECT_EQ(AddListOnceReadVar(&request, 0), 1);
    EXPECT_EQ(AddListOnceReadVar(&request, 0), 1) << "the first entry is compared too";
    int queued = 1;
    for (int RW_VAR::*field : {&RW_VAR::varType, &RW_VAR::varIndex, &RW_VAR::stationNo,
                               &RW_VAR::areaType, &RW_VAR::count})
    {
        RW_VAR changed = request;
        changed.*field += 1;
        EXPECT_EQ(AddListOnceReadVar(&changed, 0), ++queued);
    }
    RW_VAR changed = request;
    changed.addressText = "4";
    EXPECT_EQ(AddListOnceReadVar(&changed, 0), ++queued);
}

TEST_F(Lists, QueueNoSecondOneShotReadThatDiffersInOtherFieldsOnly)
{
    declareIndexed("T");
    declareIndexed("U");
    RW_VAR request = readOf("T", 3, 4);
    AddListOnceReadVar(&request, 0);
    const std::string queued = fieldsOf(request);
    RW_VAR other = distinctRequest("U");
    other.varType = request.varType;
    other.varIndex = request.varIndex;
    other.areaType = request.areaType;
    other.addressText = request.addressText;
    other.count = request.count;
    other.stationNo = request.stationNo;
    EXPECT_EQ(AddListOnceReadVar(&other, 0), 1);
    EXPECT_EQ(fieldsOf(PLC_driver.onceReadList.first()), queued);
}

TEST_F(Lists, DropAOneShotReadBeyondTheLimit)
{
    RW_VAR request = readOf("T");
    for (int i = 0; i < 1023; ++i)
        AddListOnceReadVar(&request, 1);
    request.varIndex = 500;
    EXPECT_EQ(AddListOnceReadVar(&request, 0), 1024);
    request.varIndex = 501;
    EXPECT_EQ(AddListOnceReadVar(&request, 0), 1024);
    EXPECT_EQ(AddListOnceReadVar(&request, 1), 1025) << "mode 1 has no limit";
    request.varIndex = 502;
    EXPECT_EQ(AddListOnceReadVar(&request, 0), 1025);
    EXPECT_EQ(AddListOnceReadVar(nullptr, 0), 1025);
    EXPECT_EQ(AddListOnceReadVar(nullptr, 1), 1025);
}

TEST_F(Lists, AcceptOneShotAndCyclicReadsWhileTheCallerHoldsTheLock)
{
    RW_VAR request = readOf("T");
    PLC_driver.listMutex.lock();
    EXPECT_EQ(AddListOnceReadVar(&request, 0), 1);
    EXPECT_EQ(AddListReadVar(&request), 1);
    EXPECT_FALSE(PLC_driver.listMutex.tryLock()) << "the caller still holds its lock";
    std::thread([&] {
        RW_VAR other = readOf("U");
        other.varIndex = 2;
        EXPECT_EQ(AddListOnceReadVar(&other, 0), 2);
        EXPECT_FALSE(PLC_driver.listMutex.tryLock());
    }).join();
    PLC_driver.listMutex.unlock();
}

// ---- Runs ---------------------------------------------------------------------------------------

struct RunRow
{
    QList<QPair<int, int>> group;
    QList<QPair<int, int>> expected;
};

std::ostream& operator<<(std::ostream& out, const RunRow& row)
{
    return out << text(row.group);
}

class Runs : public Lists, public ::testing::WithParamInterface<RunRow>
{
};

TEST_P(Runs, AreMergedAndCutIntoBlocksOfFifteen)
{
    QList<RW_VAR> group;
    for (const auto& pair : GetParam().group)
        group.append(readOf("T", pair.first, pair.second));
    BitVarReCreat(group, 15);
    EXPECT_EQ(text(runs()), text(GetParam().expected)) << text(GetParam().group);
}

INSTANTIATE_TEST_SUITE_P(
    OfOneGroup, Runs,
    ::testing::Values(
        RunRow{{}, {}}, RunRow{{{0, 1}, {1, 1}, {2, 1}}, {{0, 3}}},
        RunRow{{{0, 1}, {14, 1}}, {{0, 15}}}, RunRow{{{0, 1}, {15, 1}}, {{0, 15}, {15, 1}}},
        RunRow{{{0, 1}, {16, 1}}, {{0, 1}, {16, 1}}},
        RunRow{{{0, 40}}, {{0, 15}, {15, 15}, {30, 10}}},
        RunRow{{{0, 40}, {5, 1}}, {{0, 15}, {15, 15}}}, RunRow{{{5, 10}, {5, 2}}, {{5, 2}}},
        RunRow{{{0, 15}, {3, 1}}, {{0, 15}, {3, 1}}},
        RunRow{{{0, 16}, {17, 1}}, {{0, 15}, {15, 3}}}, RunRow{{{0, 0}, {7, 3}}, {{7, 3}}},
        RunRow{{{0, 15}}, {{0, 15}}}, RunRow{{{0, 30}}, {{0, 15}, {15, 15}}}, RunRow{{{0, 0}}, {}},
        RunRow{{{0, 1}, {16, 40}}, {{0, 1}, {16, 15}, {31, 15}, {46, 10}}},
        RunRow{{{0, 10}, {11, 10}}, {{0, 15}, {15, 6}}},
        RunRow{{{0, 12}, {13, 1}, {20, 5}}, {{0, 14}, {20, 5}}},
        RunRow{{{0, -3}, {40, 2}}, {{40, 2}}},
        // A run longer than a block still joins a run that starts within it, and ends where that
        // run ends.
        RunRow{{{0, 10}, {9, 20}, {20, 1}}, {{0, 15}, {15, 6}}},
        RunRow{{{0, 10}, {9, 11}, {20, 1}}, {{0, 15}, {15, 6}}},
        RunRow{{{0, 10}, {9, 20}, {12, 1}}, {{0, 13}}},
        // The same is true for a run after a gap or after an empty run.
        RunRow{{{0, 1}, {16, 40}, {20, 1}}, {{0, 1}, {16, 5}}},
        RunRow{{{0, 0}, {7, 40}, {8, 1}}, {{7, 2}}}));

TEST_F(Lists, CutWholeBlocksAndReturnTheRestToTheCaller)
{
    RW_VAR run = readOf("T", 2, 32);
    addressAdd(run, 15, false);
    EXPECT_EQ(text(runs()), "(2,15)(17,15)");
    EXPECT_EQ(run.startAddress, 32);
    EXPECT_EQ(run.count, 2);
    addressAdd(run, 15, true);
    EXPECT_EQ(text(runs()), "(2,15)(17,15)(32,2)");
}

TEST_F(Lists, CopyTheOtherFieldsOfARunToEveryBlock)
{
    RW_VAR run = distinctRequest("T");
    run.startAddress = 2;
    run.count = 32;
    const RW_VAR given = run;
    addressAdd(run, 15, true);
    const int starts[] = {2, 17, 32}, counts[] = {15, 15, 2};
    ASSERT_EQ(PLC_driver.readList.size(), 3);
    for (int i = 0; i < 3; ++i) {
        RW_VAR expected = given;
        expected.startAddress = starts[i];
        expected.count = counts[i];
        EXPECT_EQ(fieldsOf(PLC_driver.readList[i]), fieldsOf(expected));
    }
}

TEST_F(Lists, MergeRunsWithTheOtherFieldsOfTheirFirstRequest)
{
    const auto numbered = [](int number, int start, int count) {
        RW_VAR request = RW_VAR();
        int field = 100 * number;
        for (int RW_VAR::*member :
             {&RW_VAR::varType, &RW_VAR::varIndex, &RW_VAR::accessMode, &RW_VAR::hostField3,
              &RW_VAR::linkId, &RW_VAR::retValue, &RW_VAR::areaType, &RW_VAR::stationNo,
              &RW_VAR::reqFlag, &RW_VAR::onceFlag})
            request.*member = ++field;
        request.tagName = QString("tag %1").arg(number);
        request.addressText = QString("address %1").arg(number);
        request.data = QByteArray::number(number);
        request.startAddress = start;
        request.count = count;
        return request;
    };
    // The first three make one run; a gap comes; the next two make another; a run of whole blocks
    // is empty for the last one.
    QList<RW_VAR> group = {numbered(1, 0, 1),  numbered(2, 1, 1),   numbered(3, 2, 3),
                           numbered(4, 40, 1), numbered(5, 42, 13), numbered(6, 100, 15),
                           numbered(7, 116, 2)};
    BitVarReCreat(group, 15);
    const QList<RW_VAR> expected = {numbered(1, 0, 5), numbered(4, 40, 15), numbered(6, 100, 15),
                                    numbered(7, 116, 2)};
    ASSERT_EQ(PLC_driver.readList.size(), expected.size());
    for (int i = 0; i < expected.size(); ++i)
        EXPECT_EQ(fieldsOf(PLC_driver.readList[i]), fieldsOf(expected[i])) << i;
    QList<RW_VAR> afterEmpty = {numbered(1, 0, 30), numbered(2, 31, 2), numbered(3, 33, 1)};
    PLC_driver.readList.clear();
    BitVarReCreat(afterEmpty, 15);
    ASSERT_EQ(PLC_driver.readList.size(), 3);
    EXPECT_EQ(fieldsOf(PLC_driver.readList[0]), fieldsOf(numbered(1, 0, 15)));
    EXPECT_EQ(fieldsOf(PLC_driver.readList[1]), fieldsOf(numbered(1, 15, 15)));
    EXPECT_EQ(fieldsOf(PLC_driver.readList[2]), fieldsOf(numbered(2, 31, 3)));
}

TEST_F(Lists, RebuildARunWithTheFieldsOfItsLowestElement)
{
    declareIndexed("Zone");
    QList<HOSTVAR> variables = {hostVar("Zone", "6", 1, 3), hostVar("Zone", "4", 1, 1),
                                hostVar("Zone", "5", 1, 2), hostVar("Zone", "+4", 1, 4)};
    ASSERT_EQ(ReCreatReadVarList(&variables), 1);
    const RW_VAR& run = PLC_driver.readList.first();
    EXPECT_EQ(text(runs()), "(4,3)");
    EXPECT_EQ(run.areaType, 1) << "of two for one element, the first in the host's list";
    EXPECT_EQ(run.addressText, QString("4"));
}

TEST_F(Lists, DoNotCutForAnInvalidLength)
{
    for (int length : {0, -1}) {
        RW_VAR run = readOf("T", 0, 5);
        addressAdd(run, length, true);
    }
    EXPECT_EQ(text(runs()), "(0,5)(0,5)");
}

TEST_F(Lists, DropAnImpossiblyLongRun)
{
    RW_VAR run = readOf("T", 0, std::numeric_limits<int>::max());
    addressAdd(run, 15, true);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
}

TEST_F(Lists, CutTheLongestPossibleRun)
{
    RW_VAR longest = readOf("T", 0, 1048576);
    addressAdd(longest, 15, true);
    ASSERT_EQ(PLC_driver.readList.size(), 69906);
    EXPECT_EQ(PLC_driver.readList.last().startAddress, 1048575);
    EXPECT_EQ(PLC_driver.readList.last().count, 1);
    PLC_driver.readList.clear();
    RW_VAR tooLong = readOf("T", 0, 1048577);
    addressAdd(tooLong, 15, true);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
}

TEST_F(Lists, SortByStartAndKeepTheOrderOfEquals)
{
    QList<RW_VAR> group;
    const int starts[] = {5, 3, 5, -1, 3};
    for (int i = 0; i < 5; ++i) {
        group.append(distinctRequest("T"));
        group.last().startAddress = starts[i];
        group.last().varIndex = i;
        group.last().count = 5 - i;
    }
    const QList<RW_VAR> before = group;
    Bubble_Sort(group);
    ASSERT_EQ(group.size(), 5);
    const int order[] = {3, 1, 4, 0, 2};
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(fieldsOf(group[i]), fieldsOf(before[order[i]])) << i;
    QList<RW_VAR> none;
    Bubble_Sort(none);
    EXPECT_TRUE(none.isEmpty());
}

TEST_F(Lists, SortAndMergeAGroupOfAnySize)
{
    const int size = 1000, otherStation = 2;
    QList<RW_VAR> group;
    for (int i = size - 1; i >= 0; --i)
        group.append(readOf("T", i));
    Bubble_Sort(group);
    for (int i = 0; i < size; ++i)
        ASSERT_EQ(group[i].startAddress, i);
    BitVarReCreat(group, 15);
    EXPECT_EQ(PLC_driver.readList.size(), (size + 14) / 15);

    // With gaps that are too wide, each stays a request of its own.
    PLC_driver.readList.clear();
    QList<HOSTVAR> variables;
    declareIndexed("T");
    settings.defaultStation = otherStation;
    for (int i = 0; i < size; ++i)
        variables.append(hostVar("T", QByteArray::number(100 * i).constData(), 1));
    EXPECT_EQ(ReCreatReadVarList(&variables), size);
    EXPECT_EQ(PLC_driver.readList.last().startAddress, 100 * (size - 1));
}

TEST_F(Lists, RebuildTheCyclicListFromTheHostsVariables)
{
    declareIndexed("Zone");
    settings.defaultStation = 6;
    settings.remoteMode = 14;
    settings.localLink = 15;
    PLC_driver.readCycleCount = 9;
    settings.passComplete = 1;
    RW_VAR old = readOf("Old");
    AddListReadVar(&old);
    QList<HOSTVAR> variables = {hostVar("Zone", "4", 1), hostVar("Speed", "7", 9, 200),
                                hostVar("Zone", "3", 1)};

    EXPECT_EQ(ReCreatReadVarList(&variables), 2);
    EXPECT_EQ(text(runs()), "(0,1)(3,2)") << "names ascend; within a name, addresses ascend";
    const RW_VAR& speed = PLC_driver.readList[0];
    EXPECT_EQ(speed.tagName, QString("Speed"));
    EXPECT_EQ(speed.varType, 0);
    EXPECT_EQ(speed.varIndex, -1);
    EXPECT_EQ(speed.accessMode, 0);
    EXPECT_EQ(speed.hostField3, 14);
    EXPECT_EQ(speed.linkId, 15);
    EXPECT_EQ(speed.addressText, QString("7"));
    EXPECT_EQ(speed.areaType, 200);
    EXPECT_EQ(speed.stationNo, 6);
    EXPECT_EQ(speed.reqFlag, 0);
    EXPECT_EQ(speed.onceFlag, 0);
    EXPECT_EQ(PLC_driver.readList[1].reqFlag, 1);
    EXPECT_EQ(PLC_driver.readCycleCount, 0);
    EXPECT_EQ(settings.passComplete, 0);
}

TEST_F(Lists, RebuildRequestsOfDifferentNamesWithTheSameOtherFields)
{
    for (const char* tag : {"A", "B", "C"})
        declareIndexed(tag);
    QList<HOSTVAR> variables = {hostVar("C", "0", 1), hostVar("A", "0", 1), hostVar("B", "0", 1)};
    ReCreatReadVarList(&variables);
    ASSERT_EQ(PLC_driver.readList.size(), 3);
    for (int i = 0; i < 3; ++i) {
        RW_VAR expected = readOf(i == 0 ? "A" : i == 1 ? "B" : "C");
        expected.varType = 0;
        expected.varIndex = -1;
        expected.hostField3 = settings.remoteMode;
        expected.retValue = 0;
        EXPECT_EQ(fieldsOf(PLC_driver.readList[i]), fieldsOf(expected));
    }
}

TEST_F(Lists, MergeOnlyWithinOneName)
{
    declareIndexed("A");
    declareIndexed("B");
    declareIndexed("a");
    QList<HOSTVAR> variables = {hostVar("a", "0", 1), hostVar("B", "1", 1), hostVar("A", "0", 40),
                                hostVar("B", "0", 1)};
    EXPECT_EQ(ReCreatReadVarList(&variables), 5);
    QStringList names;
    for (const RW_VAR& request : PLC_driver.readList)
        names.append(request.tagName);
    EXPECT_EQ(names, (QStringList{"A", "A", "A", "B", "a"}));
}

TEST_F(Lists, RequestANameOutsideTheCatalogueOnce)
{
    QList<HOSTVAR> variables = {hostVar("S", "3", 4), hostVar("S", "9", 4)};
    EXPECT_EQ(ReCreatReadVarList(&variables), 1);
    EXPECT_EQ(text(runs()), "(0,1)");
}

TEST_F(Lists, UseTheDefaultStationForTheHostsVariablesInEveryMode)
{
    settings.defaultStation = 6;
    for (int mode : {0, 1}) {
        settings.multiStation = mode;
        QList<HOSTVAR> variables = {hostVar("S", "3", 4)};
        ReCreatReadVarList(&variables);
        EXPECT_EQ(PLC_driver.readList.first().stationNo, 6) << mode;
    }
}

TEST_F(Lists, EmptyTheCyclicListForAnEmptyHostListAndDoNotRestartTheCycle)
{
    RW_VAR old = readOf("Old");
    AddListReadVar(&old);
    PLC_driver.readCycleCount = 9;
    settings.passComplete = 1;
    QList<HOSTVAR> none;
    EXPECT_EQ(ReCreatReadVarList(&none), 0);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
    EXPECT_EQ(PLC_driver.readCycleCount, 9);
    EXPECT_EQ(settings.passComplete, 1);
}

TEST_F(Lists, EmptyTheCyclicListForAnEmptyHostListEvenWithoutSettings)
{
    RW_VAR old = readOf("Old");
    AddListReadVar(&old);
    SetComInfo(nullptr);
    QList<HOSTVAR> none;
    EXPECT_EQ(ReCreatReadVarList(&none), 0);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
    EXPECT_TRUE(locksAreFree());
}

TEST_F(Lists, DoNotChangeWithoutAHostListOrSettings)
{
    RW_VAR old = readOf("Old");
    AddListReadVar(&old);
    EXPECT_EQ(ReCreatReadVarList(nullptr), 1);
    QList<HOSTVAR> variables = {hostVar("T", "0", 1), hostVar("U", "0", 1)};
    SetComInfo(nullptr);
    EXPECT_EQ(ReCreatReadVarList(&variables), 1);
    EXPECT_EQ(PLC_driver.readList.first().tagName, QString("Old"));
}

TEST_F(Lists, SeedTheStoreForEveryVariable)
{
    QList<HOSTVAR> variables = {hostVar("T", "0", 1)};
    ReCreatReadVarList(&variables);
    EXPECT_BYTES(PLCDataStorage[1].tagInfo.value("T"), hex("FF 00 00 00"));
    EXPECT_EQ(PLCDataStorage[1].transactionCounter, 0);
}

} // namespace
