// Messages that wait on a disk, which may refuse, be full, or lose its power.

#include "Database.h"
#include "FileLock.h"
#include "crash_disk.h"
#include "delivery_queue.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <random>
#include <set>
#include <tuple>

using namespace micro850;
using namespace micro850::gateway;

namespace {

const char* const kDisk = "test-disk";
const qint64 kHourMs = 3600 * 1000;

class DeliveryQueueTest : public DeliveryQueueFixture
{
protected:
    void open(const char* fileSystem = nullptr)
    {
        m_queue.reset();
        m_queue = std::make_unique<DeliveryQueue>(m_settings, m_clock, m_wallClock, fileSystem);
    }
    void add(const QByteArray& body, const QString& line = QStringLiteral("press"))
    {
        m_queue->add(messageOf("a", body, line), {QStringLiteral("run"), ++m_number});
    }
    /// Adds one message and commits it.
    QueuedMessage store(const QByteArray& body, const QString& line = QStringLiteral("press"))
    {
        add(body, line);
        const QVector<QueuedMessage> added = m_queue->commit();
        return added.value(0);
    }
    /// "1 2 3": the bodies that wait, as a sender sees them.
    std::string waiting()
    {
        std::string text;
        for (const QueuedMessage& message : m_queue->after(0, 1000000))
            text += (text.empty() ? "" : " ") + message.body.toStdString();
        return text;
    }
    std::string state() const { return m_queue->status()["state"].get<std::string>(); }
    std::string reason() const { return m_queue->status().value("reason", ""); }
    /// Time after which a disk that refused is tried again.
    void retry()
    {
        m_clock.advance(std::chrono::seconds(3));
        m_queue->commit();
    }
    QString path() const { return m_settings.file; }
    QStringList files() const { return QDir(m_dir.path()).entryList(QDir::Files, QDir::Name); }
    void writeFile(const QByteArray& content)
    {
        QFile file(path());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
    }
    std::string openingFailure()
    {
        try {
            open();
        } catch (const UserError& error) {
            return error.what();
        }
        return "";
    }

    CrashDisk m_disk{kDisk};
    std::unique_ptr<DeliveryQueue> m_queue;
    qint64 m_number = 0;
};

} // namespace

// ---- Numbers ------------------------------------------------------------------------------------

TEST_F(DeliveryQueueTest, CountsEachLineFromOne)
{
    open();
    const QueuedMessage first = store("1", "press");
    const QueuedMessage other = store("2", "oven");
    const QueuedMessage second = store("3", "press");
    EXPECT_EQ(first.sequence, 1);
    EXPECT_EQ(other.sequence, 1);
    EXPECT_EQ(second.sequence, 2);
    EXPECT_EQ(first.series, second.series);
    EXPECT_LT(first.id, other.id);
    EXPECT_LT(other.id, second.id);
}

TEST_F(DeliveryQueueTest, GivesNoNumberTwiceThoughAllWasDeletedBeforeARestart)
{
    open();
    const QueuedMessage first = store("1");
    m_queue->remove(first.id);
    m_queue->commit();
    open();
    EXPECT_EQ(m_queue->size(), 0);
    const QueuedMessage second = store("2");
    EXPECT_EQ(second.series, first.series);
    EXPECT_EQ(second.sequence, 2);
    EXPECT_GT(second.id, first.id);
}

TEST_F(DeliveryQueueTest, BeginsAnotherSeriesInAnotherFileAlsoAtTheSameTimeOfDay)
{
    std::set<qint64> series;
    for (int i = 0; i < 5; ++i) {
        m_settings.file = m_dir.filePath(QString::number(i));
        open();
        series.insert(store("1").series);
    }
    // Of a thousand numbers, five are seldom all the same.
    EXPECT_GT(series.size(), 1U);
    EXPECT_LT(*series.rbegin(), qint64(1) << 53);
}

TEST_F(DeliveryQueueTest, TellsWhatWasFedWithTheMessagesThatItHas)
{
    open();
    add("1");
    m_queue->commit();
    add("2");
    EXPECT_EQ(m_queue->fed().number, 1);
    m_queue.reset(); // as a process that is killed: what was not committed is gone
    open();
    EXPECT_EQ(m_queue->fed().run, "run");
    EXPECT_EQ(m_queue->fed().number, 1);
    EXPECT_EQ(waiting(), "1");
}

TEST_F(DeliveryQueueTest, RemembersWhatWasFedWithoutAMessage)
{
    open();
    m_queue->skip({"run", 7});
    EXPECT_TRUE(m_queue->hasChanges());
    m_queue->commit();
    open();
    EXPECT_EQ(m_queue->fed().number, 7);
    EXPECT_EQ(waiting(), "");
}

TEST_F(DeliveryQueueTest, KeepsEveryFieldOfAMessage)
{
    open();
    QueuedMessage message;
    message.line = QStringLiteral("pr\u00e9sse/1");
    message.station = -1;
    message.time = -5;
    message.body = QByteArray("{\"text\": \"\xc3\xa9\"}");
    m_queue->add(message, {"run", 1});
    m_queue->commit();
    open();
    const QVector<QueuedMessage> rows = m_queue->after(0, 10);
    ASSERT_EQ(rows.size(), 1);
    EXPECT_EQ(rows[0].line, message.line);
    EXPECT_EQ(rows[0].station, -1);
    EXPECT_EQ(rows[0].name, QString());
    EXPECT_EQ(rows[0].time, -5);
    EXPECT_EQ(rows[0].body, message.body);
    EXPECT_EQ(rows[0].sequence, 1);
}

TEST_F(DeliveryQueueTest, TellsTheLatestOfEachVariableThatWaits)
{
    open();
    for (const char* body : {"1", "2"})
        store(body);
    m_queue->add(messageOf("", "event"), {"run", 3});
    m_queue->add(messageOf("b", "3"), {"run", 4});
    m_queue->commit();
    m_queue->remove(m_queue->lastId());
    m_queue->commit();
    open();
    const QVector<QueuedMessage> latest = m_queue->latest();
    ASSERT_EQ(latest.size(), 1); // b is with the broker, an event is no value
    EXPECT_EQ(latest[0].body, "2");
}

TEST_F(DeliveryQueueTest, GivesNoMessageThatIsRemovedBeforeItIsDeleted)
{
    open();
    for (const char* body : {"1", "2", "3", "4"})
        add(body);
    const QVector<QueuedMessage> added = m_queue->commit();
    m_queue->remove(added[0].id);
    m_queue->remove(added[1].id);
    EXPECT_EQ(m_queue->removing(), 2);
    ASSERT_EQ(m_queue->after(0, 1).size(), 1);
    EXPECT_EQ(m_queue->after(0, 1)[0].body, "3");
    EXPECT_EQ(waiting(), "3 4");
    m_queue->commit();
    EXPECT_EQ(m_queue->removing(), 0);
    EXPECT_EQ(waiting(), "3 4");
}

// ---- Bounds -------------------------------------------------------------------------------------

TEST_F(DeliveryQueueTest, DeletesTheOldestWhenThereIsTooMuchAndCountsThem)
{
    m_settings.keepMegabytes = 1;
    open();
    const QByteArray body(500, 'x');
    const int count = 6000; // three megabytes
    qint64 most = 0;
    for (int i = 0; i < count; ++i) {
        add(body);
        if (i % 50 == 0 || m_queue->isFull()) {
            m_queue->commit();
            most = std::max(most, qint64(m_queue->status()["bytes"]));
        }
    }
    m_queue->commit();
    EXPECT_LE(most, 1024 * 1024);
    const QVector<QueuedMessage> rows = m_queue->after(0, count);
    EXPECT_GT(rows.size(), 500);
    EXPECT_EQ(rows.size() + m_queue->lost(), count);
    EXPECT_EQ(rows.size(), m_queue->size());
    EXPECT_EQ(rows.last().sequence, count);
    EXPECT_EQ(rows.first().sequence, m_queue->lost() + 1);
    const qint64 lost = m_queue->lost();
    open();
    EXPECT_EQ(m_queue->lost(), lost);
}

TEST_F(DeliveryQueueTest, ShrinksToASmallerLimit)
{
    m_settings.keepMegabytes = 4;
    open();
    for (int i = 0; i < 5000; ++i) {
        add(QByteArray(500, 'x'));
        if (m_queue->isFull())
            m_queue->commit();
    }
    m_queue->commit();
    m_settings.keepMegabytes = 1;
    open();
    for (int i = 0; i < 60; ++i)
        store("1");
    EXPECT_EQ(state(), "on disk");
    EXPECT_LE(qint64(m_queue->status()["bytes"]), 1024 * 1024);
    EXPECT_EQ(m_queue->size() + m_queue->lost(), 5060);
}

TEST_F(DeliveryQueueTest, DeletesWhatIsTooOldAndCountsIt)
{
    m_settings.keepHours = 2;
    open();
    store("1");
    m_clock.advance(std::chrono::hours(1));
    store("2");
    m_clock.advance(std::chrono::minutes(61));
    m_queue->commit();
    EXPECT_EQ(waiting(), "2");
    EXPECT_EQ(m_queue->lost(), 1);
}

TEST_F(DeliveryQueueTest, MeasuresTheAgeByTheTimeOfUseAlsoAcrossRestarts)
{
    m_settings.keepHours = 2;
    open();
    store("1");
    m_clock.advance(std::chrono::minutes(90));
    m_queue->commit(); // nothing is new: the time of use is stored all the same
    open();
    m_clock.advance(std::chrono::minutes(31));
    m_queue->commit();
    EXPECT_EQ(waiting(), "");
    EXPECT_EQ(m_queue->lost(), 1);
}

TEST_F(DeliveryQueueTest, KeepsWhatIsYoungWhenTheClockOnTheWallIsSet)
{
    m_settings.keepHours = 2;
    open();
    for (const qint64 step : {10000 * kHourMs, -20000 * kHourMs}) {
        m_wallClock.advance(step);
        store("1");
        m_clock.advance(std::chrono::minutes(2));
        m_queue->commit();
    }
    EXPECT_EQ(waiting(), "1 1");
    EXPECT_EQ(m_queue->lost(), 0);
}

TEST_F(DeliveryQueueTest, DoesNotCountAsLostWhatTheBrokerAcknowledgedInTheEnd)
{
    m_settings.keepHours = 1;
    open();
    const QueuedMessage sent = store("1");
    store("2");
    m_clock.advance(std::chrono::minutes(61));
    m_queue->commit();
    EXPECT_EQ(m_queue->lost(), 2);
    m_queue->remove(sent.id);
    m_queue->commit();
    EXPECT_EQ(m_queue->lost(), 1);
    EXPECT_EQ(m_queue->size(), 0);
}

TEST_F(DeliveryQueueTest, CountsAMessageThatIsTooLargeAndTakesTheNext)
{
    m_settings.keepMegabytes = 1;
    open();
    EXPECT_EQ(store(QByteArray(1024 * 1024, 'x')).id, 0);
    EXPECT_EQ(m_queue->lost(), 1);
    EXPECT_EQ(store("2").sequence, 1);
    EXPECT_EQ(m_queue->fed().number, 2);
}

// ---- Files that are not as they should be -------------------------------------------------------

TEST_F(DeliveryQueueTest, RefusesAFileThatAnotherProcessUses)
{
    const auto lock = host::FileLock::take(path());
    ASSERT_TRUE(lock);
    EXPECT_EQ(openingFailure(),
              path().toStdString() + ": another program uses this queue (name another file)");
}

TEST_F(DeliveryQueueTest, RefusesADatabaseThatIsNoQueueAndLeavesItAlone)
{
    {
        host::Database other(path(), host::Database::Access::Write);
        other.run("CREATE TABLE recipes (name TEXT); INSERT INTO recipes VALUES ('bread')");
    }
    EXPECT_NE(openingFailure().find("is a database of another program"), std::string::npos);
    host::Database other(path(), host::Database::Access::Read);
    EXPECT_EQ(other.text("SELECT name FROM recipes"), "bread");
}

TEST_F(DeliveryQueueTest, RefusesTheFileOfALaterVersion)
{
    open();
    m_queue.reset();
    host::Database(path(), host::Database::Access::Write).run("PRAGMA user_version = 9");
    EXPECT_NE(openingFailure().find("was written by a later version"), std::string::npos);
}

TEST_F(DeliveryQueueTest, RefusesAFolder)
{
    ASSERT_TRUE(QDir(m_dir.path()).mkdir("queue.sqlite"));
    EXPECT_NE(openingFailure().find("queue.sqlite"), std::string::npos);
}

TEST_F(DeliveryQueueTest, SetsADamagedFileAside)
{
    writeFile(QByteArray(5000, 'x'));
    open();
    EXPECT_EQ(store("1").sequence, 1);
    EXPECT_EQ(state(), "on disk");
    ASSERT_EQ(files().filter("damaged").size(), 1);
    EXPECT_EQ(m_queue->status().value("setAside", ""),
              m_dir.filePath(files().filter("damaged").first()).toStdString());
}

TEST_F(DeliveryQueueTest, SetsAFileAsideThatIsDamagedWhileItIsUsedAndCountsWhatItHad)
{
    open();
    for (int i = 0; i < 100; ++i)
        add(QByteArray(3000, 'x'));
    m_queue->commit();
    open(); // the log is in the file now
    const QVector<QueuedMessage> first = m_queue->after(0, 1);
    {
        QFile file(path());
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        for (qint64 at = 4096; at < file.size(); at += 4096) {
            file.seek(at);
            file.write(QByteArray(4096, '\x5a'));
        }
    }
    const qint64 series = first[0].series;
    QueuedMessage stored;
    for (int i = 0; i < 3; ++i) { // the library may have some of it in memory
        m_queue->after(0, 100);
        stored = store("new");
    }
    EXPECT_EQ(state(), "on disk");
    EXPECT_NE(stored.series, series);
    EXPECT_EQ(files().filter("damaged").filter("wal").size() > 1, false);
    EXPECT_GE(m_queue->lost(), 99);
    const std::string kept = waiting();
    open();
    EXPECT_EQ(waiting(), kept);
}

TEST_F(DeliveryQueueTest, BeginsANewFileWhenTheOldOneIsRemovedAndCountsWhatItHad)
{
    open();
    const QueuedMessage first = store("1");
    for (const char* part : {"", "-wal", "-shm"})
        QFile::remove(path() + part);
    const QueuedMessage second = store("2");
    retry();
    EXPECT_EQ(state(), "on disk");
    EXPECT_EQ(m_queue->lost(), 1);
    EXPECT_NE(second.series, first.series);
    EXPECT_EQ(second.sequence, 1);
    open();
    EXPECT_EQ(waiting(), "2");
    EXPECT_EQ(store("3").sequence, 2);
}

TEST_F(DeliveryQueueTest, DoesNotMixWithAnotherQueueThatIsPutInItsPlace)
{
    const QString own = path();
    m_settings.file = m_dir.filePath("other.sqlite");
    open();
    store("other");
    m_queue.reset();
    m_settings.file = own;
    open();
    store("1");
    for (const char* part : {"", "-wal", "-shm"})
        QFile::remove(own + part);
    ASSERT_TRUE(QFile::rename(m_dir.filePath("other.sqlite"), own));
    store("2");
    retry();
    EXPECT_EQ(state(), "in memory");
    EXPECT_NE(reason().find("was replaced by another queue"), std::string::npos) << reason();
    EXPECT_EQ(waiting(), "2");
}

TEST_F(DeliveryQueueTest, WorksInMemoryUntilItsFolderIsThere)
{
    m_settings.file = m_dir.filePath("later/queue.sqlite");
    open();
    EXPECT_EQ(state(), "in memory");
    EXPECT_NE(reason().find("its folder is not there"), std::string::npos) << reason();
    const QueuedMessage first = store("1");
    EXPECT_EQ(waiting(), "1");
    ASSERT_TRUE(QDir(m_dir.path()).mkdir("later"));
    retry();
    EXPECT_EQ(state(), "on disk");
    EXPECT_EQ(waiting(), "1");
    const QueuedMessage second = store("2");
    EXPECT_EQ(second.series, first.series);
    EXPECT_EQ(second.sequence, 2);
    open();
    EXPECT_EQ(waiting(), "1 2");
}

TEST_F(DeliveryQueueTest, GoesOnWithAFileThatCouldNotBeReadAtTheStart)
{
    open();
    const QueuedMessage old = store("1");
    m_queue->keep("topics", "a b");
    m_queue.reset();
    CrashDisk& disk = m_disk;
    disk.failCalls(0, -1);
    open(kDisk);
    EXPECT_EQ(state(), "in memory");
    const QueuedMessage held = store("2");
    EXPECT_NE(held.series, old.series);
    disk.succeed();
    retry();
    EXPECT_EQ(state(), "on disk");
    EXPECT_EQ(waiting(), "1 2");
    EXPECT_EQ(m_queue->kept("topics"), "a b");
    const QVector<QueuedMessage> rows = m_queue->after(0, 10);
    m_queue->remove(rows[0].id);
    m_queue->commit();
    EXPECT_EQ(waiting(), "2");
    open();
    EXPECT_EQ(waiting(), "2");
    EXPECT_EQ(store("3").sequence, 2);
}

TEST_F(DeliveryQueueTest, LetsTheGroupReadItAndNobodyElse)
{
    open();
    store("1");
    for (const char* part : {"", "-wal"}) {
        struct stat status = {};
        ASSERT_EQ(::stat(QFile::encodeName(path() + part).constData(), &status), 0);
        EXPECT_EQ(status.st_mode & 0137U, 0U) << part;
    }
}

// ---- Memory -------------------------------------------------------------------------------------

TEST_F(DeliveryQueueTest, GoesToMemoryInANewSeriesAndBackToTheDisk)
{
    CrashDisk& disk = m_disk;
    open(kDisk);
    const QueuedMessage first = store("1");
    disk.failCalls(0, -1);
    const QueuedMessage second = store("2");
    EXPECT_EQ(state(), "in memory");
    EXPECT_NE(reason(), "");
    EXPECT_GT(second.series, first.series);
    EXPECT_EQ(second.sequence, 1);
    EXPECT_GT(second.id, first.id);
    EXPECT_EQ(m_queue->fed().number, 2);
    EXPECT_EQ(m_queue->size(), 2);
    retry(); // in vain: the series goes on
    const QueuedMessage third = store("3");
    EXPECT_EQ(third.series, second.series);
    EXPECT_EQ(third.sequence, 2);
    EXPECT_EQ(waiting(), "2 3"); // the first one waits for the disk
    m_queue->remove(third.id);
    EXPECT_EQ(waiting(), "2");
    disk.succeed();
    const int generation = m_queue->generation();
    retry();
    EXPECT_EQ(state(), "on disk");
    EXPECT_NE(m_queue->generation(), generation);
    EXPECT_EQ(waiting(), "1 2");
    EXPECT_EQ(store("4").sequence, 3);
    open(kDisk);
    EXPECT_EQ(waiting(), "1 2 4");
    EXPECT_EQ(store("5").sequence, 4);
    EXPECT_EQ(m_queue->fed().number, 5);
}

TEST_F(DeliveryQueueTest, UsesNoSeriesTwiceAfterAKillThoughTheClockWasSetBack)
{
    open(kDisk);
    store("1");
    m_wallClock.advance(-kHourMs);
    std::set<qint64> series;
    for (int i = 0; i < 5; ++i) {
        m_disk.failCalls(0, -1);
        const QueuedMessage held = store("held"); // it is sent, and the file knows nothing of it
        EXPECT_TRUE(series.insert(held.series).second);
        m_queue.reset();
        m_disk.succeed();
        open(kDisk);
    }
}

TEST_F(DeliveryQueueTest, KeepsABoundedNumberInMemoryAndCountsTheOldest)
{
    CrashDisk& disk = m_disk;
    disk.failCalls(0, -1);
    open(kDisk);
    const int count = 70000;
    for (int i = 0; i < count; ++i) {
        add("1");
        if (m_queue->isFull())
            m_queue->commit();
    }
    m_queue->commit();
    EXPECT_EQ(m_queue->size(), 65536);
    EXPECT_EQ(m_queue->lost(), count - 65536);
    for (int i = 0; i < 30; ++i) {
        add(QByteArray(1024 * 1024, 'x'));
        m_queue->commit();
    }
    EXPECT_LE(m_queue->size(), 16);
    EXPECT_EQ(m_queue->size() + m_queue->lost(), count + 30);
}

TEST_F(DeliveryQueueTest, DoesNotSendWhatACommitThatFailedLeftInTheFile)
{
    CrashDisk& disk = m_disk;
    open(kDisk);
    store("1");
    disk.failSyncs(1); // it is written, but nobody knows
    store("2");
    EXPECT_EQ(waiting(), "2");
    retry();
    EXPECT_EQ(state(), "on disk");
    EXPECT_EQ(waiting(), "1 2");
    open(kDisk);
    EXPECT_EQ(waiting(), "1 2");
}

TEST_F(DeliveryQueueTest, DoesNotTellAsFedWhatIsOnlyPendingWhenTheDiskIsBack)
{
    open(kDisk);
    m_disk.failCalls(0, -1);
    store("1");
    m_disk.succeed();
    m_clock.advance(std::chrono::seconds(3));
    const std::size_t before = m_disk.steps().size();
    store("2");
    m_queue.reset();
    // Wherever the power is cut: what the queue does not have is fed again.
    for (std::size_t step = before; step <= m_disk.steps().size(); ++step) {
        for (const QString& file : files())
            QFile::remove(m_dir.filePath(file));
        for (const auto& [name, content] : m_disk.contentAfter(step, nullptr)) {
            QFile file(m_dir.filePath(QString::fromStdString(name)));
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(content.data(), static_cast<qint64>(content.size()));
        }
        DeliveryQueue queue(m_settings, m_clock, m_wallClock);
        ASSERT_EQ(queue.after(0, 10).size(), queue.fed().number) << step;
    }
}

TEST_F(DeliveryQueueTest, KeepsNumbersAndTextsAcrossRestarts)
{
    open();
    m_queue->keep("bdSeq", "41");
    m_queue->keep("bdSeq", "42");
    add("1"); // not committed: keeping does not commit what was fed
    m_queue->keep("topics", "x");
    open();
    EXPECT_EQ(m_queue->kept("bdSeq"), "42");
    EXPECT_EQ(m_queue->kept("topics"), "x");
    EXPECT_EQ(m_queue->kept("other"), QString());
    EXPECT_EQ(m_queue->fed().number, 0);
}

TEST_F(DeliveryQueueTest, KeepsInTheFileWhatWasToBeKeptWhileTheDiskRefused)
{
    CrashDisk& disk = m_disk;
    open(kDisk);
    disk.failCalls(0, -1);
    m_queue->keep("bdSeq", "1");
    EXPECT_EQ(m_queue->kept("bdSeq"), "1");
    disk.succeed();
    retry();
    store("1");
    open(kDisk);
    EXPECT_EQ(m_queue->kept("bdSeq"), "1");
}

// ---- A full disk --------------------------------------------------------------------------------

namespace {

class DeliveryQueueFullDisk : public DeliveryQueueTest
{
protected:
    void SetUp() override
    {
        m_disk.forgetSteps();
        open(kDisk);
    }
    /// Adds messages until the disk has no room for them. Returns how many are in the file.
    int fill()
    {
        m_disk.limit(400 * 1000);
        int count = 0;
        while (state() == "on disk" && count < 10000) {
            for (int i = 0; i < kOfCommit; ++i)
                add(bodyOf(++count));
            for (const QueuedMessage& message : m_queue->commit())
                m_all[message.id] = message.body;
        }
        EXPECT_LT(count, 10000);
        EXPECT_EQ(state(), "in memory");
        EXPECT_NE(reason().find("full"), std::string::npos) << reason();
        return count - kOfCommit;
    }
    static QByteArray bodyOf(int number) { return QByteArray::number(number).rightJustified(500); }
    /// What waits is what was added and not acknowledged, in order.
    void expectAllWaits()
    {
        const QVector<QueuedMessage> rows = m_queue->after(0, 100000);
        std::map<qint64, QByteArray> found;
        for (const QueuedMessage& row : rows)
            found[row.id] = row.body;
        EXPECT_EQ(rows.size(), static_cast<int>(found.size()));
        EXPECT_EQ(found, m_all);
        EXPECT_EQ(m_queue->size(), static_cast<qint64>(m_all.size()));
        EXPECT_EQ(m_queue->lost(), 0);
    }
    /// The broker takes so many of the oldest.
    void acknowledge(int count)
    {
        for (const QueuedMessage& message : m_queue->after(0, count)) {
            m_queue->remove(message.id);
            m_all.erase(message.id);
        }
    }

    static const int kOfCommit = 10;
    std::map<qint64, QByteArray> m_all; ///< by id
};

} // namespace

TEST_F(DeliveryQueueFullDisk, GivesWhatIsInTheFileAndWhatCameSince)
{
    const int onDisk = fill();
    ASSERT_GT(onDisk, 50);
    expectAllWaits();
    const QueuedMessage held = store("held");
    m_all[held.id] = held.body;
    expectAllWaits();
    acknowledge(50);
    expectAllWaits();
    EXPECT_EQ(m_queue->after(0, 1)[0].body, bodyOf(51));
    EXPECT_EQ(m_queue->removing(), 0) << "there may be no commit for long";
}

TEST_F(DeliveryQueueFullDisk, RecoversByItselfWhenTheBrokerHasTakenWhatItHad)
{
    const int onDisk = fill();
    const QueuedMessage held = store("held");
    m_all[held.id] = held.body;
    acknowledge(onDisk);
    for (int i = 0; i < 5; ++i)
        retry();
    EXPECT_EQ(state(), "on disk") << reason();
    expectAllWaits();
    const QueuedMessage next = store("next");
    EXPECT_EQ(next.series, held.series);
    EXPECT_EQ(next.sequence, held.sequence + 1);
    m_all[next.id] = next.body;
    expectAllWaits();
    open(kDisk);
    EXPECT_EQ(m_queue->size(), static_cast<qint64>(m_all.size()));
    EXPECT_EQ(store("after").sequence, next.sequence + 1);
}

TEST_F(DeliveryQueueFullDisk, StoresAllOfItWhenThereIsRoomAgain)
{
    fill();
    for (int i = 0; i < 20; ++i) {
        const QueuedMessage held = store("held");
        m_all[held.id] = held.body;
        m_clock.advance(std::chrono::seconds(1)); // it is tried in vain
    }
    acknowledge(30);
    expectAllWaits();
    m_disk.limit(-1);
    retry();
    EXPECT_EQ(state(), "on disk") << reason();
    EXPECT_EQ(reason(), "");
    expectAllWaits();
    open(kDisk);
    EXPECT_EQ(m_queue->size(), static_cast<qint64>(m_all.size()));
}

TEST_F(DeliveryQueueFullDisk, GivesAllOfItWhenANewFileTakesOnlyAPart)
{
    m_settings.keepMegabytes = 4; // in transactions of less than what is held
    open(kDisk);
    const int onDisk = fill();
    for (int i = 0; i < 3000; ++i) {
        const QueuedMessage held = store(bodyOf(i));
        m_all[held.id] = held.body;
    }
    acknowledge(onDisk);
    for (int i = 0; i < 3; ++i) {
        retry();
        expectAllWaits();
        EXPECT_EQ(state(), "in memory");
        EXPECT_GT(m_queue->status()["bytes"], 200 * 1000);
    }
    m_disk.limit(-1);
    retry();
    EXPECT_EQ(state(), "on disk") << reason();
    expectAllWaits();
}

TEST_F(DeliveryQueueFullDisk, KeepsItsBooksWhileItIsFullAgainAndAgain)
{
    std::mt19937 random(18);
    const auto passTime = [&] {
        m_clock.advance(std::chrono::milliseconds(500));
        for (const QueuedMessage& message : m_queue->commit())
            m_all[message.id] = message.body;
    };
    for (int round = 0; round < 60; ++round) {
        m_disk.limit(round % 3 == 2 ? -1 : 150 * 1000 + static_cast<int>(random() % 200000));
        for (int i = 0; i < 40; ++i) {
            for (std::size_t k = random() % 8; k > 0; --k)
                add(bodyOf(static_cast<int>(m_number) + 1));
            passTime();
            acknowledge(static_cast<int>(random() % 8));
        }
        ASSERT_NO_FATAL_FAILURE(expectAllWaits());
        if (HasFailure())
            FAIL() << "round " << round;
    }
    m_disk.limit(-1);
    retry();
    EXPECT_EQ(state(), "on disk") << reason();
    expectAllWaits();
    open(kDisk);
    std::vector<QByteArray> bodies;
    for (const QueuedMessage& row : m_queue->after(0, 100000))
        bodies.push_back(row.body);
    std::vector<QByteArray> expected;
    for (const auto& each : m_all)
        expected.push_back(each.second);
    EXPECT_EQ(bodies, expected);
}

// ---- Every call that fails ----------------------------------------------------------------------

namespace {

using Number = std::tuple<qint64, QString, qint64>; // series, line, sequence

/// Stores, removes and reads for a while. What was committed has numbers of its own; what was not
/// removed waits in the end.
class DeliveryQueueFaults : public DeliveryQueueTest
{
protected:
    void work(CrashDisk& disk)
    {
        m_expected.clear();
        for (int i = 0; i < 12; ++i) {
            for (const char* line : {"press", "oven"})
                add(QByteArray::number(m_number), line);
            for (const QueuedMessage& message : m_queue->commit())
                take(message);
            if (i % 3 == 0 && !m_expected.empty()) {
                const auto first = m_expected.begin();
                m_queue->remove(first->first);
                m_expected.erase(first);
            }
            m_queue->after(0, 5);
            if (i % 4 == 1)
                m_queue->keep("bdSeq", QString::number(i));
            m_clock.advance(std::chrono::seconds(1));
        }
        disk.succeed();
        retry();
    }
    void take(const QueuedMessage& message)
    {
        EXPECT_TRUE(m_numbers.insert({message.series, message.line, message.sequence}).second);
        EXPECT_TRUE(m_expected.emplace(message.id, message.body).second);
    }
    std::string expected() const
    {
        std::string text;
        for (const auto& [id, body] : m_expected)
            text += (text.empty() ? "" : " ") + body.toStdString();
        return text;
    }
    std::set<Number> m_numbers;
    std::map<qint64, QByteArray> m_expected; ///< by id
};

} // namespace

TEST_F(DeliveryQueueFaults, LosesNothingWhicheverCallOfTheDiskFails)
{
    CrashDisk& disk = m_disk;
    disk.forgetSteps();
    open(kDisk);
    work(disk);
    ASSERT_EQ(waiting(), expected());
    const long long before = disk.calls();
    work(disk);
    const long long calls = disk.calls() - before;
    ASSERT_GT(calls, 100);
    for (const int count : {1, 3, 40}) {
        for (long long call = 0; call < calls; call += count == 1 ? 1 : 7) {
            QFile::remove(path());
            QFile::remove(path() + "-wal");
            m_queue.reset();
            for (const QString& file : files())
                QFile::remove(m_dir.filePath(file));
            m_numbers.clear();
            m_number = 0;
            open(kDisk);
            disk.failCalls(call, count);
            work(disk);
            ASSERT_EQ(state(), "on disk") << reason();
            ASSERT_EQ(waiting(), expected()) << call << " " << count;
            ASSERT_EQ(m_queue->lost(), 0) << call << " " << count;
            ASSERT_EQ(m_queue->kept("bdSeq"), "9");
            const qint64 number = m_queue->fed().number;
            open(kDisk);
            ASSERT_EQ(waiting(), expected()) << call << " " << count;
            ASSERT_EQ(m_queue->kept("bdSeq"), "9");
            ASSERT_EQ(m_queue->fed().number, number);
            take(store("last"));
        }
    }
}

TEST_F(DeliveryQueueFaults, OpensInTheEndWhicheverCallFailsAtTheStart)
{
    CrashDisk& disk = m_disk;
    disk.forgetSteps();
    open(kDisk);
    const QueuedMessage old = store("old");
    m_queue.reset();
    long long before = disk.calls();
    open(kDisk);
    const long long calls = disk.calls() - before;
    for (long long call = 0; call < calls; ++call) {
        m_queue.reset();
        disk.failCalls(call, 2);
        open(kDisk);
        const QueuedMessage added = store("new");
        disk.succeed();
        retry();
        ASSERT_EQ(state(), "on disk") << reason();
        ASSERT_EQ(waiting(), "old new") << call;
        ASSERT_TRUE(added.series != old.series || added.sequence > old.sequence);
        const QVector<QueuedMessage> rows = m_queue->after(0, 10);
        m_queue->remove(rows[1].id);
        m_queue->commit();
    }
}

// ---- Power cuts ---------------------------------------------------------------------------------

namespace {

class DeliveryQueueCrash : public DeliveryQueueTest
{
protected:
    /// What a test saw when the disk had done so many steps.
    struct Seen
    {
        std::size_t step;
        std::map<qint64, QByteArray> waiting; ///< by id
        qint64 sequence;
        qint64 fed;
    };

    void work(int commits)
    {
        open(kDisk);
        std::map<qint64, QByteArray> waiting;
        m_seen.push_back({m_disk.steps().size(), {}, 0, 0});
        for (int i = 0; i < commits; ++i) {
            for (int k = 0; k < 20; ++k)
                add(QByteArray::number(m_number) + QByteArray(200, ' '));
            while (waiting.size() > 30) {
                m_queue->remove(waiting.begin()->first);
                waiting.erase(waiting.begin());
            }
            for (const QueuedMessage& message : m_queue->commit())
                waiting[message.id] = message.body;
            m_seen.push_back({m_disk.steps().size(), waiting, m_number, m_number});
        }
    }
    /// The state before or after the commit during which the power was cut, as a whole.
    void checkAfter(std::size_t step, std::mt19937* random)
    {
        m_queue.reset();
        for (const QString& file : files())
            QFile::remove(m_dir.filePath(file));
        for (const auto& [name, content] : m_disk.contentAfter(step, random)) {
            QFile file(m_dir.filePath(QString::fromStdString(name)));
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(content.data(), static_cast<qint64>(content.size()));
        }
        const DeliveryQueueSettings cut = m_settings;
        DeliveryQueue queue(cut, m_clock, m_wallClock);
        std::map<qint64, QByteArray> waiting;
        for (const QueuedMessage& message : queue.after(0, 1000))
            waiting[message.id] = message.body;
        std::size_t done = 0;
        while (done + 1 < m_seen.size() && m_seen[done + 1].step <= step)
            ++done;
        const std::size_t next = std::min(done + 1, m_seen.size() - 1);
        const Seen& seen = waiting == m_seen[done].waiting ? m_seen[done] : m_seen[next];
        ASSERT_EQ(waiting, seen.waiting) << "step " << step;
        ASSERT_EQ(queue.fed().number, seen.fed) << "step " << step;
        queue.add(messageOf("a", "after"), {"run", 1});
        ASSERT_EQ(queue.commit().value(0).sequence, seen.sequence + 1);
        ASSERT_EQ(queue.status()["state"], "on disk");
    }

    std::vector<Seen> m_seen;
};

} // namespace

TEST_F(DeliveryQueueCrash, HasAfterAPowerCutWhatWasCommittedAndNoNumberTwice)
{
    work(25);
    const std::size_t steps = m_disk.steps().size();
    std::mt19937 random(18);
    for (std::size_t step = m_seen[0].step; step <= steps; step += 1 + steps / 150) {
        ASSERT_NO_FATAL_FAILURE(checkAfter(step, nullptr));
        ASSERT_NO_FATAL_FAILURE(checkAfter(step, &random));
    }
}

// ---- Kills --------------------------------------------------------------------------------------

namespace {

/// Fills a queue, deletes what is older than fifty messages, and tells each commit, until killed.
[[noreturn]] void fillUntilKilled(const DeliveryQueueSettings& settings, int out)
{
    const SystemClock clock;
    const SystemWallClock wallClock;
    DeliveryQueue queue(settings, clock, wallClock);
    QueuedMessage message;
    message.line = "press";
    message.name = "a";
    for (qint64 number = queue.fed().number; true;) {
        for (int i = 0; i < 10; ++i) {
            message.body = QByteArray::number(++number);
            queue.add(message, {"run", number});
        }
        queue.commit();
        for (const QueuedMessage& each : queue.after(0, 1000)) {
            if (each.id <= queue.lastId() - 50)
                queue.remove(each.id);
        }
        if (::write(out, &number, sizeof number) != sizeof number)
            ::_exit(1);
    }
}

} // namespace

TEST_F(DeliveryQueueTest, HasAfterAKillWhatItToldAsCommittedAndNoNumberTwice)
{
    qint64 told = 0;
    std::mt19937 random(18);
    for (int round = 0; round < 20; ++round) {
        int ends[2] = {};
        ASSERT_EQ(::pipe(ends), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0)
            fillUntilKilled(m_settings, ends[1]);
        ::close(ends[1]);
        for (int i = 0, commits = 1 + static_cast<int>(random() % 40); i < commits; ++i)
            ASSERT_EQ(::read(ends[0], &told, sizeof told), ssize_t(sizeof told));
        ::kill(child, SIGKILL);
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
        for (qint64 number = 0; ::read(ends[0], &number, sizeof number) == sizeof number;)
            told = number;
        ::close(ends[0]);

        open();
        const qint64 fed = m_queue->fed().number;
        EXPECT_GE(fed, told);
        EXPECT_LE(fed, told + 10);
        const QVector<QueuedMessage> rows = m_queue->after(0, 1000);
        EXPECT_EQ(rows.size(), m_queue->size());
        ASSERT_GE(rows.size(), 10);
        for (int i = 0; i < rows.size(); ++i) {
            const qint64 number = fed - rows.size() + 1 + i;
            ASSERT_EQ(rows[i].body, QByteArray::number(number));
            ASSERT_EQ(rows[i].sequence, number);
        }
        m_queue.reset();
    }
}
