// The driver's hook for local areas is empty, and the library calls it without the loader's help.
// So this program has the driver's files in it, with a hook of its own in place of the empty one.

#include "driver_fixture.h"

using wire::hex;

namespace {

struct Call
{
    std::string fields; ///< of the request
    int queuedWrites;
    bool locksAreFree;
};
std::vector<Call> calls;
bool locksAreFree();

} // namespace

void WriteDataToLocal(RW_VAR* request)
{
    calls.push_back({fieldsOf(*request), PLC_driver.writeList.size(), locksAreFree()});
}

namespace {

bool locksAreFree()
{
    bool free = true;
    for (QMutex* mutex : {&PLC_driver.listMutex, &PLC_driver.dataMutex, &PLC_driver.stationMutex}) {
        const bool taken = mutex->tryLock();
        if (taken)
            mutex->unlock();
        free = free && taken;
    }
    return free;
}

class LocalAreaHook : public DriverTest
{
protected:
    LocalAreaHook()
    {
        calls.clear();
        declareIndexed("T");
    }
    /// The host writes element 17 of tag T.
    static int setValue() { return SetRegisterData("T", 18, "17", 1, hex("01 02"), 1, 11, 12); }
    /// The request that the driver makes of it.
    RW_VAR completedWrite()
    {
        RW_VAR request = writeOf("T", hex("01 02"), 17);
        request.varType = 11;
        request.varIndex = 12;
        request.hostField3 = settings.remoteMode;
        request.retValue = 0;
        request.areaType = 18;
        return request;
    }
};

TEST_F(LocalAreaHook, ReceivesAWriteOfTheHostThatIsQueuedOnlyWhileTheLastTransactionFailed)
{
    for (const bool failed : {true, false, true, false}) {
        PLC_driver.errorFlag = failed;
        PLC_driver.writeList.clear();
        calls.clear();
        EXPECT_EQ(setValue(), 1);
        ASSERT_EQ(calls.size(), failed ? 1u : 0u);
        ASSERT_EQ(PLC_driver.writeList.size(), 1);
        EXPECT_EQ(fieldsOf(PLC_driver.writeList.first()), fieldsOf(completedWrite()));
        EXPECT_EQ(PLC_driver.errorFlag, failed);
        for (const Call& call : calls)
            EXPECT_EQ(call.fields, fieldsOf(completedWrite()));
    }
}

TEST_F(LocalAreaHook, IsCalledAfterTheWriteOfTheHostIsQueuedAndTheListLockIsFree)
{
    PLC_driver.errorFlag = true;
    for (int length = 1; length <= 2; ++length) {
        EXPECT_EQ(setValue(), length);
        EXPECT_EQ(calls.back().queuedWrites, length);
        EXPECT_TRUE(calls.back().locksAreFree);
    }
}

TEST_F(LocalAreaHook, ReceivesAWriteThatReplacesAnotherOrIsDropped)
{
    PLC_driver.errorFlag = true;
    setValue();
    setValue();
    EXPECT_EQ(setValue(), 2) << "replaces the second one";
    EXPECT_EQ(calls.size(), 3u);
    PLC_driver.writeList.clear();
    for (int i = 0; i < 1024; ++i)
        PLC_driver.writeList.append(writeOf("other", "y", i));
    EXPECT_EQ(setValue(), 1024) << "dropped: the list is full";
    EXPECT_EQ(calls.size(), 4u);
}

TEST_F(LocalAreaHook, ReceivesEveryWriteOfTheHostThatIsNotQueued)
{
    for (int mode : {0, 1, 3, -2}) {
        for (const bool failed : {false, true}) {
            settings.writeMode = mode;
            PLC_driver.errorFlag = failed;
            calls.clear();
            EXPECT_EQ(setValue(), 1);
            ASSERT_EQ(calls.size(), 1u) << mode << ' ' << failed;
            EXPECT_EQ(calls[0].fields, fieldsOf(completedWrite()));
            EXPECT_TRUE(PLC_driver.writeList.isEmpty());
        }
    }
    SetComInfo(nullptr);
    calls.clear();
    EXPECT_EQ(setValue(), 1);
    EXPECT_TRUE(calls.empty()) << "without settings";
}

} // namespace
