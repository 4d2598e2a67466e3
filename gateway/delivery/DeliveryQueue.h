#ifndef MICRO850_GATEWAY_DELIVERY_DELIVERYQUEUE_H
#define MICRO850_GATEWAY_DELIVERY_DELIVERYQUEUE_H

#include "Clock.h"
#include "DeliverySettings.h"
#include "QueuedMessage.h"
#include "WallClock.h"

#include <QtCore/QVector>

#include <memory>

namespace micro850::gateway {

/// Messages that wait for the acknowledgement of the broker, in an SQLite database, bounded by size
/// and age: the oldest go first and are counted. On a disk that is smaller than the settings allow,
/// its size is the bound. What was committed outlives the process and the power. While the disk
/// refuses, messages are kept in memory, a bounded number of them.
class DeliveryQueue
{
public:
    using Fed = FeedPosition;

    /// The clocks must outlive it. A file that is damaged is set aside. Throws UserError for a file
    /// that another process uses, and for what is no queue.
    DeliveryQueue(const DeliveryQueueSettings& settings, const Clock& clock,
                  const WallClock& wallClock, const char* fileSystem = nullptr);
    ~DeliveryQueue();
    DeliveryQueue(const DeliveryQueue&) = delete;
    DeliveryQueue& operator=(const DeliveryQueue&) = delete;

    /// Adds a message, with what was fed by now. The id and the numbers do not matter: commit()
    /// gives them. A message that is too large for the queue is counted as lost.
    void add(QueuedMessage message, const Fed& fed);
    /// What was fed by now has no message.
    void skip(const Fed& fed);
    /// The broker has it, or it is not wanted any more: it is deleted with the next commit().
    void remove(qint64 id);
    /// So much was added that commit() must be called before more comes.
    bool isFull() const;
    /// Makes additions and deletions durable, in one transaction with what was fed, and deletes the
    /// oldest when there are too many. Returns what was added, with its numbers: it may be sent.
    /// When the disk refuses, it is kept in memory with what follows, in a new series, until the
    /// disk takes all of it. Also does what is due: call it several times a second.
    QVector<QueuedMessage> commit();
    /// The next commit() tries a disk that refused, without a pause.
    void retry();
    bool hasChanges() const;
    /// What is committed, also by an earlier process.
    Fed fed() const;

    /// The next committed messages with a greater id, oldest first, without those removed. While
    /// the disk refuses: of those in memory, and of those in the file as long as it can be read.
    QVector<QueuedMessage> after(qint64 id, int most);
    /// The latest message of each variable that waited when the file was opened.
    QVector<QueuedMessage> latest();
    /// The id of the last message that was committed.
    qint64 lastId() const;
    /// Changes when the messages that after() gives are others: the disk refused, or is back.
    int generation() const;
    /// Deletions that are not durable, so that these messages would be sent again after a crash.
    /// None while the disk refuses: then there may be no commit for long.
    int removing() const;
    /// Messages that wait.
    qint64 size() const;
    /// Messages that were deleted because there were too many, or because they were too old, since
    /// the file was begun. Those that the broker acknowledged all the same do not count.
    qint64 lost() const;

    /// A number or a text that outlives the process: bdSeq, topics that were announced. Durable
    /// when it returns, unless the disk refuses.
    void keep(const QString& key, const QString& value);
    QString kept(const QString& key) const;

    /// state ("on disk", "in memory"), reason, waiting, lost, bytes, oldest, series; setAside, the
    /// name that a damaged file was given, if there was one.
    host::Json status() const;

private:
    class Private;
    std::unique_ptr<Private> m_private;
};

} // namespace micro850::gateway

#endif
