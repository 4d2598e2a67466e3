#ifndef MICRO850_GATEWAY_DELIVERY_DELIVERYFILE_H
#define MICRO850_GATEWAY_DELIVERY_DELIVERYFILE_H

#include "Database.h"
#include "HistoryBudget.h"
#include "QueuedMessage.h"

#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QVector>

namespace micro850::gateway {

struct DeliveryStatements;

/// What a queue's file has beside its messages.
struct DeliveryState
{
    QString identity; ///< of the file: no other one has it
    qint64 series = 0;
    qint64 lastId = 0;
    qint64 waiting = 0;
    qint64 lost = 0;
    qint64 recorded = 0;             ///< how long the queue was in use, in milliseconds
    QHash<QString, qint64> sequence; ///< the last one of each line, in this series
    FeedPosition fed;
    QMap<QString, QString> kept;
};

/// A message, and the time of use when it came.
struct StoredMessage
{
    QueuedMessage message;
    qint64 recorded = 0; ///< milliseconds
};

/// What a transaction changes.
struct DeliveryChanges
{
    QVector<StoredMessage> added; ///< with rising ids
    QVector<qint64> removed;
    qint64 series = 0;
    qint64 lastId = 0;
    qint64 lost = 0;
    qint64 recorded = 0;
    QHash<QString, qint64> sequence; ///< of the lines that have a new one
    bool isNewSeries = false;        ///< other lines have no sequence any more
    FeedPosition fed;
    QMap<QString, QString> kept; ///< what is new
};

/// The database of a queue. Functions throw UserError; after that the object must be destroyed,
/// unless the disk is only full and rollBack() succeeds.
class DeliveryFile
{
public:
    /// Opens the file or creates it with `series`. On a smaller disk it takes less than `bytes`.
    DeliveryFile(const QString& path, qint64 bytes, qint64 series, const char* fileSystem);
    ~DeliveryFile();
    DeliveryFile(const DeliveryFile&) = delete;
    DeliveryFile& operator=(const DeliveryFile&) = delete;

    DeliveryState state();
    /// Forgets the sources of messages when there is no message. An error of it does not matter.
    void removeSources();
    /// Undoes what a transaction that failed has left open: the file is as it was before.
    void rollBack();
    /// Brings what is in the log into the file, so that the log takes no room.
    void emptyLog();
    /// Deletes the messages after this one: those of a transaction of which nobody knew whether it
    /// was done.
    void removeAfter(qint64 id);
    /// All of it or nothing. Returns how many of those removed were there.
    qint64 write(const DeliveryChanges& changes);
    QVector<QueuedMessage> after(qint64 id, int most);
    QVector<QueuedMessage> latest();

    struct Removed
    {
        qint64 count = 0;
        bool more = false; ///< there is more to remove
    };
    /// Removes some of what came before `recorded`, or of the oldest while there is too much.
    Removed retain(qint64 recorded);
    /// A message and a transaction are smaller.
    qint64 bytesOfTransaction() const { return m_budget.bytesOfTransaction(); }
    /// Of the file and its log.
    qint64 bytes() const;
    /// The time of the oldest message; 0 when there is none.
    qint64 oldest();

private:
    void create() const;
    void prepare(qint64 series);
    void setLimits();
    void requireInPlace() const;
    void requireRoomInLog();
    bool hasTooMuch();
    qint64 affordable() const;
    void givePagesBack();
    qint64 sourceOf(const QueuedMessage& message);

    QString m_path;
    const qint64 m_wantedBytes;
    host::HistoryBudget m_budget;
    std::unique_ptr<host::Database> m_database;
    std::unique_ptr<DeliveryStatements> m_statements;
    quint64 m_device = 0;
    quint64 m_inode = 0;
    QHash<QString, qint64> m_sources; ///< by line, station and name
};

} // namespace micro850::gateway

#endif
