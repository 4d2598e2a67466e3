#include "driver_fixture.h"
#include "lock_witness.h"

namespace {

class RemoteHandlers : public DriverTest
{
protected:
    void expectNothingHappened()
    {
        EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
        EXPECT_TRUE(PLC_driver.readList.isEmpty());
        EXPECT_TRUE(PLC_driver.writeList.isEmpty());
        EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
        EXPECT_TRUE(PLCDataStorage.isEmpty());
        EXPECT_TRUE(finished.empty());
        EXPECT_TRUE(refreshed.empty());
        EXPECT_EQ(settings.frameCount, 0);
        EXPECT_EQ(settings.framesAnswered, 0);
    }
};

void expectUnchanged(const RW_VAR& request, const RW_VAR& before)
{
    EXPECT_EQ(fieldsOf(request), fieldsOf(before));
}

TEST_F(RemoteHandlers, ReadNothing)
{
    RW_VAR request = distinctRequest("Speed");
    const RW_VAR before = request;
    LockWitness witness;
    Remote_ReadVar(&request);
    Remote_ReadVar(nullptr);
    EXPECT_TRUE(witness.locked().empty());
    expectUnchanged(request, before);
    expectNothingHappened();
}

TEST_F(RemoteHandlers, WriteNothing)
{
    RW_VAR request = distinctRequest("Speed");
    const RW_VAR before = request;
    LockWitness witness;
    Remote_WriteVar(&request);
    Remote_WriteVar(nullptr);
    EXPECT_TRUE(witness.locked().empty());
    expectUnchanged(request, before);
    expectNothingHappened();
}

} // namespace
