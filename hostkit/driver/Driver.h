#ifndef MICRO850_HOST_DRIVER_H
#define MICRO850_HOST_DRIVER_H

#include "DriverLibrary.h"
#include "Operation.h"
#include "ReadPlan.h"

#include <QtCore/QPair>
#include <QtCore/QVector>

#include <array>

namespace micro850::host {

/// What a call of DataCom() told.
enum class Verdict {
    Repeat,       ///< not finished: the frame stays queued and goes out again
    Done,         ///< the transaction is finished
    NoConnection, ///< the connection set-up got no valid reply
    Dropped       ///< the retry limit is passed: request failed, connection given up
};

/// The driver as a host uses it: owns the settings record and the callbacks, and knows how many
/// calls of DataCom() an outcome takes. The callbacks carry no pointer of the host's, so that only
/// one object can exist at a time.
class Driver
{
public:
    Driver(const DriverApi& api, int defaultStation, int retryLimit);
    ~Driver();
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    /// Declares names. All are declared as carrying an index: any other name is one element at
    /// index 0 to the driver, whatever is asked.
    void declare(const QStringList& tags);
    void enableStation(int station, bool enabled);
    /// Replaces the cyclic list.
    void setCyclicReads(const ReadPlan& plan);
    /// Queues an operation; its id comes back with takeFinished().
    void queue(const Operation& operation, const Tag& tag);

    /// The next frame, or null. Valid until one of the calls below finishes it.
    Protocol* next() { return m_api.comCommunication(); }
    /// Hands over the application data of the reply to `sent`.
    Verdict handOver(Protocol& sent, const QByteArray& data);
    /// The same for a reply that refuses a read: it is acknowledged and not stored.
    Verdict handOverRefusal(Protocol& sent, const QByteArray& data);
    /// Says that no reply to `sent` came.
    Verdict reportSilence(Protocol& sent);
    /// Makes the driver give up the connection of `sent`, as after a silence beyond the retry
    /// limit.
    Verdict dropConnection(Protocol& sent);

    /// The value bytes that the driver stored of a read reply, in the controller's order.
    QByteArray storedValue(const TagKey& tag, quint16 typeCode, int element,
                           const QByteArray& replyValues) const;

    /// Operations that the driver reported finished since the last call: id, and true for success.
    QVector<QPair<int, bool>> takeFinished();

    int localLink() const { return m_settings.localLink; }

private:
    static void onFinished(int channel, int varType, int varIndex, int status);
    static void onRefresh(QList<RW_VAR>* list, int varType, int flag);
    void queueRead(const Operation& operation, const Tag& tag);
    void queueWrite(const Operation& operation, const Tag& tag);

    DriverApi m_api;
    ComInfo m_settings = ComInfo();
    QVector<QPair<int, bool>> m_finished;
    std::array<quint16, 16> m_localWords{};
};

} // namespace micro850::host

#endif
