// The poll pair on one thread and host threads that call everything else meanwhile. Each test is
// bounded by a number of operations and guarded by a watchdog; ThreadSanitizer's build shows the
// races that did not happen to go wrong.

#include "driver_fixture.h"
#include "memory_controller.h"
#include "watchdog.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <atomic>
#include <climits>
#include <functional>
#include <set>
#include <thread>

namespace {

const std::chrono::seconds kLimit(240);

// ---- What the callbacks see

const int kVariables = 64;
const int kOtherStation = 9;
// Completions by the host's number of the variable; read by the threads that wait for theirs.
std::atomic<int> done[kVariables];
std::function<void(int varIndex)> onDone;

void noteFinished(int, int, int varIndex, int status)
{
    QByteArray out;
    GetRegisterData("Total0", 0, "0", 1, out, 4);
    if (status == 1 && onDone)
        onDone(varIndex);
    if (varIndex >= 0 && varIndex < kVariables)
        ++done[varIndex];
}

// A pattern whose halves match, so that a value put together from two writes shows.
QByteArray pattern(quint32 number)
{
    return wire::little(number, 4) + wire::little(number, 4);
}

quint32 numberOf(const QByteArray& bytes)
{
    quint32 value = 0;
    for (int i = 3; i >= 0; --i)
        value = value << 8 | static_cast<quint8>(bytes.at(i));
    return value;
}

bool isPattern(const QByteArray& bytes)
{
    return bytes.size() == 8 && bytes.left(4) == bytes.right(4);
}

class ThreadsTest : public DriverTest
{
protected:
    ThreadsTest() : m_watchdog(kLimit)
    {
        for (auto& count : done)
            count = 0;
        onDone = nullptr;
        RegistCallBackFuncIntf(noteFinished, [](QList<RW_VAR>*, int, int) {});
        // Replies get lost below; no request may be given up for that.
        settings.retryLimit = INT_MAX;
    }

    /// A 64-bit tag, known to the controller and declared to the driver.
    static QByteArray total(int number) { return "Total" + QByteArray::number(number); }

    void defineTotals(int tags)
    {
        for (int i = 0; i < tags; ++i) {
            controller.define(total(i), "LINT");
            elsewhere.define(total(i), "LINT");
            declareIndexed(total(i).constData());
        }
    }

    RW_VAR totalRequest(int tag, int varIndex)
    {
        RW_VAR request = readOf(total(tag).constData(), 0, 4);
        request.varIndex = varIndex;
        // A write replaces a queued one to the same area and element, whatever its name.
        request.areaType = 100 + tag;
        return request;
    }

    QList<HOSTVAR> totalsOnScreen(int tags)
    {
        QList<HOSTVAR> variables;
        for (int i = 0; i < tags; ++i) {
            HOSTVAR variable = HOSTVAR();
            variable.tagName = QString::fromLatin1(total(i));
            variable.addressText = "0";
            variable.count = 4;
            variables.append(variable);
        }
        return variables;
    }

    /// One transaction as a host makes it; false when there was nothing to send. Every 13th reply
    /// is lost.
    bool transact()
    {
        Protocol* next = ComCommunication();
        if (!next)
            return false;
        const bool varies = next->replyLength == -1;
        MemoryController& addressed = next->var.stationNo == kOtherStation ? elsewhere : controller;
        QByteArray reply = addressed.exchange(next->frame);
        if (++m_transactions % 13 == 0)
            reply.clear();
        const int length = varies ? reply.size() : next->replyLength;
        DataCom(&reply, length);
        if (varies && !reply.isEmpty())
            DataCom(&reply, length);
        return true;
    }

    /// Polls until every thread has ended and nothing is left to send but cyclic reads.
    void pollUntilEnd(std::vector<std::thread>& threads)
    {
        std::atomic<bool> running(true);
        std::thread join([&] {
            for (std::thread& thread : threads)
                thread.join();
            running = false;
        });
        while (running)
            transact();
        join.join();
        drain();
    }

    void drain()
    {
        QList<HOSTVAR> none;
        ReCreatReadVarList(&none);
        // One idle call can stand between two bursts.
        for (int idle = 0; idle < 2;)
            idle = transact() ? 0 : idle + 1;
    }

    /// Waits for the completion of the `wanted`th request of a variable.
    static void awaitDone(int varIndex, int wanted)
    {
        while (done[varIndex] < wanted)
            std::this_thread::yield();
    }

    MemoryController controller;
    /// The controller of station kOtherStation.
    MemoryController elsewhere;

private:
    Watchdog m_watchdog;
    int m_transactions = 0;
};

// ---- Everything at once

/// What one writer has handed over and what has been acknowledged of it.
struct Written
{
    std::atomic<quint32> last{0};
    quint32 acknowledged = 0;
};

TEST_F(ThreadsTest, EveryAcknowledgedWriteIsInTheControllerAndNoValueIsTorn)
{
    const int kTags = 4;
    const quint32 kWrites = 400;
    const int kCalls = 1500;
    defineTotals(kTags);
    QList<HOSTVAR> screen = totalsOnScreen(kTags);
    ReCreatReadVarList(&screen);
    Written written[kTags];
    std::atomic<int> torn(0), backwards(0), lost(0);

    // On the poll thread, which is the only one that touches the controller.
    onDone = [&](int varIndex) {
        if (varIndex >= kTags)
            return;
        Written& own = written[varIndex];
        const quint32 present = numberOf(controller.value(total(varIndex)));
        if (present < own.acknowledged || present > own.last)
            ++lost;
        own.acknowledged = present;
    };
    const auto setter = [&](int tag) {
        for (quint32 i = 1; i <= kWrites; ++i) {
            written[tag].last = i;
            SetRegisterData(QString::fromLatin1(total(tag)), 100 + tag, "0", 1, pattern(i), 4, 3,
                            tag);
        }
    };
    const auto appender = [&](int tag, int mode) {
        for (quint32 i = 1; i <= kWrites / 4; ++i) {
            RW_VAR write = totalRequest(tag, tag);
            write.accessMode = 1;
            write.onceFlag = 2;
            write.data = pattern(i);
            written[tag].last = i;
            AddListWriteVar(&write, mode);
            awaitDone(tag, static_cast<int>(i));
        }
    };
    const auto getter = [&] {
        quint32 seen[kTags] = {};
        for (int i = 0; i < kCalls; ++i) {
            QByteArray out;
            const int tag = i % kTags;
            if (GetRegisterData(QString::fromLatin1(total(tag)), 0, "0", 1, out, 4) == 0)
                continue;
            torn += !isPattern(out);
            backwards += numberOf(out) < seen[tag];
            seen[tag] = numberOf(out);
        }
    };
    const auto oneShots = [&] {
        for (int i = 0; i < kCalls / 8; ++i) {
            RW_VAR request = totalRequest(i % kTags, 20);
            AddListOnceReadVar(&request, 0);
            RW_VAR unchanged = totalRequest(i % kTags, 21);
            unchanged.onceFlag = 1;
            AddListOnceReadVar(&unchanged, 1);
            awaitDone(21, i + 1);
        }
    };
    const auto cyclicLists = [&] {
        for (int i = 0; i < kCalls; ++i) {
            RW_VAR request = totalRequest(i % kTags, 22);
            AddListReadVar(&request);
            if (i % 5 == 0)
                ReCreatReadVarList(&screen);
        }
    };
    const auto catalogueAndStations = [&] {
        for (int i = 0; i < kCalls; ++i) {
            declareIndexed(("Later" + QByteArray::number(i % 100)).constData());
            EnCommStation(kOtherStation, i % 2);
            QByteArray out;
            GetRegisterData(QString("Later%1").arg(i % 100), 0, "3", kOtherStation, out, 1);
            RW_VAR ofOther = totalRequest(0, 23);
            ofOther.stationNo = kOtherStation;
            AddListReadVar(&ofOther);
        }
        EnCommStation(-1, 1);
    };

    std::vector<std::thread> threads;
    threads.emplace_back(setter, 0);
    threads.emplace_back(setter, 1);
    threads.emplace_back(appender, 2, 1);
    threads.emplace_back(appender, 3, 0);
    threads.emplace_back(getter);
    threads.emplace_back(getter);
    threads.emplace_back(oneShots);
    threads.emplace_back(cyclicLists);
    threads.emplace_back(catalogueAndStations);
    pollUntilEnd(threads);

    EXPECT_EQ(torn, 0);
    EXPECT_EQ(backwards, 0);
    EXPECT_EQ(lost, 0);
    for (int tag = 0; tag < kTags; ++tag) {
        EXPECT_EQ(wire::text(controller.value(total(tag))), wire::text(pattern(written[tag].last)));
        EXPECT_GT(done[tag], 0);
    }
}

// ---- The counts that list operations return

// The lengths 1 to n, each told exactly once, in whatever order the threads came.
void expectEachLengthOnce(const std::vector<std::vector<int>>& told, int total)
{
    std::multiset<int> all;
    for (const auto& ofOneThread : told)
        all.insert(ofOneThread.begin(), ofOneThread.end());
    EXPECT_EQ(static_cast<int>(all.size()), total);
    for (int length = 1; length <= total; ++length)
        EXPECT_EQ(all.count(length), 1u) << "length " << length;
}

std::vector<std::vector<int>> lengthsTold(const std::function<int(int thread, int i)>& operation,
                                          int threads, int operations)
{
    std::vector<std::vector<int>> told(static_cast<std::size_t>(threads));
    std::vector<std::thread> running;
    for (int thread = 0; thread < threads; ++thread) {
        running.emplace_back([&, thread] {
            for (int i = 0; i < operations; ++i)
                told[static_cast<std::size_t>(thread)].push_back(operation(thread, i));
        });
    }
    for (std::thread& thread : running)
        thread.join();
    return told;
}

TEST_F(ThreadsTest, AddListReadVarTellsTheLengthAtTheTimeOfTheCall)
{
    const auto told = lengthsTold(
        [&](int, int) {
            RW_VAR request = readOf("Speed");
            return AddListReadVar(&request);
        },
        4, 500);
    expectEachLengthOnce(told, 2000);
}

TEST_F(ThreadsTest, AddListWriteVarTellsTheLengthAtTheTimeOfTheCall)
{
    const auto told = lengthsTold(
        [&](int, int) {
            RW_VAR request = writeOf("Speed", wire::hex("01 00"));
            return AddListWriteVar(&request, 1);
        },
        4, 500);
    expectEachLengthOnce(told, 2000);
}

TEST_F(ThreadsTest, AddListOnceReadVarTellsTheLengthAtTheTimeOfTheCallInBothModes)
{
    const auto told = lengthsTold(
        [&](int thread, int i) {
            RW_VAR request = readOf("Speed");
            request.varIndex = thread * 1000 + i; // so that none is queued already
            return AddListOnceReadVar(&request, thread % 2);
        },
        4, 200);
    expectEachLengthOnce(told, 800);
}

// ---- The tag store

TEST_F(ThreadsTest, SeedingAndConfirmingATagAreOneStepEach)
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

TEST_F(ThreadsTest, NamesMayBeDeclaredWhileOthersAreLookedUp)
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

// ---- A caller's own lock

TEST_F(ThreadsTest, AHolderOfListMutexGetsThroughTheListsThatTakeNone)
{
    QMutexLocker lock(&PLC_driver.listMutex);
    RW_VAR request = readOf("Speed");
    EXPECT_EQ(AddListReadVar(&request), 1);
    EXPECT_EQ(AddListOnceReadVar(&request, 0), 1);
    QByteArray out;
    EXPECT_EQ(GetRegisterData("Speed", 0, "0", 1, out, 1), 0);
    EXPECT_FALSE(PLC_driver.listMutex.tryLock()) << "the caller's lock was given away";
}

TEST_F(ThreadsTest, AWaitingHolderOfListMutexDoesNotKeepGetRegisterDataFromAnotherThread)
{
    QMutexLocker lock(&PLC_driver.listMutex);
    std::thread other([] {
        QByteArray out;
        GetRegisterData("Speed", 0, "0", 1, out, 1);
    });
    other.join(); // ends although the lock is held
}

// ---- The debug log

TEST_F(ThreadsTest, LinesLoggedByTwoThreadsAllStandInTheFileThatTheFirstCallEmptied)
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
