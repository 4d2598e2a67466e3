#ifndef MICRO850_HOST_TRENDREQUEST_H
#define MICRO850_HOST_TRENDREQUEST_H

#include "TrendPoint.h"

#include <QtCore/QString>
#include <QtCore/QVector>

#include <optional>

namespace micro850::host {

/// Which trend is wanted.
struct TrendRequest
{
    QString line;
    QString name;
    int element = 0; ///< of an array
    /// Milliseconds since 1970 UTC: from the first on, and before the second.
    qint64 from = 0;
    qint64 to = 0;
    int points = 800;
    /// The recorder itself says that its recording has gone on until now, also where the file has
    /// nothing new.
    std::optional<qint64> recordedUntil;
};

/// One variable over a span.
struct HistoryTrend
{
    enum class Outcome {
        Done,
        Unknown,   ///< nothing was recorded under this name
        NoElement, ///< the array is shorter
        NoNumber,  ///< a text
        Ended      ///< before it was done
    };
    Outcome outcome = Outcome::Done;
    /// The unit that the variable had last. What was recorded with another one is left out.
    QString unit;
    int length = 1; ///< elements
    /// Of the part of the span that a point stands for; 0: the points are the records.
    qint64 resolutionMs = 0;
    /// A part without a record goes on with the value before as long as the recording went on.
    /// Where the points are records, there are besides: the value that `from` begins with, a point
    /// without a number where the recording ended, and the value that the span, or the recording,
    /// ends with.
    QVector<TrendPoint> points;
};

} // namespace micro850::host

#endif
