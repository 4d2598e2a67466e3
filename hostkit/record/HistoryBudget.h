#ifndef MICRO850_HOST_HISTORYBUDGET_H
#define MICRO850_HOST_HISTORYBUDGET_H

#include <QtCore/QtGlobal>

#include <chrono>

namespace micro850::host {

/// How much of a history is kept.
struct HistoryLimits
{
    /// In time of recording, whatever the clock on the wall says.
    std::chrono::milliseconds age = std::chrono::hours(24 * 90);
    /// Of the file, its log and the log's index together.
    qint64 bytes = qint64(1024) * 1024 * 1024;
};

/// How the bytes of a history are shared out. A transaction is always so small that the log has
/// room for it: thus the limit holds at every moment.
class HistoryBudget
{
public:
    explicit HistoryBudget(qint64 bytes);

    static const int kPageSize = 4096;

    /// The log may have so many bytes.
    qint64 log() const { return m_log; }
    /// The file may have so many pages. With `fullPages` in use the oldest period is removed.
    qint64 mostPages() const { return m_mostPages; }
    qint64 fullPages() const { return m_mostPages - m_log / 2 / kPageSize; }
    /// A period ends, and so does a transaction, when it may have changed so many pages.
    qint64 pagesOfPeriod() const { return m_log / kPageSize / 4; }
    /// A transaction adds at most so many bytes; a single value has to be smaller.
    qint64 bytesOfTransaction() const { return m_log / 8; }
    /// The journal has at most so many writes: about a tenth of the file.
    qint64 mostWrites() const { return m_mostPages; }

private:
    qint64 m_log;
    qint64 m_mostPages;
};

} // namespace micro850::host

#endif
