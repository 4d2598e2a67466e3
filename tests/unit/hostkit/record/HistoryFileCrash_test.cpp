// Histories after power cuts.

#include "HistoryFile.h"
#include "crash_disk.h"
#include "history_rows.h"
#include "history_trends.h"

#include <QtCore/QFile>

#include <gtest/gtest.h>

#include <algorithm>

using namespace micro850::host;

namespace {

const qint64 kNow = 1795352400000; // 2026-11-22T13:00:00Z
const int kRowsOfTransaction = 20;

class HistoryFileCrash : public ::testing::Test
{
protected:
    QString path(const QString& name) const { return m_dir.filePath(name); }

    /// Records numbers through the disk, and notes behind which step each transaction was done.
    void record(int transactions, qint64 bytes)
    {
        HistoryLimits limits;
        limits.bytes = bytes;
        HistoryFile file(path("h.sqlite"), limits, "crash-disk");
        std::vector<std::shared_ptr<const HistoryVariable>> variables;
        for (int i = 0; i < 3; ++i)
            variables.push_back(history::variable(QString::number(i)));
        for (int t = 0; t < transactions; ++t) {
            if (t % 50 == 49)
                file.endPeriod();
            file.begin();
            for (int i = 0; i < kRowsOfTransaction; ++i, ++m_number)
                file.add(history::value(variables[m_number % 3], kNow + m_number, m_number));
            file.commit();
            m_done.emplace_back(m_disk.steps().size(), m_number);
            for (int i = 0; i < 8 && file.retain(); ++i) {
            }
        }
    }
    /// What a power cut leaves is sound, has everything that was committed before, and nothing
    /// that was never recorded.
    void checkAfter(std::size_t step, std::mt19937* random)
    {
        for (const char* name : {"cut.sqlite", "cut.sqlite-wal", "cut.sqlite-shm"})
            QFile::remove(path(name));
        for (const auto& [name, content] : m_disk.contentAfter(step, random)) {
            QFile file(path(QString::fromStdString(name).replace("h.sqlite", "cut.sqlite")));
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(content.data(), static_cast<qint64>(content.size()));
        }
        int committed = 0;
        int begun = kRowsOfTransaction;
        for (const auto& [done, number] : m_done) {
            if (done <= step) {
                committed = number;
                begun = number + kRowsOfTransaction;
            }
        }
        if (committed == 0)
            return; // the file may not be there yet
        ASSERT_EQ(history::integrityOf(path("cut.sqlite")).toStdString(), "ok") << "step " << step;
        const std::vector<HistoryValue> rows = history::valuesOf(path("cut.sqlite"));
        ASSERT_FALSE(rows.empty()) << "step " << step;
        int expected = rows.front().value.get<int>();
        for (const HistoryValue& row : rows) {
            ASSERT_EQ(row.value, expected) << "step " << step;
            ASSERT_EQ(row.time, kNow + expected);
            ASSERT_EQ(row.variable->name, QString::number(expected % 3));
            ++expected;
        }
        ASSERT_GE(expected, committed) << "step " << step;
        ASSERT_LE(expected, begun) << "step " << step;
        // So do the rollups.
        TrendRequest request;
        request.line = "press";
        request.name = "1";
        request.from = rows.front().time;
        request.to = rows.back().time + 1;
        request.points = 3;
        const HistoryTrend trend = history::trendOf(path("cut.sqlite"), request);
        if (trend.resolutionMs > 0) {
            const auto parts = history::expectedParts(rows, request, trend.resolutionMs,
                                                      [](qint64) { return std::nan(""); });
            ASSERT_EQ(history::difference(trend.points, parts), "") << "step " << step;
            ++m_trends;
        }
        // The recording goes on with the next sequence.
        HistoryFile file(path("cut.sqlite"), {});
        ASSERT_EQ(file.sequence(), rows.back().sequence);
    }

    history::FastDir m_dir;
    CrashDisk m_disk{"crash-disk"};
    std::vector<std::pair<std::size_t, int>> m_done;
    int m_number = 0;
    int m_trends = 0; ///< that were compared
};

TEST_F(HistoryFileCrash, LeavesASoundFileAtEverySynchronisation)
{
    record(1800, 1024 * 1024); // the oldest are removed, and the log is emptied many times
    ASSERT_LT(history::valuesOf(path("h.sqlite")).size(), std::size_t(m_number));
    std::vector<std::size_t> syncs;
    for (std::size_t i = 0; i < m_disk.steps().size(); ++i) {
        if (m_disk.steps()[i].kind == CrashDisk::Kind::Sync)
            syncs.push_back(i);
    }
    ASSERT_GT(syncs.size(), 1000u);
    // The first ones, the last ones, and others between.
    for (std::size_t i = 0; i < syncs.size(); i += i < 40 || i + 40 > syncs.size() ? 1 : 31) {
        checkAfter(syncs[i], nullptr);
        checkAfter(syncs[i] + 1, nullptr);
        if (HasFatalFailure())
            return;
    }
    EXPECT_GT(m_trends, 50);
}

TEST_F(HistoryFileCrash, LeavesASoundFileWhateverPartOfTheRestIsWritten)
{
    record(1800, 1024 * 1024);
    std::mt19937 random(20261122);
    std::vector<std::size_t> cuts(150);
    for (std::size_t& cut : cuts)
        cut = random() % (m_disk.steps().size() + 1);
    std::sort(cuts.begin(), cuts.end());
    for (std::size_t cut : cuts) {
        checkAfter(cut, &random);
        if (HasFatalFailure())
            return;
    }
    EXPECT_GT(m_trends, 50);
}

TEST_F(HistoryFileCrash, SaysThatACommitFailedWhoseSynchronisationFailed)
{
    HistoryFile file(path("h.sqlite"), {}, "crash-disk");
    file.begin();
    file.add(history::value(history::variable("A"), kNow, 1));
    m_disk.failSyncs(1);
    EXPECT_THROW(file.commit(), DatabaseError);
}

} // namespace
