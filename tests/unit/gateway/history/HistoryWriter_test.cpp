#include "HistoryWriter.h"
#include "history_rows.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/mount.h>
#include <sys/resource.h>

using namespace micro850;
using namespace micro850::gateway;
using history::valuesOf;

namespace {

const qint64 kNow = 1795352400000; // 2026-11-22T13:00:00Z

class HistoryWriterTest : public ::testing::Test
{
protected:
    ~HistoryWriterTest() override { m_writer.reset(); }

    QString path(const QString& name = "h.sqlite") const { return m_dir.filePath(name); }
    HistorySettings settings(const QString& name = "h.sqlite", int megabytes = 64) const
    {
        HistorySettings settings;
        settings.file = path(name);
        settings.keepDays = 90;
        settings.keepMegabytes = megabytes;
        return settings;
    }
    HistoryWriter& start(const HistorySettings& settings)
    {
        m_writer =
            std::make_unique<HistoryWriter>(settings, m_stamp, [this](const host::HistoryEvent& e) {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_alarms.append(e.state + ": " + e.text);
            });
        return *m_writer;
    }
    void stop() { m_writer.reset(); }
    QStringList alarms()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_alarms;
    }
    /// A value of the moment at which both clocks stand.
    void add(int number)
    {
        m_writer->add({m_stamp, history::value(m_variable, m_stamp.wall, number), 0});
    }
    void pass(std::chrono::milliseconds time)
    {
        m_stamp.monotonic += time;
        m_stamp.wall += time.count();
        m_writer->tick(m_stamp);
    }
    void setWall(qint64 wall) { m_stamp.wall = wall; }
    QString state() const { return m_writer->status().state; }
    std::vector<int> numbers(const QString& name = "h.sqlite") const
    {
        std::vector<int> numbers;
        for (const host::HistoryValue& row : valuesOf(path(name)))
            numbers.push_back(row.value.get<int>());
        return numbers;
    }
    QStringList events() const
    {
        QStringList texts;
        for (const host::HistoryEvent& event : history::eventsOf(path()))
            texts.append(event.state + ": " + event.text);
        return texts;
    }

    HistoryStamp m_stamp{Duration(0), kNow};

private:
    history::FastDir m_dir;
    std::mutex m_mutex;
    QStringList m_alarms;
    std::shared_ptr<const host::HistoryVariable> m_variable = history::variable("A");
    std::unique_ptr<HistoryWriter> m_writer;
};

TEST_F(HistoryWriterTest, RecordsWhatItIsGivenAndSaysSo)
{
    HistoryWriter& writer = start(settings());
    for (int i = 0; i < 10000; ++i)
        add(i);
    writer.flush();
    const HistoryWriter::Status status = writer.status();
    EXPECT_EQ(status.state, QString("recording"));
    EXPECT_EQ(status.rows, 10000);
    EXPECT_EQ(status.leftOut, 0);
    EXPECT_EQ(status.waiting, 0);
    EXPECT_EQ(status.bytes, history::bytesOf(path()));
    EXPECT_EQ(numbers().size(), 10000u);
    EXPECT_EQ(alarms(), QStringList());
}

TEST_F(HistoryWriterTest, RecordsWhatWaitsWhenItEnds)
{
    start(settings());
    add(1);
    stop();
    EXPECT_EQ(numbers(), std::vector<int>({1}));
}

TEST_F(HistoryWriterTest, CommitsByItselfWithinASecond)
{
    HistoryWriter& writer = start(settings());
    add(1);
    const auto begin = std::chrono::steady_clock::now();
    while (writer.status().rows == 0 &&
           std::chrono::steady_clock::now() - begin < std::chrono::seconds(60))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(numbers(), std::vector<int>({1}));
}

TEST_F(HistoryWriterTest, RecordsNothingWithoutAFile)
{
    HistorySettings off;
    HistoryWriter& writer = start(off);
    add(1);
    writer.flush();
    EXPECT_EQ(state(), QString("off"));
    writer.change(settings());
    add(2);
    writer.flush();
    EXPECT_EQ(state(), QString("recording"));
    EXPECT_EQ(numbers(), std::vector<int>({2}));
    writer.change(off);
    add(3);
    writer.flush();
    EXPECT_EQ(state(), QString("off"));
    EXPECT_EQ(numbers(), std::vector<int>({2}));
}

TEST_F(HistoryWriterTest, GoesOnInAnotherFile)
{
    HistoryWriter& writer = start(settings());
    add(0);
    writer.flush();
    add(1);
    writer.change(settings("other.sqlite"));
    writer.flush();
    add(2);
    writer.flush();
    EXPECT_EQ(numbers(), (std::vector<int>{0, 1}));
    EXPECT_EQ(numbers("other.sqlite"), (std::vector<int>{2}));
}

// ---- Clocks -------------------------------------------------------------------------------------

TEST_F(HistoryWriterTest, ForgetsNothingBecauseTheClockJumps)
{
    setWall(0); // a panel without a battery
    HistoryWriter& writer = start(settings());
    for (int i = 0; i < 3; ++i) {
        add(i);
        pass(std::chrono::minutes(1));
    }
    int number = 3;
    for (const qint64 wall : {kNow, kNow + qint64(73) * 365 * 86400000, kNow - 5000, qint64(5)}) {
        setWall(wall);
        add(number++);
        pass(std::chrono::minutes(1));
        add(number++);
        writer.flush();
    }
    EXPECT_EQ(numbers().size(), 11u);
    EXPECT_EQ(events().filter("clock: the clock was set forward by").size(), 2);
    EXPECT_EQ(events().filter("clock: the clock was set back by").size(), 2);
    // Only time that passes makes them old.
    pass(std::chrono::hours(24 * 90 - 1));
    writer.flush();
    EXPECT_EQ(numbers().size(), 11u);
    pass(std::chrono::hours(2));
    writer.flush();
    EXPECT_EQ(numbers().size(), 0u);
}

TEST_F(HistoryWriterTest, TellsHowFarTheClockWasSet)
{
    HistoryWriter& writer = start(settings());
    add(1);
    writer.flush();
    pass(std::chrono::seconds(10));
    setWall(m_stamp.wall - 3600000);
    writer.tick(m_stamp); // also when no value comes
    writer.flush();
    EXPECT_EQ(events(), QStringList({"clock: the clock was set back by PT1H"}));
}

TEST_F(HistoryWriterTest, TakesAClockThatIsSlewedForSteady)
{
    HistoryWriter& writer = start(settings());
    for (int i = 0; i < 100; ++i) {
        add(i);
        pass(std::chrono::seconds(1));
        m_stamp.wall += 100;
    }
    writer.flush();
    EXPECT_EQ(events(), QStringList());
}

// ---- What goes wrong ----------------------------------------------------------------------------

TEST_F(HistoryWriterTest, StopsWithoutItsFolderAndGoesOnWhenItIsThere)
{
    HistoryWriter& writer = start(settings("folder/h.sqlite"));
    add(1);
    writer.flush();
    EXPECT_EQ(state(), QString("stopped"));
    const QString reason =
        path("folder/h.sqlite") + ": cannot be written: its folder is not there (create it)";
    EXPECT_EQ(writer.status().reason, reason);
    add(2);
    writer.flush();
    EXPECT_EQ(alarms(), QStringList({"history stopped: " + reason})); // once
    ASSERT_TRUE(QDir().mkdir(path("folder")));
    add(3);
    writer.flush();
    EXPECT_EQ(state(), QString("recording"));
    EXPECT_EQ(numbers("folder/h.sqlite"), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(alarms().last(), "history recording: " + path("folder/h.sqlite") + ": recording");
    EXPECT_EQ(alarms().size(), 2);
}

TEST_F(HistoryWriterTest, TellsOfAGapInTheHistoryItself)
{
    HistoryWriter& writer = start(settings("folder/h.sqlite"));
    writer.flush();
    const int most = static_cast<int>(HistoryQueue::kMostItems);
    add(-1);
    writer.flush(); // it waits for the disk outside the queue
    for (int i = 0; i < most + 10; ++i)
        add(i);
    EXPECT_EQ(writer.status().waiting, most);
    ASSERT_TRUE(QDir().mkdir(path("folder")));
    writer.flush();
    EXPECT_EQ(writer.status().leftOut, 10);
    EXPECT_EQ(writer.status().breaks, 1); // no value is known to hold on over the gap
    const std::vector<int> recorded = numbers("folder/h.sqlite");
    ASSERT_EQ(recorded.size(), std::size_t(most) + 1);
    EXPECT_EQ(recorded[0], -1);
    EXPECT_EQ(recorded[1], 10);
    EXPECT_EQ(recorded.back(), most + 9);
    QStringList texts;
    for (const host::HistoryEvent& event : history::eventsOf(path("folder/h.sqlite")))
        texts.append(event.state + ": " + event.text);
    EXPECT_EQ(texts, QStringList({"history gap: 10 rows were not recorded: the disk was too slow, "
                                  "or full",
                                  "history stopped: " + path("folder/h.sqlite") +
                                      ": cannot be written: its folder is not there (create it)"}));
}

TEST_F(HistoryWriterTest, SetsADamagedFileAsideAndBeginsANewOne)
{
    QFile file(path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(10000, 'x'));
    file.close();
    HistoryWriter& writer = start(settings());
    add(1);
    writer.flush();
    EXPECT_EQ(state(), QString("recording"));
    EXPECT_EQ(numbers(), std::vector<int>({1}));
    const QString aside = path("h.sqlite.damaged-20261122T130000Z");
    QFile kept(aside);
    ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
    EXPECT_EQ(kept.readAll(), QByteArray(10000, 'x'));
    const QString told =
        path() + ": is not a database: it is kept as " + aside + ", and a new one is begun";
    EXPECT_EQ(alarms(), QStringList({"history set aside: " + told}));
    EXPECT_EQ(events(), QStringList({"history set aside: " + told}));
}

// Its first page is whole: only the pages after it are not.
TEST_F(HistoryWriterTest, SetsAFileAsideThatTurnsOutToBeDamagedLater)
{
    start(settings());
    for (int i = 0; i < 5000; ++i)
        add(i);
    stop();
    QFile file(path());
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    const QByteArray noise(static_cast<int>(file.size()) - 4096, '\xaa');
    file.seek(4096);
    file.write(noise);
    file.close();
    HistoryWriter& writer = start(settings());
    add(777);
    writer.flush();
    EXPECT_EQ(alarms().filter("history set aside: ").size(), 1);
    EXPECT_EQ(state(), QString("recording"));
    EXPECT_EQ(numbers(), (std::vector<int>{777}));
    QFile aside(path("h.sqlite.damaged-20261122T130000Z"));
    ASSERT_TRUE(aside.open(QIODevice::ReadOnly));
    EXPECT_TRUE(aside.readAll().endsWith(noise));
}

TEST_F(HistoryWriterTest, LeavesAnotherProgramsFileAlone)
{
    {
        host::Database other(path(), host::Database::Access::Write);
        other.run("CREATE TABLE precious (a)");
    }
    HistoryWriter& writer = start(settings());
    add(1);
    writer.flush();
    EXPECT_EQ(state(), QString("stopped"));
    host::Database other(path(), host::Database::Access::Read);
    EXPECT_TRUE(other.hasTable("precious"));
    EXPECT_FALSE(other.hasTable("periods"));
}

TEST_F(HistoryWriterTest, BeginsANewFileWhenTheOldOneIsRemoved)
{
    HistoryWriter& writer = start(settings());
    add(1);
    writer.flush();
    for (const char* part : {"", "-wal", "-shm"})
        QFile::remove(path() + part);
    add(2);
    writer.flush();
    EXPECT_EQ(numbers(), std::vector<int>({2}));
    EXPECT_EQ(events(),
              QStringList({"history recording: " + path() + " was removed: a new file is begun"}));
}

TEST_F(HistoryWriterTest, LeavesOutARowThatIsTooLargeForItsLimit)
{
    HistoryWriter& writer = start(settings("h.sqlite", 1));
    add(1);
    writer.add(
        {m_stamp,
         history::value(history::variable("Text", "SHORT_STRING"), kNow, std::string(500000, 'x')),
         0});
    add(2);
    writer.flush();
    EXPECT_EQ(numbers(), (std::vector<int>{1, 2}));
    ASSERT_EQ(events().size(), 1);
    EXPECT_TRUE(events().first().contains("was not recorded: it is too large"))
        << events().first().toStdString();
}

/// The process may write no file beyond this size until it is destroyed.
class FileLimit
{
public:
    explicit FileLimit(rlim_t bytes)
    {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_before);
        set(bytes);
    }
    ~FileLimit() { set(m_before.rlim_cur); }
    FileLimit(const FileLimit&) = delete;
    FileLimit& operator=(const FileLimit&) = delete;
    void set(rlim_t bytes)
    {
        rlimit limit = m_before;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }

private:
    rlimit m_before = {};
};

TEST_F(HistoryWriterTest, StopsAtAFullDiskAndGoesOnWithTheNewestValues)
{
    HistoryWriter& writer = start(settings());
    add(0);
    writer.flush();
    {
        const FileLimit full(static_cast<rlim_t>(QFileInfo(path() + "-wal").size() + 100));
        for (int i = 1; i < 20000; ++i)
            add(i);
        for (int attempt = 0; attempt < 5; ++attempt)
            writer.flush();
        EXPECT_EQ(state(), QString("stopped"));
        EXPECT_EQ(alarms().size(), 1);
    }
    add(20000);
    writer.flush();
    EXPECT_EQ(state(), QString("recording")) << writer.status().reason.toStdString();
    std::vector<int> expected(20001);
    for (int i = 0; i <= 20000; ++i)
        expected[i] = i;
    EXPECT_EQ(numbers(), expected); // none lost, none twice
    EXPECT_EQ(events().filter("history stopped").size(), 1) << events().join('\n').toStdString();
    stop();
    EXPECT_EQ(history::integrityOf(path()), QString("ok"));
}

} // namespace
