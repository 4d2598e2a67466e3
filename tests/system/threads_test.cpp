// The poll pair on one thread while host threads call everything else. Each test has a fixed number
// of operations and a watchdog. The build with ThreadSanitizer also finds races that caused no
// damage.

#include "threads_fixture.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <set>

namespace {

// ---- The lengths that list operations return

// The lengths 1 to n must each be returned exactly once, in any order of the threads.
void expectEachLengthOnce(const std::vector<std::vector<int>>& lengths, int total)
{
    std::multiset<int> all;
    for (const auto& ofOneThread : lengths)
        all.insert(ofOneThread.begin(), ofOneThread.end());
    EXPECT_EQ(static_cast<int>(all.size()), total);
    for (int length = 1; length <= total; ++length)
        EXPECT_EQ(all.count(length), 1u) << "length " << length;
}

std::vector<std::vector<int>>
lengthsReturned(const std::function<int(int thread, int i)>& operation, int threads, int operations)
{
    std::vector<std::vector<int>> lengths(static_cast<std::size_t>(threads));
    std::vector<std::thread> running;
    for (int thread = 0; thread < threads; ++thread) {
        running.emplace_back([&, thread] {
            for (int i = 0; i < operations; ++i)
                lengths[static_cast<std::size_t>(thread)].push_back(operation(thread, i));
        });
    }
    for (std::thread& thread : running)
        thread.join();
    return lengths;
}

TEST_F(ThreadsTest, AddListReadVarReturnsTheLengthAtTheTimeOfTheCall)
{
    const auto lengths = lengthsReturned(
        [&](int, int) {
            RW_VAR request = readOf("Speed");
            return AddListReadVar(&request);
        },
        4, 500);
    expectEachLengthOnce(lengths, 2000);
}

TEST_F(ThreadsTest, AddListWriteVarReturnsTheLengthAtTheTimeOfTheCall)
{
    const auto lengths = lengthsReturned(
        [&](int, int) {
            RW_VAR request = writeOf("Speed", wire::hex("01 00"));
            return AddListWriteVar(&request, 1);
        },
        4, 500);
    expectEachLengthOnce(lengths, 2000);
}

TEST_F(ThreadsTest, AddListOnceReadVarReturnsTheLengthAtTheTimeOfTheCallInBothModes)
{
    const auto lengths = lengthsReturned(
        [&](int thread, int i) {
            RW_VAR request = readOf("Speed");
            request.varIndex = thread * 1000 + i; // so that each request is new
            return AddListOnceReadVar(&request, thread % 2);
        },
        4, 200);
    expectEachLengthOnce(lengths, 800);
}

// ---- The tag store

TEST_F(ThreadsTest, SeedingAndConfirmingATagAreAtomic)
{
    const int kNames = 300;
    const auto name = [](int i) { return "Tag" + QByteArray::number(i); };
    for (int i = 0; i < kNames; ++i)
        controller.define(name(i), "INT");
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < kNames; ++i) {
                RW_VAR request = readOf(name(i).constData());
                for (int again = 0; again < 4; ++again)
                    updateRwVar(&request);
            }
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; i < kNames; ++i) {
            RW_VAR request = readOf(name(i).constData());
            AddListOnceReadVar(&request, 1);
        }
    });
    pollUntilEnd(threads);

    for (int i = 0; i < kNames; ++i) {
        EXPECT_BYTES(PLCDataStorage[1].tagInfo[QString::fromLatin1(name(i))],
                     wire::hex("03 C3 00 FF"))
            << name(i).constData();
    }
}

TEST_F(ThreadsTest, NamesCanBeDeclaredWhileOthersAreLookedUp)
{
    const int kNames = 400;
    std::atomic<int> missing(0);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < kNames; ++i) {
                const QByteArray name = QByteArray::number(thread) + "_" + QByteArray::number(i);
                declareIndexed(name.constData());
                missing += !getPassVarName(QString::fromLatin1(name));
                RW_VAR request = readOf(name.constData(), 7);
                updateRwVar(&request);
                missing += request.startAddress != 7;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(plcAddList.size(), 3 * kNames);
}

// ---- A lock that the caller holds

TEST_F(ThreadsTest, TheHolderOfListMutexCanCallListFunctionsThatDoNotTakeIt)
{
    QMutexLocker lock(&PLC_driver.listMutex);
    RW_VAR request = readOf("Speed");
    EXPECT_EQ(AddListReadVar(&request), 1);
    EXPECT_EQ(AddListOnceReadVar(&request, 0), 1);
    QByteArray out;
    EXPECT_EQ(GetRegisterData("Speed", 0, "0", 1, out, 1), 0);
    EXPECT_FALSE(PLC_driver.listMutex.tryLock()) << "the caller's lock was released";
}

TEST_F(ThreadsTest, GetRegisterDataDoesNotWaitForAnotherThreadThatHoldsListMutex)
{
    QMutexLocker lock(&PLC_driver.listMutex);
    std::thread other([] {
        QByteArray out;
        GetRegisterData("Speed", 0, "0", 1, out, 1);
    });
    other.join(); // ends although the lock is held
}

// ---- The debug log

TEST_F(ThreadsTest, TheLogHasAllLinesOfTwoThreadsAndNoneOfAnEarlierRun)
{
    const int kLines = 200;
    QTemporaryDir directory;
    const QString before = QDir::currentPath();
    QDir::setCurrent(directory.path());
    {
        QFile old("debug.log");
        ASSERT_TRUE(old.open(QIODevice::WriteOnly));
        old.write("of an earlier run\n");
    }
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 2; ++thread) {
        threads.emplace_back([=] {
            for (int i = 0; i < kLines; ++i)
                customMessageHandler(
                    QtDebugMsg,
                    (QByteArray::number(thread) + "/" + QByteArray::number(i)).constData());
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    QFile log("debug.log");
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QList<QByteArray> lines = log.readAll().split('\n');
    QDir::setCurrent(before);
    EXPECT_EQ(lines.size(), 2 * kLines + 1);
    int next[2] = {0, 0};
    for (const QByteArray& line : lines.mid(0, lines.size() - 1)) {
        const QList<QByteArray> message = line.mid(line.lastIndexOf(':') + 1).split('/');
        ASSERT_EQ(message.size(), 2) << line.constData();
        const int thread = message.at(0).toInt();
        EXPECT_EQ(message.at(1).toInt(), next[thread]++) << line.constData();
    }
}

} // namespace
