// Values change on one thread while other threads read them and call everything else.

#include "threads_fixture.h"

#include <pthread.h>
#include <sched.h>

namespace {

/// Assigns threads to processors, if the program may use more than one. On one processor threads
/// take turns, and a value is hardly ever torn.
class Processors
{
public:
    Processors()
    {
        CPU_ZERO(&m_all);
        sched_getaffinity(0, sizeof m_all, &m_all);
        CPU_ZERO(&m_first);
        m_others = m_all;
        for (int i = 0; i < CPU_SETSIZE && CPU_COUNT(&m_first) == 0; ++i) {
            if (CPU_ISSET(i, &m_all)) {
                CPU_SET(i, &m_first);
                CPU_CLR(i, &m_others);
            }
        }
    }

    ~Processors() { keepOn(m_all, pthread_self()); }

    Processors(const Processors&) = delete;
    Processors& operator=(const Processors&) = delete;

    void keepOnFirst(pthread_t thread) { keepOn(m_first, thread); }
    void keepOnOthers(pthread_t thread) { keepOn(m_others, thread); }

private:
    void keepOn(const cpu_set_t& processors, pthread_t thread)
    {
        if (CPU_COUNT(&m_all) > 1)
            pthread_setaffinity_np(thread, sizeof processors, &processors);
    }

    cpu_set_t m_all, m_first, m_others;
};

/// Writers change values while watchers read them. Writers wait until their values have been seen;
/// watchers go on as long as there is a writer.
class ThreadsOnValues : public ThreadsTest
{
protected:
    static constexpr int kMostTags = 64;
    static constexpr int kWatchers = 2;

    /// The values of each tag that a watcher saw last.
    struct Watcher
    {
        std::atomic<quint32> last[kMostTags] = {};
    };

    /// Starts watchers that read `number` tags from `first` on, again and again, until the writers
    /// have ended.
    void startWatchers(std::vector<std::thread>& threads, const std::atomic<int>& first, int number)
    {
        for (Watcher& watcher : m_watchers) {
            threads.emplace_back([&, number] { watch(watcher, first, number); });
            m_processors.keepOnOthers(threads.back().native_handle());
        }
    }

    void pollBesideWatchers(std::vector<std::thread>& threads)
    {
        m_processors.keepOnFirst(pthread_self());
        pollUntilEnd(threads);
    }

    /// Waits until each watcher has seen this value of the tag, or a later one. Returns at once
    /// after a value was torn or a write lost.
    void awaitSeen(int tag, quint32 value)
    {
        m_seen.await([=] {
            for (const Watcher& watcher : m_watchers) {
                if (watcher.last[tag] < value)
                    return lost > 0 || torn > 0;
            }
            return true;
        });
    }

    void noteLost()
    {
        m_seen.notify([this] { ++lost; });
    }

    void endWriting()
    {
        completions.notify([this] { --writing; });
    }

    void expectWholeValuesInOrder()
    {
        EXPECT_EQ(torn, 0);
        EXPECT_EQ(backwards, 0);
        EXPECT_EQ(lost, 0);
    }

    /// Writers that have not ended.
    std::atomic<int> writing{0};
    /// How often a watcher saw a value that differs from the previous one.
    std::atomic<int> changes{0};

private:
    void watch(Watcher& watcher, const std::atomic<int>& first, int number)
    {
        for (int i = 0; writing > 0; ++i) {
            const int tag = first + i % number;
            QByteArray value;
            if (readBack(tag, value))
                note(watcher.last[tag], value);
        }
    }

    void note(std::atomic<quint32>& last, const QByteArray& value)
    {
        if (!isPattern(value)) {
            m_seen.notify([this] { ++torn; });
            return;
        }
        const quint32 now = numberOf(value);
        if (now == last)
            return;
        backwards += now < last;
        ++changes;
        m_seen.notify([&] { last = now; });
    }

    Processors m_processors;
    Watcher m_watchers[kWatchers];
    Progress m_seen;
    std::atomic<int> torn{0}, backwards{0}, lost{0};
};

class EverythingAtOnce : public ThreadsOnValues
{
protected:
    static constexpr int kTags = 4;
    static constexpr int kSetters = 2; // of tags 0 and 1; the others are appended to
    static constexpr int kBatches = 100;
    static constexpr int kBatch = 5;
    static constexpr int kAppended = 100;
    static constexpr int kOneShot = 21; // number of the variable

    /// The last value that a writer queued, and the last one that was acknowledged.
    struct Written
    {
        std::atomic<quint32> last{0};
        quint32 acknowledged = 0;
    };

    EverythingAtOnce()
    {
        defineTotals(kTags);
        screen = totalsOnScreen();
        ReCreatReadVarList(&screen);
        // On the poll thread, which is the only one that touches the controller.
        onDone = [this](int varIndex) {
            if (varIndex < kTags)
                checkAcknowledged(varIndex);
        };
        writing = kTags;
    }

    static QList<HOSTVAR> totalsOnScreen()
    {
        QList<HOSTVAR> variables;
        for (int i = 0; i < kTags; ++i)
            variables.append(hostVar(total(i).constData(), "0", 4));
        return variables;
    }

    // A tag's values only grow, so each acknowledged write has brought a new one. If the writer
    // waits for each write, it is the last one.
    void checkAcknowledged(int tag)
    {
        Written& own = written[tag];
        const quint32 present = numberOf(controller.value(total(tag)));
        const bool oneByOne = tag >= kSetters;
        if (present <= own.acknowledged || present > own.last || (oneByOne && present != own.last))
            noteLost();
        own.acknowledged = present;
    }

    // Later values of a batch replace earlier ones that are still queued.
    void setValues(int tag)
    {
        for (quint32 batch = 0; batch < kBatches; ++batch) {
            const int before = done[tag];
            for (quint32 i = 1; i <= kBatch; ++i) {
                const quint32 number = batch * kBatch + i;
                written[tag].last = number;
                SetRegisterData(QString::fromLatin1(total(tag)), 100 + tag, "0", 1, pattern(number),
                                4, 3, tag);
            }
            awaitDone(tag, before + 1);
            awaitSeen(tag, batch * kBatch + 1);
        }
        endWriting();
    }

    void appendWrites(int tag, int mode)
    {
        for (quint32 i = 1; i <= kAppended; ++i) {
            RW_VAR write = totalWrite(tag, tag, i);
            written[tag].last = i;
            AddListWriteVar(&write, mode);
            awaitDone(tag, static_cast<int>(i));
        }
        endWriting();
    }

    void readOnce()
    {
        for (int i = 0; writing > 0; ++i) {
            RW_VAR request = totalRequest(i % kTags, 20);
            AddListOnceReadVar(&request, 0);
            RW_VAR unchanged = totalRequest(i % kTags, kOneShot);
            unchanged.onceFlag = 1;
            AddListOnceReadVar(&unchanged, 1);
            awaitDone(kOneShot, i + 1);
        }
    }

    // Slows the caller down to the pace of readOnce().
    void awaitNextOneShot()
    {
        const int before = done[kOneShot];
        completions.await([=] { return done[kOneShot] > before || writing == 0; });
    }

    void changeCyclicList()
    {
        for (int i = 0; writing > 0; ++i) {
            RW_VAR request = totalRequest(i % kTags, 22);
            AddListReadVar(&request);
            if (i % 5 == 0) {
                ReCreatReadVarList(&screen);
                awaitNextOneShot();
            }
        }
    }

    void changeCatalogueAndStations()
    {
        for (int i = 0; writing > 0; ++i) {
            declareIndexed(("Later" + QByteArray::number(i % 100)).constData());
            EnCommStation(kOtherStation, i % 2);
            QByteArray out;
            GetRegisterData(QString("Later%1").arg(i % 100), 0, "3", kOtherStation, out, 1);
            RW_VAR ofOther = totalRequest(0, 23);
            ofOther.stationNo = kOtherStation;
            AddListReadVar(&ofOther);
            if (i % 5 == 0)
                awaitNextOneShot();
        }
        EnCommStation(-1, 1);
    }

    QList<HOSTVAR> screen;
    Written written[kTags];
};

TEST_F(EverythingAtOnce, EveryAcknowledgedWriteIsInTheControllerAndNoValueIsTorn)
{
    const std::atomic<int> firstTag(0);
    std::vector<std::thread> threads;
    threads.emplace_back([this] { setValues(0); });
    threads.emplace_back([this] { setValues(1); });
    threads.emplace_back([this] { appendWrites(2, 1); });
    threads.emplace_back([this] { appendWrites(3, 0); });
    startWatchers(threads, firstTag, kTags);
    threads.emplace_back([this] { readOnce(); });
    threads.emplace_back([this] { changeCyclicList(); });
    threads.emplace_back([this] { changeCatalogueAndStations(); });
    pollBesideWatchers(threads);

    expectWholeValuesInOrder();
    for (int tag = 0; tag < kTags; ++tag)
        EXPECT_EQ(wire::text(controller.value(total(tag))), wire::text(pattern(written[tag].last)));
    EXPECT_GE(done[0], kBatches);
    EXPECT_GE(done[1], kBatches);
    EXPECT_EQ(done[2], kAppended);
    EXPECT_EQ(done[3], kAppended);
    EXPECT_GE(changes, kWatchers * kSetters * kBatches);
}

// ---- Another link

TEST_F(ThreadsOnValues, TypesLearntOnAnotherLinkAreKeptAndNoConcurrentReadIsTorn)
{
    const int kTags = 30;
    const quint32 kValues = 2;
    defineTotals(kTags);
    writing = 1;
    std::atomic<int> present(0);
    // The write must learn the type first. A reply on another link stores no value, so a read on
    // the local link follows.
    const auto writeAndRead = [&](int tag, quint32 value, int turn) {
        RW_VAR write = totalWrite(tag, 0, value);
        write.linkId = kForeignLink;
        write.reqFlag = -1;
        AddListWriteVar(&write, 1);
        awaitDone(0, turn);
        RW_VAR read = totalRequest(tag, 1);
        read.onceFlag = 1;
        AddListOnceReadVar(&read, 1);
        awaitDone(1, turn);
        QByteArray out;
        if (!readBack(tag, out) || wire::text(out) != wire::text(pattern(value)))
            noteLost();
        awaitSeen(tag, value);
    };
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        int turn = 0;
        for (int tag = 0; tag < kTags; ++tag) {
            present = tag;
            RW_VAR cyclic = totalRequest(tag, 2);
            cyclic.linkId = kForeignLink;
            cyclic.reqFlag = -1;
            AddListReadVar(&cyclic);
            for (quint32 value = 1; value <= kValues; ++value)
                writeAndRead(tag, value, ++turn);
        }
        endWriting();
    });
    startWatchers(threads, present, 3);
    pollBesideWatchers(threads);

    expectWholeValuesInOrder();
    EXPECT_GE(changes, kWatchers * kTags * static_cast<int>(kValues));
    // On the other link, each tag's type was read and each value written.
    EXPECT_GE(foreignFrames, kTags * static_cast<int>(1 + kValues));
    for (int tag = 0; tag < kTags; ++tag) {
        EXPECT_BYTES(PLCDataStorage[1].tagInfo[QString::fromLatin1(total(tag))],
                     wire::hex("05 C5 00 FF"));
        EXPECT_EQ(wire::text(controller.value(total(tag))), wire::text(pattern(kValues)));
    }
}

} // namespace
