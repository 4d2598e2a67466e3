#ifndef MICRO850_HOST_RESAMPLER_H
#define MICRO850_HOST_RESAMPLER_H

#include "HistoryRows.h"

#include <QtCore/QHash>
#include <QtCore/QSet>

#include <functional>
#include <vector>

namespace micro850::host {

/// What is taken of the values of a period.
enum class Take { Last, Mean, Minimum, Maximum };

struct ResampleSettings
{
    qint64 period = 0; ///< milliseconds
    Take take = Take::Last;
    /// For so many milliseconds a value holds after it was recorded; 0: until the next one.
    qint64 hold = 0;
    /// Periods that begin before it are not told, but their values hold on.
    std::optional<qint64> from;
};

/// Makes one row for each period and variable of recorded rows. A value holds until the next row of
/// its variable, so that it does not matter whether each change was recorded or each second. A row
/// that is not good ends it. Periods begin at full multiples since 1970 UTC, those of whole days at
/// midnight in local time. An array is taken element by element. Only texts' last values can be
/// taken.
class Resampler
{
public:
    using Each = std::function<bool(const HistoryValue& row)>;

    Resampler(const ResampleSettings& settings, Each each);

    /// Adds a row, in the order of the recording. False when `each` wants no more. Throws UserError
    /// when there would be millions of periods until this row.
    bool add(const HistoryValue& row);
    /// Ends the last period where the last row was.
    bool finish();
    /// The variables that have texts, of which nothing but the last one can be taken.
    const QStringList& leftOut() const { return m_leftOut; }

private:
    /// What is taken of one element in one period.
    struct Element
    {
        Json last;
        Json least;
        Json most;
        double sum = 0;    ///< of value * milliseconds
        double weight = 0; ///< milliseconds
    };
    struct Series
    {
        std::shared_ptr<const HistoryVariable> variable;
        std::vector<Json> held; ///< empty: nothing
        bool isArray = false;
        qint64 since = 0;    ///< up to here it is counted
        qint64 recorded = 0; ///< when `held` came
        std::vector<Element> elements;
    };
    bool advanceTo(qint64 time);
    bool closePeriod(qint64 end);
    void beginPeriod(qint64 time);
    void count(Series& series, qint64 until) const;
    bool holdsAny() const;
    Json taken(const Element& element) const;
    bool tell(const Series& series, qint64 time);
    qint64 startOf(qint64 time) const;
    qint64 endOf(qint64 start) const;

    ResampleSettings m_settings;
    Each m_each;
    std::vector<Series> m_series; ///< in the order in which they came
    QHash<QString, int> m_places;
    QStringList m_leftOut;
    QSet<QString> m_texts;
    bool m_begun = false;
    qint64 m_start = 0; ///< of the period
    qint64 m_end = 0;
    qint64 m_last = 0; ///< time of the last row
};

/// The values of a row one by one; those of an array in a log are one text of numbers.
std::vector<Json> elementsOf(const HistoryValue& row);

} // namespace micro850::host

#endif
