#ifndef MICRO850_HOST_PLOT_H
#define MICRO850_HOST_PLOT_H

#include "PlotAxis.h"
#include "PlotCanvas.h"

#include <QtCore/QVector>

namespace micro850::host {

/// How a chart is drawn.
struct PlotStyle
{
    Duration span;
    bool isFromZero = false;
    bool isUnicode = true;
};

/// What a chart says of a series.
struct PlotLabel
{
    QString name;
    QString value;
    QString problem; ///< empty while the value is good
};

/// Rolling charts of values over time, the newest at the right: one for each unit, one above the
/// other, over one axis of clock times.
class Plot
{
public:
    Plot(const QStringList& units, const PlotStyle& style);

    /// The value of a series from now on; NaN where there is none. Times do not go back.
    void add(int series, Duration now, double value) { m_histories[series].add(now, value); }
    /// The charts for a window of this size, with a legend of each series. `timeOfDay` is what the
    /// clock on the wall shows now.
    Page page(int width, int rows, Duration now, Duration timeOfDay,
              const QVector<PlotLabel>& labels) const;

private:
    struct Chart
    {
        QString unit;
        QVector<int> series;
    };
    Page legend(const Chart& chart, int width, int mostRows,
                const QVector<PlotLabel>& labels) const;
    std::optional<PlotRange> rangeOf(const Chart& chart, Duration now) const;
    /// What a chart is drawn in.
    struct ChartRoom
    {
        int width;
        int rows;
        int labelWidth; ///< of the value axis; 0: without
        int steps;      ///< of the value axis
    };
    void drawSeries(PlotCanvas& canvas, int series, const ValueAxis& axis, Duration now) const;
    void addEnds(Page& page, const PlotCanvas& canvas, const Chart& chart,
                 const ValueAxis& axis) const;
    Page drawn(const Chart& chart, const ChartRoom& room, Duration now) const;
    QChar edge(bool hasTick) const;
    Page timeAxis(int width, int labelWidth, Duration timeOfDay) const;
    int labelWidth(int steps, Duration now) const;
    int markWidth() const { return m_histories.size() > 1 ? 1 : 0; }

    PlotStyle m_style;
    QVector<PlotHistory> m_histories; ///< by series
    QVector<Chart> m_charts;
};

} // namespace micro850::host

#endif
