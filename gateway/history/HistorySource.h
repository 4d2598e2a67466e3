#ifndef MICRO850_GATEWAY_HISTORY_HISTORYSOURCE_H
#define MICRO850_GATEWAY_HISTORY_HISTORYSOURCE_H

#include "HistoryRows.h"
#include "TrendPoint.h"

#include <QtCore/QVector>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>

namespace micro850::gateway {

using host::HistoryFilter;
using host::Json;
using host::TrendPoint;

/// The most values of one answer.
const int kMostHistoryValues = 10000;
/// The most points of a trend.
const int kMostTrendPoints = 10000;

/// True from the moment on when nobody waits for an answer any more. The thread of the queries
/// looks at it.
using Unwanted = std::shared_ptr<const std::atomic<bool>>;

struct HistoryQuery
{
    HistoryFilter filter;
    int limit = 1000; ///< from 1 to kMostHistoryValues
};

/// The answer to a query.
struct HistoryAnswer
{
    /// A code of the protocol, "busy" or "refused"; empty when the values are there.
    QString errorCode;
    QString errorText;
    /// The values as the protocol has them, in the order of their times, each with "state" and
    /// "sequence".
    std::vector<Json> values;
    /// False when the limit left values out: they begin after the time and the sequence of the last
    /// one, which a further query takes as `from` and `after`.
    bool complete = true;
};

/// Asks for the trend of one variable, or of one element of an array.
struct TrendQuery
{
    QString line;
    QString name;
    int element = 0;
    /// Milliseconds since 1970 UTC: from the first on, and before the second.
    qint64 from = 0;
    qint64 to = 0;
    int points = 800;              ///< from 1 to kMostTrendPoints
    Unwanted isUnwanted = nullptr; ///< null: somebody waits to the end
};

struct TrendAnswer
{
    /// A code of the protocol: "busy", "refused", "unknown-name" or "bad-request"; empty when the
    /// points are there.
    QString errorCode;
    QString errorText;
    /// How long the part of the span is that each point stands for; 0 where the points are the
    /// records themselves.
    qint64 resolutionMs = 0;
    QVector<TrendPoint> points;
    QString unit;
};

/// Asks for writes or events.
struct RecordQuery
{
    std::optional<qint64> from;
    std::optional<qint64> to;
    int limit = 1000;              ///< from 1 to kMostHistoryValues
    Unwanted isUnwanted = nullptr; ///< null: somebody waits to the end
};

/// What clients ask of the history.
class HistorySource
{
public:
    virtual ~HistorySource() = default;

    using Answered = std::function<void(HistoryAnswer answer)>;
    /// `answered` is called once, later, on the thread of the event loop; not after the source was
    /// destroyed.
    virtual void query(const HistoryQuery& query, const Answered& answered) = 0;
    /// The same for a trend. A query that is unwanted is not begun, or ends soon; its answer is
    /// "busy".
    virtual void trend(const TrendQuery& query,
                       const std::function<void(TrendAnswer answer)>& answered) = 0;
    /// What happened on the lines, and the journal of writes, the last that was recorded first. The
    /// rows are in `values`; with `complete` false, older ones were left out.
    virtual void events(const RecordQuery& query, const Answered& answered) = 0;
    virtual void writes(const RecordQuery& query, const Answered& answered) = 0;
    /// The part "history" of the reply to "status": "state" is "recording", "stopped" with the
    /// "reason", or "off" without a file.
    virtual Json status() const = 0;
};

} // namespace micro850::gateway

#endif
