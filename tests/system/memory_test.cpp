// The driver's memory over a long session: nothing of a finished transaction stays. Set
// MICRO850_TRANSACTIONS for a session that is longer than ctest has time for.

#include "driver_fixture.h"
#include "simulated_controller.h"

#include <cstdlib>
#include <malloc.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

const int kStations = 3;
const int kTags = 12;
// The host repeats its actions after this number of steps. Most steps have a transaction.
const int kRound = 2000;
const qint64 kShortSession = 200000;
// Far less than one block for every hundred transactions of the short session.
const qint64 kTolerance = 32 * 1024;

qint64 bytesInUse()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return static_cast<qint64>(__sanitizer_get_current_allocated_bytes());
#else
    return static_cast<qint64>(mallinfo2().uordblks);
#endif
}

qint64 wantedTransactions()
{
    const QByteArray wanted = qgetenv("MICRO850_TRANSACTIONS");
    return wanted.isEmpty() ? kShortSession : wanted.toLongLong();
}

class MemoryTest : public DriverTest
{
protected:
    MemoryTest()
    {
        static const char* types[] = {"BOOL", "SINT", "INT",  "DINT",
                                      "LINT", "REAL", "WORD", "SHORT_STRING"};
        for (SimulatedController& controller : controllers) {
            for (int i = 0; i < kTags; ++i)
                controller.define(tag(i), types[i % 8]);
        }
        for (int i = 0; i < kTags; i += 2)
            declareIndexed(tag(i).constData());
        rebuildCyclic(kTags);
    }

    static QByteArray tag(int number) { return "Tag" + QByteArray::number(number); }

    // The default station has the host's list; the others are added one by one.
    void rebuildCyclic(int tags)
    {
        QList<HOSTVAR> variables;
        for (int i = 0; i < tags; ++i)
            variables.append(hostVar(tag(i).constData(), "0", 1));
        ReCreatReadVarList(&variables);
        for (int i = 0; i < 2 * tags; ++i) {
            RW_VAR read = readOf(tag(i / 2).constData());
            read.stationNo = 2 + i % 2;
            AddListReadVar(&read);
        }
    }

    // What the host does between transactions; the same in every round.
    void act(int step)
    {
        const QByteArray name = tag(step % kTags);
        const QString text = QString::fromLatin1(name);
        const int station = 1 + step % kStations;
        if (step % 5 == 0) {
            RW_VAR write = writeOf(name.constData(), QByteArray(1 + step % 8, '\x10'));
            write.stationNo = station;
            AddListWriteVar(&write, 0);
        }
        if (step % 7 == 0) {
            RW_VAR read = readOf(name.constData());
            read.stationNo = station;
            AddListOnceReadVar(&read, step % 2);
        }
        if (step % 11 == 0)
            SetRegisterData(text, 0, "0", station, QByteArray(2, '\x01'), 1, 0, 0);
        if (step % 500 == 0)
            rebuildCyclic(step % 1000 == 0 ? kTags : kTags / 2);
        if (step == 700 || step == 1300)
            EnCommStation(2, step == 1300);
        QByteArray out;
        GetRegisterData(text, 0, "0", station, out, 4);
    }

    // One transaction. Some replies are lost or damaged.
    void transact(int step)
    {
        Protocol* next = ComCommunication();
        if (!next)
            return;
        ++transactions;
        const bool varies = next->replyLength == -1;
        // Let time pass so that connections that the driver gave up expire in the controller.
        for (SimulatedController& controller : controllers)
            controller.advance(std::chrono::milliseconds(20));
        QByteArray reply = controllers[next->var.stationNo - 1].exchange(next->frame);
        if (step % 97 == 0 || step % 1000 < 12)
            reply.clear();
        if (step % 89 == 0 && reply.size() > 20)
            reply[20] = static_cast<char>(reply.at(20) ^ 1);
        const int length = varies ? reply.size() : next->replyLength;
        DataCom(&reply, length);
        if (varies && !reply.isEmpty())
            DataCom(&reply, length);
    }

    // Frees the notes of the callbacks at the end: they belong to the test, not to the driver.
    void goOnFor(qint64 wanted)
    {
        transactions = 0;
        while (transactions < wanted) {
            for (int step = 0; step < kRound; ++step) {
                act(step);
                transact(step);
            }
            completions += finished.size();
            finished.clear();
            refreshed.clear();
        }
        finished.shrink_to_fit();
        refreshed.shrink_to_fit();
    }

    SimulatedController controllers[kStations];
    qint64 transactions = 0;
    std::size_t completions = 0;
};

TEST_F(MemoryTest, DoesNotGrowOverALongSession)
{
    goOnFor(20 * kRound);
    const qint64 before = bytesInUse();
    goOnFor(wantedTransactions());
    const qint64 grown = bytesInUse() - before;
    EXPECT_LT(std::abs(grown), kTolerance);
    std::printf("%lld transactions, %lld bytes more in use than before\n",
                static_cast<long long>(transactions), static_cast<long long>(grown));
    // It was a real session: connections are open, and requests of the host were completed.
    for (SimulatedController& controller : controllers)
        EXPECT_GE(controller.openConnections(), 1u);
    EXPECT_GT(completions, static_cast<std::size_t>(transactions / 20));
}

TEST_F(MemoryTest, AnswersAMillionUnknownNamesAndStoresEach)
{
    const int names = 1000000;
    connectStation(1);
    confirm("Speed", 3, 0xC3);
    PLCDataStorage[1].tagData["Speed"] = wire::hex("D2 04");
    const int known = PLCDataStorage[1].tagInfo.size();
    const qint64 before = bytesInUse();
    int refused = 0;
    for (int i = 0; i < names; ++i) {
        QByteArray out;
        const int found =
            GetRegisterData(QLatin1String("Flood") + QString::number(i), 0, "0", 1, out, 2);
        refused += found == 0 && out == QByteArray(4, '\0');
    }
    const qint64 grown = bytesInUse() - before;
    EXPECT_EQ(refused, names);
    EXPECT_EQ(PLCDataStorage[1].tagInfo.size() - known, names);
    EXPECT_LT(grown / names, 512);
    std::printf("%d names, %lld bytes each\n", names, static_cast<long long>(grown / names));
    QByteArray out;
    EXPECT_EQ(GetRegisterData("Speed", 0, "0", 1, out, 1), 1);
    EXPECT_BYTES(out, wire::hex("D2 04"));
}

} // namespace
