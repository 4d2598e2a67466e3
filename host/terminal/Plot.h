#ifndef MICRO850_HOST_PLOT_H
#define MICRO850_HOST_PLOT_H

#include <QtCore/QPair>
#include <QtCore/QStringList>
#include <QtCore/QVector>

namespace micro850::host {

/// A rolling chart of one value over time, drawn with block characters: the newest at the right.
class Plot
{
public:
    explicit Plot(qint64 spanMs) : m_spanMs(spanMs) {}

    /// The value from now on; NaN where there is none. Times do not go back.
    void add(qint64 now, double value);
    /// So many lines of so many characters. Columns stand at multiples of their own time, so that
    /// the picture moves by whole characters.
    QStringList lines(int width, int rows, qint64 now) const;
    /// "1.5 to 20", over the whole span; "" without a value.
    QString range(qint64 now) const;

private:
    struct Limits
    {
        double least;
        double most;
        bool any;
    };
    Limits limits(qint64 now) const;
    double valueAt(qint64 time) const;

    qint64 m_spanMs;
    QVector<QPair<qint64, double>> m_changes;
};

} // namespace micro850::host

#endif
