// The driver's hooks for remote links and local areas are empty. This program replaces them, as the
// loader allows any program to do, and records when and with which arguments they are called.

#include "driver_fixture.h"

using wire::hex;

namespace {

struct Call
{
    const char* hook;
    const RW_VAR* request;
    QByteArray data;
    int queued, writeBurst, onceBurst;
};
std::vector<Call> calls;

void record(const char* hook, const RW_VAR* request)
{
    calls.push_back({hook, request, request ? request->data : QByteArray(),
                     PLC_driver.sendQueue.size(), PLC_driver.writeBurst, PLC_driver.onceBurst});
}

} // namespace

void Remote_ReadVar(RW_VAR* request)
{
    record("read", request);
}

void Remote_WriteVar(RW_VAR* request)
{
    record("write", request);
}

void WriteDataToLocal(RW_VAR* request)
{
    record("local", request);
}

namespace {

class Hooks : public DriverTest
{
protected:
    Hooks()
    {
        calls.clear();
        connectStation();
    }
};

using RemoteHooks = Hooks;
using LocalAreaHook = Hooks;

TEST_F(RemoteHooks, ReceiveTheHeadOfTheListBeingServed)
{
    settings.remoteMode = 1;
    PLC_driver.writeList.append(writeOf("a", "x"));
    ComCommunication();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_STREQ(calls[0].hook, "write");
    EXPECT_EQ(calls[0].request, &PLC_driver.writeList.first());

    PLC_driver.writeList.clear();
    PLC_driver.onceReadList.append(readOf("b"));
    ComCommunication();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_STREQ(calls[1].hook, "read");
    EXPECT_EQ(calls[1].request, &PLC_driver.onceReadList.first());

    PLC_driver.onceReadList.clear();
    PLC_driver.readList.append(readOf("c"));
    ComCommunication();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_STREQ(calls[2].hook, "read");
    EXPECT_EQ(calls[2].request, &PLC_driver.readList.first());
}

TEST_F(RemoteHooks, SkipTheRequestsOfADisabledStation)
{
    const auto appendDisabledThenEnabled = [this](QList<RW_VAR>& list) {
        RW_VAR disabled = readOf("a");
        disabled.stationNo = 2;
        list.append(disabled);
        list.append(readOf("b"));
    };
    settings.remoteMode = 1;
    EnCommStation(2, 0);
    for (QList<RW_VAR>* list : {&PLC_driver.writeList, &PLC_driver.onceReadList}) {
        appendDisabledThenEnabled(*list);
        ComCommunication();
        ASSERT_EQ(list->size(), 1) << "the request of the disabled station is deleted";
        EXPECT_EQ(list->first().tagName, QString("b"));
        EXPECT_EQ(calls.back().request, &list->first());
        list->clear();
    }
    appendDisabledThenEnabled(PLC_driver.readList);
    ComCommunication();
    ASSERT_EQ(PLC_driver.readList.size(), 2) << "a cyclic request is rotated";
    EXPECT_EQ(PLC_driver.readList.first().tagName, QString("b"));
    EXPECT_EQ(calls.back().request, &PLC_driver.readList.first());
    EXPECT_EQ(calls.size(), 3u);
}

TEST_F(RemoteHooks, AreNotCalledWhenEveryStationIsDisabled)
{
    settings.remoteMode = 1;
    EnCommStation(1, 0);
    PLC_driver.writeList.append(readOf("a"));
    PLC_driver.onceReadList.append(readOf("b"));
    PLC_driver.readList.append(readOf("c"));
    for (int call = 0; call < 3; ++call)
        EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_EQ(PLC_driver.readList.size(), 1);
}

TEST_F(RemoteHooks, AreCalledBeforeTheBurstIsCounted)
{
    settings.remoteMode = 1;
    PLC_driver.writeList.append(writeOf("a", "x"));
    ComCommunication();
    PLC_driver.writeList.clear();
    PLC_driver.onceReadList.append(readOf("b"));
    ComCommunication();
    PLC_driver.onceReadList.clear();
    PLC_driver.readList.append(readOf("c"));
    ComCommunication();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].writeBurst, 0);
    EXPECT_EQ(calls[1].onceBurst, 0);
    EXPECT_EQ(calls[2].writeBurst, 1);
    EXPECT_EQ(calls[2].onceBurst, 1);
}

TEST_F(RemoteHooks, AreNotCalledOnALocalLink)
{
    PLC_driver.readList.append(readOf("c"));
    ComCommunication();
    EXPECT_TRUE(calls.empty());
}

TEST_F(LocalAreaHook, ReceivesAWriteAsSentUnlessTheLastTransactionFailed)
{
    confirm("T", 2, 0xC2);
    RW_VAR request = writeOf("T", hex("11 00"));
    WriteRegister(&request);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_STREQ(calls[0].hook, "local");
    EXPECT_EQ(calls[0].request, &request);
    EXPECT_BYTES(calls[0].data, hex("11"));
    EXPECT_EQ(calls[0].queued, 1);

    PLC_driver.errorFlag = true;
    WriteRegister(&request);
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(PLC_driver.sendQueue.size(), 2);
}

TEST_F(LocalAreaHook, IsCalledAfterTheRefreshCallback)
{
    PLC_driver.refreshCallback = [](QList<RW_VAR>*, int, int) { record("refresh", nullptr); };
    RW_VAR request = writeOf("T", hex("01"));
    WriteRegister(&request);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_STREQ(calls[0].hook, "refresh");
    EXPECT_STREQ(calls[1].hook, "local");
}

} // namespace
