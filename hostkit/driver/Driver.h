#ifndef MICRO850_HOST_DRIVER_H
#define MICRO850_HOST_DRIVER_H

#include "ByteSlice.h"
#include "DriverLibrary.h"
#include "ReadPlan.h"
#include "TagKey.h"

#include <QtCore/QVector>

#include <array>

namespace micro850::host {

/// The result of a call of DataCom().
enum class Verdict {
    Repeat,       ///< not finished: the frame stays queued and goes out again
    Done,         ///< the transaction is finished
    NoConnection, ///< the connection set-up got no valid reply
    Dropped       ///< the retry limit is passed: the request failed, the connection is given up
};

/// An operation that the driver reported finished.
struct Finished
{
    int id;
    bool succeeded;
};

/// The driver as a host uses it. It owns the settings record and the callbacks, and it knows how
/// many calls of DataCom() an outcome takes. Only one object can exist at a time, because the
/// callbacks carry no pointer that belongs to the host.
class Driver
{
public:
    Driver(const DriverApi& api, int defaultStation, int retryLimit);
    ~Driver();
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    /// Declares names, all of them as names with an index: of any other name the driver reads one
    /// element at index 0, whatever is asked for.
    void declare(const QStringList& tags);
    void enableStation(int station, bool enabled);
    /// Replaces the cyclic list.
    void setCyclicReads(const ReadPlan& plan);
    // Each of these queues one operation. popFinished() reports its id.

    /// Reads element 0 of a tag whose type is not known.
    void queueLearn(int id, const TagKey& tag);
    /// Reads a run of elements.
    void queueRead(int id, const TagKey& tag, const CipType& type, const Run& run);
    /// Writes one element. `value` is in the controller's byte order. The driver replaces a queued
    /// write by a later one to the same area, element and count.
    void queueWrite(int id, const TagKey& tag, const CipType& type, int area, int element,
                    const QByteArray& value);

    /// The next frame, or null. It is valid until one of the next four calls finishes it.
    Protocol* next() { return m_api.comCommunication(); }
    /// Passes the reply to `sent` to the driver: an intact frame, as wireFrame() builds it.
    Verdict handOver(Protocol& sent, const QByteArray& frame);
    /// The same for a reply that refuses a read. The driver acknowledges it and stores nothing.
    Verdict handOverRefusal(Protocol& sent, const QByteArray& frame);
    /// Reports that no reply to `sent` came.
    Verdict reportSilence(Protocol& sent);
    /// Makes the driver give up the connection of `sent`, as if the retry limit were passed.
    Verdict dropConnection(Protocol& sent);

    /// The value bytes that the driver stored from a read reply, in the controller's byte order.
    /// `replyValues` are the value bytes of that reply.
    QByteArray storedValue(const TagKey& tag, const CipType& type, int element,
                           const ByteSlice& replyValues) const;

    /// Returns and removes the operations that the driver reported finished since the last call.
    QVector<Finished> popFinished();

    int localLink() const { return m_settings.localLink; }

private:
    static void onFinished(int channel, int varType, int varIndex, int status);
    static void onRefresh(QList<RW_VAR>* list, int varType, int flag);
    RW_VAR oneShotRead(int id, const TagKey& tag, int element) const;

    DriverApi m_api;
    ComInfo m_settings = ComInfo();
    QVector<Finished> m_finished;
    std::array<quint16, 16> m_localWords{};
};

} // namespace micro850::host

#endif
