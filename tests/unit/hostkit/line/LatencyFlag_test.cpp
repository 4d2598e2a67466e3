#include "LatencyFlag.h"

#include "SerialLine.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/serial.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

using namespace micro850::host;

namespace {

const int kDescriptor = 7;
const int kLow = 1 << 13;   // the flag as the kernel's interface defines it
const int kOther = 1 << 12; // another one

/// A device that refuses the calls that it is told to refuse.
class StandInDevice : public SerialControl
{
public:
    serial_struct settings = {};
    int getError = 0;   ///< of every call
    int setError = 0;   ///< of every call
    int failingGet = 0; ///< the call, counted from 1, that fails with `failingGetError`
    int failingGetError = 0;
    bool ignoresFlag = false; ///< accepts every setting and keeps its own
    bool setsBeforeItFails = false;
    mutable int gets = 0;
    mutable std::vector<serial_struct> sets;

    int get(int descriptor, serial_struct& now) const override
    {
        EXPECT_EQ(descriptor, kDescriptor);
        ++gets;
        if (gets == failingGet)
            return failingGetError;
        if (getError == 0)
            now = settings;
        return getError;
    }
    int set(int descriptor, const serial_struct& wanted) const override
    {
        EXPECT_EQ(descriptor, kDescriptor);
        sets.push_back(wanted);
        if ((setError == 0 || setsBeforeItFails) && !ignoresFlag)
            const_cast<serial_struct&>(settings) = wanted;
        return setError;
    }
    bool isLow() const { return (settings.flags & kLow) != 0; }
};

/// Settings in which every byte differs from zero, without the flag.
serial_struct unlikeZero()
{
    serial_struct settings = {};
    std::memset(&settings, 0x5A, sizeof settings);
    settings.flags = kOther;
    return settings;
}

bool equal(const serial_struct& a, const serial_struct& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

struct Refusal
{
    int error;
    LowLatency meaning;
};

const std::array<Refusal, 9> kRefusals = {{{EPERM, LowLatency::NotAllowed},
                                           {EACCES, LowLatency::NotAllowed},
                                           {ENOTTY, LowLatency::NotOffered},
                                           {EINVAL, LowLatency::NotOffered},
                                           {ENOSYS, LowLatency::NotOffered},
                                           {EOPNOTSUPP, LowLatency::NotOffered},
                                           {EIO, LowLatency::Failed},
                                           {ENODEV, LowLatency::Failed},
                                           {ENXIO, LowLatency::Failed}}};

} // namespace

TEST(LatencyFlag, IsSetAndPutBackWithoutAnyOtherChange)
{
    StandInDevice device;
    device.settings = unlikeZero();
    LatencyFlag flag(device);
    EXPECT_EQ(flag.state(), LowLatency::NotAsked);
    EXPECT_EQ(flag.set(kDescriptor), LowLatency::Set);
    EXPECT_EQ(flag.state(), LowLatency::Set);
    serial_struct wanted = unlikeZero();
    wanted.flags = kOther | kLow;
    EXPECT_TRUE(equal(device.settings, wanted));
    flag.putBack(kDescriptor);
    EXPECT_TRUE(equal(device.settings, unlikeZero()));
    EXPECT_EQ(flag.state(), LowLatency::NotAsked);
    EXPECT_EQ(device.sets.size(), 2u);
}

TEST(LatencyFlag, StaysSetWhereItWasFoundSet)
{
    StandInDevice device;
    device.settings.flags = kLow;
    LatencyFlag flag(device);
    EXPECT_EQ(flag.set(kDescriptor), LowLatency::WasSet);
    flag.putBack(kDescriptor);
    EXPECT_TRUE(device.isLow());
    EXPECT_TRUE(device.sets.empty());
}

TEST(LatencyFlag, IsNoReasonForAnErrorIfItCannotBeRead)
{
    for (const Refusal& refusal : kRefusals) {
        StandInDevice device;
        device.getError = refusal.error;
        LatencyFlag flag(device);
        EXPECT_EQ(flag.set(kDescriptor), refusal.meaning) << refusal.error;
        flag.putBack(kDescriptor);
        EXPECT_TRUE(device.sets.empty()) << refusal.error;
        EXPECT_EQ(device.gets, 1) << refusal.error;
    }
}

TEST(LatencyFlag, IsNoReasonForAnErrorIfItCannotBeSet)
{
    for (const Refusal& refusal : kRefusals) {
        StandInDevice device;
        device.setError = refusal.error;
        LatencyFlag flag(device);
        EXPECT_EQ(flag.set(kDescriptor), refusal.meaning) << refusal.error;
        flag.putBack(kDescriptor);
        EXPECT_EQ(device.sets.size(), 1u) << "nothing to put back after " << refusal.error;
    }
}

TEST(LatencyFlag, IsPutBackOnceWhateverTheDeviceAnswers)
{
    for (const Refusal& refusal : kRefusals) {
        for (const bool atGet : {true, false}) {
            StandInDevice device;
            LatencyFlag flag(device);
            ASSERT_EQ(flag.set(kDescriptor), LowLatency::Set);
            (atGet ? device.getError : device.setError) = refusal.error;
            flag.putBack(kDescriptor);
            EXPECT_EQ(flag.state(), LowLatency::NotAsked);
            EXPECT_EQ(device.sets.size(), atGet ? 1u : 2u) << refusal.error;
            device.getError = device.setError = 0;
            flag.putBack(kDescriptor); // of the device that has the descriptor next
            EXPECT_EQ(device.sets.size(), atGet ? 1u : 2u) << refusal.error;
        }
    }
}

TEST(LatencyFlag, IsNotOfferedByADriverThatAcceptsAndIgnoresIt)
{
    StandInDevice device;
    device.ignoresFlag = true;
    LatencyFlag flag(device);
    EXPECT_EQ(flag.set(kDescriptor), LowLatency::NotOffered);
    flag.putBack(kDescriptor);
    EXPECT_EQ(device.sets.size(), 1u);
}

TEST(LatencyFlag, IsPutBackAlsoWhereTheDriverNotesItAndThenFails)
{
    StandInDevice device;
    device.setError = EIO;
    device.setsBeforeItFails = true;
    LatencyFlag flag(device);
    EXPECT_EQ(flag.set(kDescriptor), LowLatency::Failed);
    ASSERT_TRUE(device.isLow());
    device.setError = 0;
    flag.putBack(kDescriptor);
    EXPECT_FALSE(device.isLow());
}

TEST(LatencyFlag, IsPutBackAlsoWhereItCouldNotBeReadAgain)
{
    StandInDevice device;
    device.failingGet = 2;
    device.failingGetError = EIO;
    LatencyFlag flag(device);
    EXPECT_EQ(flag.set(kDescriptor), LowLatency::Failed);
    ASSERT_TRUE(device.isLow());
    flag.putBack(kDescriptor);
    EXPECT_FALSE(device.isLow());
}

TEST(LatencyFlag, LeavesWhatAnotherProgramHasChangedSince)
{
    StandInDevice device;
    LatencyFlag flag(device);
    ASSERT_EQ(flag.set(kDescriptor), LowLatency::Set);
    device.settings.closing_wait = 1234;
    device.settings.flags |= kOther;
    flag.putBack(kDescriptor);
    EXPECT_EQ(device.settings.closing_wait, 1234);
    EXPECT_EQ(device.settings.flags, kOther);

    ASSERT_EQ(flag.set(kDescriptor), LowLatency::Set);
    device.settings.flags = 0; // the other program has cleared it
    const std::size_t sets = device.sets.size();
    flag.putBack(kDescriptor);
    EXPECT_EQ(device.sets.size(), sets);
}

TEST(LatencyFlag, IsAskedForAnewByEachOpening)
{
    StandInDevice device;
    LatencyFlag flag(device);
    ASSERT_EQ(flag.set(kDescriptor), LowLatency::Set);
    device.getError = ENODEV; // the cable is pulled
    flag.putBack(kDescriptor);
    device.getError = 0;
    device.settings.flags = kLow; // another adapter, set by a rule of the system
    EXPECT_EQ(flag.set(kDescriptor), LowLatency::WasSet);
    flag.putBack(kDescriptor);
    EXPECT_TRUE(device.isLow());
}

TEST(SystemSerialControl, IsRefusedByAPseudoTerminalWhichStaysAsItIs)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const int port = ::open(ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(port, 0);
    termios before = {};
    ASSERT_EQ(tcgetattr(port, &before), 0);
    serial_struct settings = {};
    EXPECT_EQ(systemSerialControl().get(port, settings), ENOTTY);
    EXPECT_EQ(systemSerialControl().set(port, settings), ENOTTY);
    LatencyFlag flag;
    EXPECT_EQ(flag.set(port), LowLatency::NotOffered);
    flag.putBack(port);
    termios after = {};
    ASSERT_EQ(tcgetattr(port, &after), 0);
    EXPECT_EQ(before.c_iflag, after.c_iflag);
    EXPECT_EQ(before.c_oflag, after.c_oflag);
    EXPECT_EQ(before.c_cflag, after.c_cflag);
    EXPECT_EQ(before.c_lflag, after.c_lflag);
    ::close(port);
    EXPECT_EQ(systemSerialControl().get(port, settings), EBADF);
    ::close(master);
}
