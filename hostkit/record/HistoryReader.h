#ifndef MICRO850_HOST_HISTORYREADER_H
#define MICRO850_HOST_HISTORYREADER_H

#include "Database.h"
#include "HistoryRows.h"
#include "TrendRequest.h"

#include <functional>
#include <vector>

namespace micro850::host {

/// Reads a history, also while it is written, or the database of a log (table "samples"). It holds
/// up no writer: it reads in small steps and keeps nothing locked between them. Rows that come
/// after a reading began are left out.
class HistoryReader
{
public:
    /// Throws UserError for a file that is neither, and for one of a later version.
    explicit HistoryReader(const QString& path);

    /// True for the database of a log. It has values only, of no line, without a state.
    bool isLog() const { return m_log; }

    /// Is called with each row; false ends the reading.
    template<typename Row> using Each = std::function<bool(const Row& row)>;
    /// In the order of their times; those of a log in the order in which they were recorded.
    void values(const HistoryFilter& filter, const Each<HistoryValue>& each);
    /// Both in the order in which they were recorded, or the other way round.
    void writes(const HistoryFilter& filter, const Each<HistoryWrite>& each);
    /// `name` is no part of an event: only `line` chooses.
    void events(const HistoryFilter& filter, const Each<HistoryEvent>& each);

    /// The trend of one variable, from one look at the file. `isEnding` is asked now and then.
    HistoryTrend trend(const TrendRequest& request, const std::function<bool()>& isEnding);

private:
    class Merge;
    void loggedValues(const HistoryFilter& filter, const Each<HistoryValue>& each);

    Database m_database;
    bool m_log = false;
};

} // namespace micro850::host

#endif
