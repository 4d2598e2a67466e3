#include "HistoryQueries.h"

#include "HistoryReader.h"

#include <algorithm>

namespace micro850::gateway {

namespace {

const std::size_t kMostJobs = 64;
// An answer is complete, or has so many bytes.
const qint64 kMostBytes = qint64(8) * 1024 * 1024;
// What an object of the answer takes besides the value itself.
const qint64 kObjectBytes = 400;

} // namespace

HistoryQueries::HistoryQueries() : m_thread([this] { run(); }) {}

HistoryQueries::~HistoryQueries()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ending = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

bool HistoryQueries::add(Job job)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_jobs.size() >= kMostJobs)
            return false;
        m_jobs.push_back(std::move(job));
    }
    m_wake.notify_one();
    return true;
}

bool HistoryQueries::isEnding() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_ending;
}

void HistoryQueries::run()
{
    for (;;) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait(lock, [this] { return m_ending || !m_jobs.empty(); });
        if (m_ending)
            return;
        const Job job = std::move(m_jobs.front());
        m_jobs.pop_front();
        lock.unlock();
        job([this] { return isEnding(); });
    }
}

// ---- Answers ------------------------------------------------------------------------------------

namespace {

/// Collects rows until the answer is full.
class Collector
{
public:
    Collector(int limit, const std::function<bool()>& isEnding)
        : m_limit(static_cast<std::size_t>(std::clamp(limit, 1, kMostHistoryValues))),
          m_isEnding(isEnding)
    {
    }
    template<typename Row> bool add(const Row& row)
    {
        if (m_isEnding())
            return false;
        m_bytes += kObjectBytes + sizeOf(row);
        answer.complete =
            answer.values.empty() || (answer.values.size() < m_limit && m_bytes <= kMostBytes);
        if (answer.complete)
            answer.values.push_back(jsonOf(row));
        return answer.complete;
    }

    HistoryAnswer answer;

private:
    const std::size_t m_limit;
    const std::function<bool()>& m_isEnding;
    qint64 m_bytes = 0;
};

/// What `read` collects of the file.
HistoryAnswer collected(const QString& file, int limit, const std::function<bool()>& isEnding,
                        const std::function<void(host::HistoryReader&, Collector&)>& read)
{
    Collector collector(limit, isEnding);
    try {
        host::HistoryReader reader(file);
        read(reader, collector);
    } catch (const UserError& error) {
        HistoryAnswer refused;
        refused.errorCode = QStringLiteral("refused");
        refused.errorText = QString::fromUtf8(error.what());
        return refused;
    }
    return std::move(collector.answer);
}

HistoryFilter filterOf(const RecordQuery& query)
{
    HistoryFilter filter;
    filter.from = query.from;
    filter.to = query.to;
    filter.lastFirst = true;
    return filter;
}

} // namespace

HistoryAnswer answerOf(const QString& file, const HistoryQuery& query,
                       const std::function<bool()>& isEnding)
{
    return collected(file, query.limit, isEnding,
                     [&query](host::HistoryReader& reader, Collector& collector) {
                         reader.values(query.filter, [&collector](const host::HistoryValue& value) {
                             return collector.add(value);
                         });
                     });
}

namespace {

// The code and the text of a trend that cannot be shown.
void explain(TrendAnswer& answer, const TrendQuery& query, const host::HistoryTrend& trend)
{
    using Outcome = host::HistoryTrend::Outcome;
    const QString name = QStringLiteral("\"%1\" of the line \"%2\"").arg(query.name, query.line);
    switch (trend.outcome) {
    case Outcome::Done:
        return;
    case Outcome::Unknown:
        answer.errorCode = QStringLiteral("unknown-name");
        answer.errorText = QStringLiteral("the history has no values of ") + name;
        return;
    case Outcome::NoElement:
        answer.errorCode = QStringLiteral("unknown-name");
        answer.errorText =
            QStringLiteral("element %1: %2 has the elements 0 to %3")
                .arg(QString::number(query.element), name, QString::number(trend.length - 1));
        return;
    case Outcome::NoNumber:
        answer.errorCode = QStringLiteral("refused");
        answer.errorText = name + QStringLiteral(" is no number: it has no trend");
        return;
    case Outcome::Ended:
        answer.errorCode = QStringLiteral("busy");
        answer.errorText = QStringLiteral("the service is ending");
        return;
    }
}

} // namespace

TrendAnswer trendOf(const QString& file, const TrendQuery& query,
                    const std::optional<qint64>& recordedUntil,
                    const std::function<bool()>& isEnding)
{
    TrendAnswer answer;
    if (query.from >= query.to) {
        answer.errorCode = QStringLiteral("bad-request");
        answer.errorText = QStringLiteral("the span begins after its end (\"from\" must be before "
                                          "\"to\")");
        return answer;
    }
    try {
        host::HistoryReader reader(file);
        const host::HistoryTrend trend =
            reader.trend({query.line, query.name, query.element, query.from, query.to,
                          std::clamp(query.points, 1, kMostTrendPoints), recordedUntil},
                         isEnding);
        explain(answer, query, trend);
        answer.unit = trend.unit;
        answer.resolutionMs = trend.resolutionMs;
        answer.points = trend.points;
    } catch (const UserError& error) {
        answer.errorCode = QStringLiteral("refused");
        answer.errorText = QString::fromUtf8(error.what());
    }
    return answer;
}

HistoryAnswer eventsOf(const QString& file, const RecordQuery& query,
                       const std::function<bool()>& isEnding)
{
    return collected(
        file, query.limit, isEnding, [&query](host::HistoryReader& reader, Collector& collector) {
            reader.events(filterOf(query), [&collector](const host::HistoryEvent& event) {
                return collector.add(event);
            });
        });
}

HistoryAnswer writesOf(const QString& file, const RecordQuery& query,
                       const std::function<bool()>& isEnding)
{
    return collected(
        file, query.limit, isEnding, [&query](host::HistoryReader& reader, Collector& collector) {
            reader.writes(filterOf(query), [&collector](const host::HistoryWrite& write) {
                return collector.add(write);
            });
        });
}

} // namespace micro850::gateway
