#include "HistoryQueries.h"

#include "HistoryReader.h"

#include <algorithm>

namespace micro850::gateway {

namespace {

const std::size_t kMostTasks = 64;
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

bool HistoryQueries::add(const QString& file, const HistoryQuery& query, Done done)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_tasks.size() >= kMostTasks)
            return false;
        m_tasks.push_back({file, query, std::move(done)});
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
        m_wake.wait(lock, [this] { return m_ending || !m_tasks.empty(); });
        if (m_ending)
            return;
        const Task task = std::move(m_tasks.front());
        m_tasks.pop_front();
        lock.unlock();
        task.done(answer(task));
    }
}

HistoryAnswer HistoryQueries::answer(const Task& task) const
{
    HistoryAnswer answer;
    const std::size_t limit =
        static_cast<std::size_t>(std::clamp(task.query.limit, 1, kMostHistoryValues));
    try {
        host::HistoryReader reader(task.file);
        qint64 bytes = 0;
        reader.values(task.query.filter, [&](const host::HistoryValue& value) {
            if (isEnding())
                return false;
            bytes += kObjectBytes + sizeOf(value);
            answer.complete =
                answer.values.empty() || (answer.values.size() < limit && bytes <= kMostBytes);
            if (answer.complete)
                answer.values.push_back(jsonOf(value));
            return answer.complete;
        });
    } catch (const UserError& error) {
        answer = HistoryAnswer();
        answer.errorCode = QStringLiteral("refused");
        answer.errorText = QString::fromUtf8(error.what());
    }
    return answer;
}

} // namespace micro850::gateway
