// Lines on real pseudo-terminals, with a stand-in for the calls that these refuse.

#include "SerialLine.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <linux/serial.h>
#include <memory>
#include <unistd.h>

using namespace micro850::host;

namespace {

const int kLow = 1 << 13; // the flag as the kernel's interface defines it

class StandInDevice : public SerialControl
{
public:
    mutable serial_struct settings = {};
    mutable int calls = 0;

    int get(int descriptor, serial_struct& now) const override
    {
        EXPECT_GE(::fcntl(descriptor, F_GETFD), 0) << "the line is closed";
        ++calls;
        now = settings;
        return 0;
    }
    int set(int descriptor, const serial_struct& wanted) const override
    {
        EXPECT_GE(::fcntl(descriptor, F_GETFD), 0) << "the line is closed";
        ++calls;
        settings = wanted;
        return 0;
    }
    bool isLow() const { return (settings.flags & kLow) != 0; }
};

class SerialLines : public ::testing::Test
{
protected:
    SerialLines() : m_master(posix_openpt(O_RDWR | O_NOCTTY))
    {
        EXPECT_GE(m_master, 0);
        EXPECT_EQ(grantpt(m_master), 0);
        EXPECT_EQ(unlockpt(m_master), 0);
        m_settings.device = QString::fromLocal8Bit(ptsname(m_master));
    }
    ~SerialLines() override { ::close(m_master); }

    PortSettings m_settings;
    StandInDevice m_device;
    QString m_error;

private:
    int m_master;
};

} // namespace

TEST_F(SerialLines, HaveLowLatencyFromOpeningToClosing)
{
    SerialLine line(m_settings, m_device);
    EXPECT_EQ(line.lowLatency(), LowLatency::NotAsked);
    EXPECT_EQ(m_device.calls, 0);
    ASSERT_TRUE(line.open(m_error)) << m_error.toStdString();
    EXPECT_TRUE(m_device.isLow());
    EXPECT_EQ(line.lowLatency(), LowLatency::Set);
    line.close();
    EXPECT_FALSE(m_device.isLow());
    EXPECT_EQ(line.lowLatency(), LowLatency::NotAsked);
    const int calls = m_device.calls;
    line.close();
    EXPECT_EQ(m_device.calls, calls);
}

TEST_F(SerialLines, PutItBackWhenTheyAreDestroyedOrOpenedAgain)
{
    {
        SerialLine line(m_settings, m_device);
        ASSERT_TRUE(line.open(m_error)) << m_error.toStdString();
        ASSERT_TRUE(line.open(m_error)) << m_error.toStdString();
        EXPECT_TRUE(m_device.isLow());
        EXPECT_EQ(line.lowLatency(), LowLatency::Set) << "the first opening's was put back";
    }
    EXPECT_FALSE(m_device.isLow());
}

TEST_F(SerialLines, LeaveTheDeviceAloneIfTheUserWantsThat)
{
    m_settings.lowLatency = false;
    SerialLine line(m_settings, m_device);
    ASSERT_TRUE(line.open(m_error)) << m_error.toStdString();
    line.close();
    EXPECT_EQ(m_device.calls, 0);
}

TEST_F(SerialLines, LeaveADeviceAloneThatCannotBeOpened)
{
    m_settings.device = QStringLiteral("/dev/none-of-this-name");
    SerialLine line(m_settings, m_device);
    EXPECT_FALSE(line.open(m_error));
    line.close();
    EXPECT_EQ(m_device.calls, 0);
}

// Two programs on one port: the port itself refuses the second one, or it refuses nobody, as for
// the superuser.
TEST_F(SerialLines, ThatAreRefusedDoNotTouchTheLineThatIsOpen)
{
    SerialLine first(m_settings, m_device);
    ASSERT_TRUE(first.open(m_error)) << m_error.toStdString();
    const int calls = m_device.calls;
    {
        SerialLine second(m_settings, m_device);
        if (second.open(m_error)) {
            EXPECT_EQ(second.lowLatency(), LowLatency::WasSet);
        } else {
            EXPECT_EQ(m_device.calls, calls);
        }
    }
    EXPECT_TRUE(m_device.isLow());
    EXPECT_EQ(first.lowLatency(), LowLatency::Set);
}

TEST_F(SerialLines, OpenOnAPseudoTerminalWithoutLowLatency)
{
    SerialLine line(m_settings);
    ASSERT_TRUE(line.open(m_error)) << m_error.toStdString();
    EXPECT_EQ(line.lowLatency(), LowLatency::NotOffered);
    line.close();
    EXPECT_EQ(line.lowLatency(), LowLatency::NotAsked);
}
