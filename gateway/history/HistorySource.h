#ifndef MICRO850_GATEWAY_HISTORY_HISTORYSOURCE_H
#define MICRO850_GATEWAY_HISTORY_HISTORYSOURCE_H

#include "HistoryRows.h"

#include <functional>

namespace micro850::gateway {

using host::HistoryFilter;
using host::Json;

/// The most values of one answer.
const int kMostHistoryValues = 10000;

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

/// What clients ask of the history.
class HistorySource
{
public:
    virtual ~HistorySource() = default;

    using Answered = std::function<void(HistoryAnswer answer)>;
    /// `answered` is called once, later, on the thread of the event loop; not after the source was
    /// destroyed.
    virtual void query(const HistoryQuery& query, const Answered& answered) = 0;
    /// The part "history" of the reply to "status": "state" is "recording", "stopped" with the
    /// "reason", or "off" without a file.
    virtual Json status() const = 0;
};

} // namespace micro850::gateway

#endif
