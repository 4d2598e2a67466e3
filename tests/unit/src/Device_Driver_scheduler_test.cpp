#include "driver_fixture.h"

using wire::hex;

namespace {

class Scheduler : public DriverTest
{
protected:
    Scheduler() { connectStation(); }

    void addReads(const QStringList& tags, int station = 1)
    {
        for (const QString& tag : tags)
            PLC_driver.readList.append(on(station, readOf(tag.toLatin1().constData())));
    }
    void addWrites(const QStringList& tags, int station = 1)
    {
        for (const QString& tag : tags) {
            confirm(tag.toLatin1().constData(), 3, 0xC3, station);
            RW_VAR request = on(station, writeOf(tag.toLatin1().constData(), hex("01 02")));
            request.varIndex = 100 + PLC_driver.writeList.size();
            PLC_driver.writeList.append(request);
        }
    }
    void addOnce(const QStringList& tags, int station = 1)
    {
        for (const QString& tag : tags) {
            RW_VAR request = on(station, readOf(tag.toLatin1().constData()));
            request.onceFlag = 1;
            request.varIndex = 200 + PLC_driver.onceReadList.size();
            PLC_driver.onceReadList.append(request);
        }
    }
    static RW_VAR on(int station, RW_VAR request)
    {
        request.stationNo = station;
        return request;
    }

    /// Asks for the next frame and answers it. Returns the tag of its request, or "-" without one.
    QString serve()
    {
        Protocol* next = ComCommunication();
        EXPECT_TRUE(locksAreFree());
        if (!next)
            return "-";
        const QString tag = next->var.tagName;
        answer(next->var.accessMode == 1 ? wire::writeReply(1)
                                         : wire::readReply(1, 0xC3, hex("01 02")));
        return tag;
    }
    QString serve(int times)
    {
        QString order;
        for (int i = 0; i < times; ++i)
            order += serve();
        return order;
    }
};

TEST_F(Scheduler, ServesFiveWritesThenACyclicRead)
{
    addWrites({"a", "b", "c", "d", "e", "f"});
    addReads({"R"});
    EXPECT_EQ(serve(7), QString("abcdeRf"));
}

TEST_F(Scheduler, ServesFiveWritesThenFiveOneShotsThenACyclicRead)
{
    addWrites({"a", "b", "c", "d", "e", "f", "g"});
    addOnce({"1", "2", "3", "4", "5", "6"});
    addReads({"R", "S"});
    EXPECT_EQ(serve(15), QString("abcde12345Rfg6S"));
}

TEST_F(Scheduler, CountsTheBurstsAndResetsThemAfterACyclicRead)
{
    addWrites({"a", "b"});
    addOnce({"1"});
    addReads({"R"});
    serve(3);
    EXPECT_EQ(PLC_driver.writeBurst, 2);
    EXPECT_EQ(PLC_driver.onceBurst, 1);
    serve();
    EXPECT_EQ(PLC_driver.writeBurst, 0);
    EXPECT_EQ(PLC_driver.onceBurst, 0);
}

TEST_F(Scheduler, IsIdleOnceAfterFiveWritesWithoutCyclicReads)
{
    addWrites({"a", "b", "c", "d", "e", "f"});
    EXPECT_EQ(serve(5), QString("abcde"));
    settings.passComplete = 0;
    EXPECT_EQ(serve(), QString("-"));
    EXPECT_EQ(settings.passComplete, 1);
    EXPECT_EQ(PLC_driver.writeBurst, 0);
    EXPECT_EQ(serve(), QString("f"));
}

TEST_F(Scheduler, SetsThePassCompleteWordWhenThereIsNothingToDo)
{
    PLC_driver.currentList = 100;
    PLC_driver.onceBurst = 3;
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(settings.passComplete, 1);
    EXPECT_EQ(PLC_driver.onceBurst, 0);
    EXPECT_EQ(PLC_driver.currentList, 100) << "nothing is in flight";
}

TEST_F(Scheduler, RecordsTheListOfTheRequestInFlight)
{
    addReads({"R"});
    ComCommunication();
    EXPECT_EQ(PLC_driver.currentList, 0);
    answer(wire::readReply(1, 0xC3, hex("01 02")));
    addOnce({"1"});
    ComCommunication();
    EXPECT_EQ(PLC_driver.currentList, 2);
    answer(wire::readReply(1, 0xC3, hex("01 02")));
    addWrites({"a"});
    ComCommunication();
    EXPECT_EQ(PLC_driver.currentList, 1);
}

TEST_F(Scheduler, ReturnsTheSameFrameWhileOneIsPending)
{
    addReads({"R", "S"});
    Protocol* first = ComCommunication();
    const QByteArray frame = first->frame;
    addWrites({"a"});
    EXPECT_EQ(ComCommunication(), first);
    EXPECT_EQ(first->frame, frame);
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
    EXPECT_EQ(PLC_driver.currentList, 0);
    EXPECT_EQ(tagsOf(PLC_driver.readList), QString("RS"));
}

TEST_F(Scheduler, ReturnsAPendingFrameWithoutTakingTheListLock)
{
    addReads({"R"});
    Protocol* first = ComCommunication();
    PLC_driver.listMutex.lock();
    EXPECT_EQ(ComCommunication(), first);
    PLC_driver.listMutex.unlock();
}

TEST_F(Scheduler, KeepsEveryHeadInItsListUntilItIsAnswered)
{
    addWrites({"a"});
    ComCommunication();
    EXPECT_EQ(tagsOf(PLC_driver.writeList), QString("a"));
    PLC_driver.sendQueue.clear();
    PLC_driver.writeList.clear();
    addOnce({"1"});
    ComCommunication();
    EXPECT_EQ(tagsOf(PLC_driver.onceReadList), QString("1"));
}

TEST_F(Scheduler, DropsTheWritesOfADisabledStationUpToTheFirstOfAnother)
{
    connectStation(2, kId, 0x21);
    addWrites({"a", "b"}, 2);
    addWrites({"c"}, 1);
    addWrites({"d"}, 2);
    EnCommStation(2, 0);
    EXPECT_EQ(ComCommunication()->var.tagName, QString("c"));
    EXPECT_EQ(tagsOf(PLC_driver.writeList), QString("cd"));
    EXPECT_TRUE(finished.empty()) << "no callback";
}

TEST_F(Scheduler, EmptiesAListOfWritesOrOneShotsWhoseStationsAreAllDisabled)
{
    EnCommStation(2, 0);
    addReads({"R"});
    addWrites({"a", "b"}, 2);
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_TRUE(locksAreFree());
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(PLC_driver.writeBurst, 0);
    EXPECT_EQ(PLC_driver.currentList, 1);
    addOnce({"1", "2"}, 2);
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_TRUE(locksAreFree());
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_EQ(PLC_driver.onceBurst, 0);
    EXPECT_EQ(PLC_driver.currentList, 2);
    EXPECT_EQ(ComCommunication()->var.tagName, QString("R"));
}

TEST_F(Scheduler, DropsTheOneShotsOfADisabledStationUpToTheFirstOfAnother)
{
    EnCommStation(2, 0);
    addOnce({"1", "2"}, 2);
    addOnce({"3"}, 1);
    EXPECT_EQ(ComCommunication()->var.tagName, QString("3"));
    EXPECT_EQ(tagsOf(PLC_driver.onceReadList), QString("3"));
}

TEST_F(Scheduler, RotatesTheCyclicReadsOfADisabledStation)
{
    EnCommStation(2, 0);
    addReads({"a", "b"}, 2);
    addReads({"c", "d"}, 1);
    EXPECT_EQ(ComCommunication()->var.tagName, QString("c"));
    EXPECT_EQ(tagsOf(PLC_driver.readList), QString("cdab"));
}

TEST_F(Scheduler, PassesOverAnyNumberOfRequestsOfADisabledStation)
{
    const int passed = 1000;
    EnCommStation(2, 0);
    for (int i = 0; i < passed; ++i) {
        addReads({"a"}, 2);
        addWrites({"b"}, 2);
        addOnce({"c"}, 2);
    }
    addReads({"R"});
    addWrites({"W"});
    addOnce({"1"});
    EXPECT_EQ(serve(), QString("W"));
    EXPECT_EQ(serve(), QString("1"));
    EXPECT_EQ(ComCommunication()->var.tagName, QString("R"));
    EXPECT_EQ(tagsOf(PLC_driver.readList), "R" + QString("a").repeated(passed));
}

TEST_F(Scheduler, ServesAndDisablesAnyNumberOfStationsAndTags)
{
    const int stations = 300;
    for (int station = 100; station < 100 + stations; ++station) {
        EnCommStation(station, 0);
        EXPECT_FALSE(getHandshakeInformation(station));
    }
    for (int station = 100; station < 100 + stations; ++station) {
        EXPECT_TRUE(Ethernetcontains(station));
        EXPECT_EQ(PLCDataStorage[station].transactionCounter, 1);
    }
    EnCommStation(-1, 0);
    EXPECT_TRUE(PLC_driver.disabledStations.isEmpty());
    const int tags = 1000;
    RW_VAR request = on(1, readOf("T"));
    for (int i = 0; i < tags; ++i) {
        request.tagName = QString::number(i);
        EXPECT_EQ(AddListReadVar(&request), i + 1);
    }
    EXPECT_EQ(serve(tags).size(), 10 + 90 * 2 + 900 * 3);
    EXPECT_EQ(PLCDataStorage[1].tagData.size(), tags);
}

TEST_F(Scheduler, KeepsTheOrderOfACyclicListWhoseStationsAreAllDisabled)
{
    EnCommStation(2, 0);
    addReads({"a", "b", "c"}, 2);
    PLC_driver.writeBurst = 3;
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_TRUE(locksAreFree());
    EXPECT_EQ(tagsOf(PLC_driver.readList), QString("abc"));
    EXPECT_EQ(PLC_driver.writeBurst, 3) << "the bursts are not reset";
    EXPECT_EQ(PLC_driver.currentList, 0);
}

TEST_F(Scheduler, ChangesNoCountWhenEveryCyclicStationIsDisabled)
{
    EnCommStation(2, 0);
    addReads({"a", "b", "c"}, 2);
    PLC_driver.onceBurst = 4;
    PLC_driver.readCycleCount = 2;
    settings.passComplete = 0;
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.onceBurst, 4);
    EXPECT_EQ(PLC_driver.readCycleCount, 2);
    EXPECT_EQ(settings.passComplete, 0);
}

TEST_F(Scheduler, RotatesAListOfAnyLengthByOne)
{
    for (int size : {1, 2, 255, 256, 257, 300}) {
        PLC_driver.readList.clear();
        for (int i = 0; i < size; ++i) {
            PLC_driver.readList.append(readOf("R"));
            PLC_driver.readList.last().varIndex = i;
        }
        serve();
        ASSERT_EQ(PLC_driver.readList.size(), size);
        for (int i = 0; i < size; ++i)
            EXPECT_EQ(PLC_driver.readList[i].varIndex, (i + 1) % size) << size;
    }
}

TEST_F(Scheduler, ResetsTheOneShotBurstOnlyAfterACyclicRead)
{
    addOnce({"1"});
    addWrites({"a"});
    addReads({"R"});
    PLC_driver.onceBurst = 5;
    EXPECT_EQ(serve(3), QString("aR1"));
}

TEST_F(Scheduler, CountsACallThatConnectsTowardsTheBurst)
{
    addWrites({"a"}, 9);
    EXPECT_NE(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.writeBurst, 1);
    PLC_driver.sendQueue.clear();
    PLC_driver.writeList.clear();
    addOnce({"1"}, 9);
    EXPECT_NE(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.onceBurst, 1);
}

TEST_F(Scheduler, ChangesNothingWhileAFrameIsPending)
{
    addWrites({"a", "b"});
    ComCommunication();
    PLC_driver.onceBurst = 3;
    addOnce({"1"});
    settings.passComplete = 0;
    for (int i = 0; i < 10; ++i)
        ComCommunication();
    EXPECT_EQ(PLC_driver.writeBurst, 1);
    EXPECT_EQ(PLC_driver.onceBurst, 3);
    EXPECT_EQ(PLC_driver.currentList, 1);
    EXPECT_EQ(settings.passComplete, 0);
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
}

TEST_F(Scheduler, KeepsEveryRequestOfARemoteLinkInItsPlace)
{
    settings.remoteMode = 1;
    addWrites({"a", "b"});
    addOnce({"1", "2"});
    addReads({"R", "S"});
    for (int call = 0; call < 11; ++call) {
        EXPECT_EQ(PLC_driver.writeBurst, qMin(call, 5));
        EXPECT_EQ(PLC_driver.onceBurst, qMax(0, call - 5));
        EXPECT_EQ(ComCommunication(), nullptr);
        EXPECT_EQ(tagsOf(PLC_driver.writeList), QString("ab"));
        EXPECT_EQ(tagsOf(PLC_driver.onceReadList), QString("12"));
        EXPECT_EQ(tagsOf(PLC_driver.readList), QString("RS"));
    }
    EXPECT_EQ(PLC_driver.writeBurst, 0) << "the eleventh call reached the cyclic reads";
}

TEST_F(Scheduler, TreatsEveryModeExceptZeroAsRemoteAndIgnoresTheConnection)
{
    for (int mode : {1, 2, -1}) {
        settings.remoteMode = mode;
        PLC_driver.writeList.clear();
        PLC_driver.writeList.append(on(44, writeOf("a", "x")));
        EXPECT_EQ(ComCommunication(), nullptr) << mode;
        PLC_driver.writeList.clear();
        PLC_driver.onceReadList.append(on(44, readOf("1")));
        EXPECT_EQ(ComCommunication(), nullptr) << mode;
        PLC_driver.onceReadList.clear();
        PLC_driver.readList.append(on(44, readOf("R")));
        EXPECT_EQ(ComCommunication(), nullptr) << mode;
        PLC_driver.readList.clear();
    }
    EXPECT_FALSE(PLCDataStorage.contains(44));
}

TEST_F(Scheduler, QueuesNothingOnARemoteLinkButCountsTheBursts)
{
    settings.remoteMode = 1;
    addWrites({"a"});
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.writeBurst, 1);
    PLC_driver.writeList.clear();
    addOnce({"1"});
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.onceBurst, 1);
    PLC_driver.onceReadList.clear();
    addReads({"R"});
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.onceBurst, 0);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
}

TEST_F(Scheduler, ConnectsAStationBeforeItsFirstRequestOfAnyList)
{
    for (int list = 0; list < 3; ++list) {
        PLC_driver.sendQueue.clear();
        PLC_driver.readList.clear();
        PLC_driver.writeList.clear();
        PLC_driver.onceReadList.clear();
        if (list == 0)
            addReads({"R"}, 9);
        else if (list == 1)
            addWrites({"a"}, 9);
        else
            addOnce({"1"}, 9);
        PLCDataStorage.remove(9);
        Protocol* next = ComCommunication();
        ASSERT_NE(next, nullptr);
        EXPECT_EQ(PLC_driver.sendQueue.size(), 2);
        EXPECT_EQ(next->var.stationNo, 9);
        EXPECT_BYTES(next->frame, wire::framed(wire::identityRequest(1)));
        EXPECT_EQ(PLC_driver.currentList, list);
    }
}

TEST_F(Scheduler, LearnsTheClassOfATagBeforeItsFirstWrite)
{
    RW_VAR request = writeOf("New", hex("01 02"), 7, 3);
    PLC_driver.writeList.append(request);
    Protocol* next = ComCommunication();
    ASSERT_NE(next, nullptr);
    EXPECT_BYTES(next->frame, wire::readRequest(0x21, kId, wire::tagPath("New"), 1));
    EXPECT_EQ(next->var.accessMode, 0);
    EXPECT_EQ(next->var.startAddress, 0);
    EXPECT_EQ(PLC_driver.currentList, 0);
    EXPECT_EQ(PLC_driver.writeBurst, 1);
    ASSERT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_EQ(PLC_driver.writeList.first().accessMode, 1);
    EXPECT_EQ(PLC_driver.writeList.first().startAddress, 7);

    EXPECT_EQ(answer(wire::readReply(0x21, 0xC3, hex("09 09"))), 1);
    EXPECT_TRUE(finished.empty()) << "the read completes as a cyclic one";
    EXPECT_BYTES(PLCDataStorage[1].tagData.value("New"), hex("09 09"));

    EXPECT_BYTES(ComCommunication()->frame, wire::writeRequest(0x22, kId, wire::tagPath("New", 7),
                                                               0xC3, 3, hex("01 02 00 00 00 00")));
    EXPECT_EQ(answer(wire::writeReply(0x22)), 1);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0], (Finished{9, 3, 1, 1}));
}

TEST_F(Scheduler, CompletesTheReadThatLearnsAClassAsACyclicRead)
{
    addReads({"R", "S"});
    PLC_driver.writeList.append(writeOf("New", hex("01 02")));
    EXPECT_EQ(ComCommunication()->var.tagName, QString("New"));
    answer(wire::readReply(0x21, 0xC3, hex("09 09")));
    EXPECT_EQ(tagsOf(PLC_driver.readList), QString("SR"));
    EXPECT_EQ(PLC_driver.result.tagName, QString("R"));
    EXPECT_TRUE(finished.empty());
    EXPECT_EQ(tagsOf(PLC_driver.writeList), QString("New"));
}

TEST_F(Scheduler, CountsTheReadsThatLearnClassesTowardsTheBurstOfWrites)
{
    for (const char* tag : {"a", "b", "c"})
        PLC_driver.writeList.append(writeOf(tag, hex("01 02")));
    addReads({"R"});
    EXPECT_EQ(serve(5), QString("aabbc")) << "each is read, then written";
    EXPECT_EQ(PLC_driver.writeBurst, 5);
    EXPECT_EQ(serve(2), QString("Rc"));
}

TEST_F(Scheduler, KeepsAQueuedWriteAsItWasSent)
{
    confirm("T", 2, 0xC2);
    PLC_driver.writeList.append(writeOf("T", hex("11 00 22 00"), 0, 2));
    ASSERT_NE(ComCommunication(), nullptr);
    EXPECT_BYTES(PLC_driver.writeList.first().data, hex("11 22"));
    EXPECT_BYTES(PLC_driver.sendQueue.first().var.data, hex("11 22"));
}

TEST_F(Scheduler, LearnsTheClassOfATagThatTheHostWroteForTheFirstTime)
{
    const QByteArray value = hex("01 02");
    EXPECT_EQ(SetRegisterData("New", 5, "0", 1, value, 1, 3, 1), 1);
    EXPECT_BYTES(PLCDataStorage[1].tagInfo.value("New"), hex("FF 00 00 00"));
    EXPECT_BYTES(ComCommunication()->frame, wire::readRequest(0x21, kId, wire::tagPath("New"), 1));
}

TEST_F(Scheduler, ChoosesNoRequestWithoutSettings)
{
    addReads({"R"});
    SetComInfo(nullptr);
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_TRUE(locksAreFree());
    SetComInfo(&settings);
    EXPECT_NE(ComCommunication(), nullptr);
    SetComInfo(nullptr);
    EXPECT_NE(ComCommunication(), nullptr) << "a queued frame is still returned";
}

} // namespace
