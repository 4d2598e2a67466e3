#ifndef MICRO850_HOST_OPERATIONQUEUE_H
#define MICRO850_HOST_OPERATIONQUEUE_H

#include "Driver.h"
#include "Operation.h"
#include "Station.h"
#include "TypeRegistry.h"

#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QQueue>

namespace micro850::host {

/// What the reply of a transaction means for the operations that finish with it.
struct ReplyStatus
{
    QString refusal;             ///< why the controller refused the request; empty when it did not
    bool connectionLost = false; ///< it refused because it does not know the connection
    Failure failure;             ///< why there is no reply, or no connection any more
};

/// The single reads and writes: those that wait, and those that the driver has. The driver gets one
/// operation of a station at a time, so that the host knows which ones the driver drops together
/// with a connection or a station.
class OperationQueue
{
public:
    /// The arguments must live longer than this object.
    OperationQueue(Driver& driver, TypeRegistry& types) : m_driver(driver), m_types(types) {}

    /// Makes a tag known to the driver and to the types.
    void declare(const TagKey& key);
    /// Adds an operation after all others of its station and returns its id. The type of its tag is
    /// learnt first.
    int add(Operation operation);
    /// Adds an operation that learns the type of a tag.
    void askForType(const TagKey& key);
    /// The operation once it is finished; null before, and for an id that is unknown.
    const Operation* outcome(int id) const;
    /// True until the operation ends, and while it is kept after its end.
    bool contains(int id) const { return m_operations.contains(id); }
    /// Removes a finished operation.
    void forget(int id) { m_operations.remove(id); }

    /// Ends an operation that nobody waits for any more; call forget() no more. True for a write
    /// that was not carried out and never will be: one that the driver has already is taken back
    /// when isAbandoned() tells that its turn has come.
    bool abandon(int id);
    /// False: no operation that the driver has is abandoned.
    bool hasAbandoned() const { return m_someAbandoned; }
    /// True when the driver's next frame is that of a write which was abandoned.
    bool isAbandoned(int id, const TagKey& key) const;

    /// Gives waiting operations to the driver. Those of a station that is not in service fail.
    void pump(const QMap<int, Station>& stations);
    /// The operation with this id when it concerns this tag, else null. It is valid until the next
    /// call.
    const Operation* find(int id, const TagKey& key) const;
    void setResult(int id, const QByteArray& result) { m_operations[id].result = result; }
    /// The operation was sent without an answer. If it is a write, it is not queued again: that
    /// would overwrite a newer value when it was carried out. False for an id of another tag or of
    /// no write.
    bool noteUnanswered(int id, const TagKey& key);
    /// Ends the operations that the driver reported finished. An operation that failed because the
    /// connection was lost is tried again, three times in all.
    void endFinished(const ReplyStatus& status);
    /// The driver gave up the connection of a station, and with it the writes that are queued.
    void handleDroppedConnection(int station, const ReplyStatus& status);
    /// Removes the reads of a variable that wait.
    void removeReads(int station, int variable);
    /// Ends all operations of a station that has no connection.
    void failAll(int station, const Failure& failure);

private:
    void pumpStation(const Station& station);
    void giveToDriver(Operation& operation);
    void deferUntilTyped(Operation& operation);
    void applyOutcome(Operation& operation, bool succeeded, const ReplyStatus& status);
    void waitAgain(Operation& operation);
    void failUnanswered(Operation& operation, const ReplyStatus& status);
    void fail(Operation& operation, const Failure& failure);
    void end(Operation& operation, Operation::State state, const QString& error = QString());

    Driver& m_driver;
    TypeRegistry& m_types;
    QHash<int, Operation> m_operations; ///< by id
    /// Ids, by station. They can be those of operations that were removed.
    QMap<int, QQueue<int>> m_waiting;
    QMap<int, int> m_removed; ///< by station, the ids that are such at most
    /// By variable, the ids of its reads since the last removal, without timed ones.
    QHash<int, QVector<int>> m_readsOf;
    QMap<int, int> m_inDriver; ///< the one id that the driver has, by station
    Failure m_lastFailure;     ///< of an operation
    int m_lastId = 0;
    bool m_someAbandoned = false; ///< false: no operation in the driver is abandoned
    bool m_mayWait = false;       ///< false: no station has an operation that waits
};

} // namespace micro850::host

#endif
