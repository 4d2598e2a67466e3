#include "HistoryBudget.h"

#include <algorithm>

namespace micro850::host {

namespace {

const qint64 kLeastLog = qint64(256) * 1024;
const qint64 kMostLog = qint64(128) * 1024 * 1024;
// The index of the log grows by as much for every 4096 pages of it.
const qint64 kIndexPart = qint64(32) * 1024;

} // namespace

HistoryBudget::HistoryBudget(qint64 bytes)
    : m_log(std::clamp(bytes / 8, kLeastLog, kMostLog)),
      // Two parts more: the first is not full, and a log may end between two.
      m_mostPages((bytes - m_log - (m_log / kPageSize / 4096 + 2) * kIndexPart) / kPageSize)
{
}

} // namespace micro850::host
