#include "ProcessNumbers.h"

#include <QtCore/QDateTime>
#include <QtCore/QFile>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using micro850::gateway::processNumbers;

namespace {

// "VmRSS:   1234 kB" of /proc/self/status.
double statusBytes(const char* key)
{
    QFile file(QStringLiteral("/proc/self/status"));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (line.startsWith(key))
            return 1024 * line.simplified().split(' ').at(1).toDouble();
    }
    return -1;
}

} // namespace

TEST(ProcessNumbers, AreThoseThatTheSystemTellsElsewhere)
{
    const auto numbers = processNumbers();
    EXPECT_NEAR(numbers.residentBytes, statusBytes("VmRSS:"), 4e6);
    EXPECT_NEAR(numbers.virtualBytes, statusBytes("VmSize:"), 4e6);
    const double now = double(QDateTime::currentMSecsSinceEpoch()) / 1000;
    EXPECT_LT(numbers.startedAt, now + 2); // the start of the system is told in seconds
    EXPECT_GT(numbers.startedAt, now - 600);
    rlimit limit = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_cur == RLIM_INFINITY)
        EXPECT_FALSE(numbers.mostDescriptors);
    else
        EXPECT_EQ(numbers.mostDescriptors, double(limit.rlim_cur));
}

TEST(ProcessNumbers, CountDescriptorsThatAreOpen)
{
    const double before = processNumbers().openDescriptors;
    const int opened = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(processNumbers().openDescriptors, before + 1);
    ::close(opened);
    EXPECT_EQ(processNumbers().openDescriptors, before);
}

TEST(ProcessNumbers, CountTheTimeOfTheProcessor)
{
    const double before = processNumbers().processorSeconds;
    timespec now = {};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    const auto until = now.tv_sec * 1000000000 + now.tv_nsec + 50000000;
    while (now.tv_sec * 1000000000 + now.tv_nsec < until)
        ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    const double used = processNumbers().processorSeconds - before;
    EXPECT_GE(used, 0.03);
    EXPECT_LT(used, 60);
}
