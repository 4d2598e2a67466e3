#include "Plot.h"

#include <QtCore/QMap>

#include <algorithm>
#include <cmath>

namespace micro850::host {

namespace {

const int kRowsOfStep = 3;
const int kTimeLabelWidth = 8;
const int kLeastWidthWithAxis = 30;
const int kLeastRowsWithAxis = 8;
const int kLegendBlanks = 3;

// How many steps a value axis of so many rows has room for.
int mostSteps(int rows)
{
    return std::max(1, rows / kRowsOfStep);
}

int dotRow(const PlotCanvas& canvas, const ValueAxis& axis, double value)
{
    const double share = (value / 2 - axis.least() / 2) / (axis.most() / 2 - axis.least() / 2);
    return static_cast<int>(std::lround(share * (canvas.dotRows() - 1)));
}

} // namespace

Plot::Plot(const QStringList& units, const PlotStyle& style)
    : m_style(style), m_histories(units.size(), PlotHistory(style.span))
{
    for (int i = 0; i < units.size(); ++i) {
        auto chart = std::find_if(m_charts.begin(), m_charts.end(),
                                  [&](const Chart& known) { return known.unit == units.at(i); });
        if (chart == m_charts.end()) {
            m_charts.append({units.at(i), {}});
            chart = m_charts.end() - 1;
        }
        chart->series.append(i);
    }
}

std::optional<PlotRange> Plot::rangeOf(const Chart& chart, Duration now) const
{
    std::optional<PlotRange> all;
    for (const int series : chart.series) {
        const std::optional<PlotRange> one =
            m_histories.at(series).range(now - m_style.span, now + Duration(1));
        if (one)
            all = all ? PlotRange{std::min(all->least, one->least), std::max(all->most, one->most)}
                      : *one;
    }
    if (all && m_style.isFromZero)
        all = PlotRange{std::min(0.0, all->least), std::max(0.0, all->most)};
    return all;
}

// Entries stand side by side as far as the window is wide.
Page Plot::legend(const Chart& chart, int width, int mostRows,
                  const QVector<PlotLabel>& labels) const
{
    Page page = {PageLine()};
    for (const int series : chart.series) {
        const PlotLabel& label = labels.at(series);
        const QString number =
            m_histories.size() > 1 ? QStringLiteral("%1 ").arg(series + 1) : QString();
        QString text = number + label.name;
        if (!label.value.isEmpty())
            text += QStringLiteral(" = ") + label.value;
        text += label.problem;
        text = cut(text, width);
        const int used = displayWidth(page.last().text);
        if (used > 0 && used + kLegendBlanks + displayWidth(text) > width)
            page.append(PageLine());
        PageLine& line = page.last();
        if (!line.text.isEmpty())
            line.text += QString(kLegendBlanks, ' ');
        line.marks.append({displayWidth(line.text), displayWidth(text), seriesStyle(series)});
        line.text += text;
    }
    while (page.size() > std::max(1, mostRows))
        page.removeLast();
    return page;
}

int Plot::labelWidth(int steps, Duration now) const
{
    int width = 0;
    for (const Chart& chart : m_charts) {
        width = std::max(width, displayWidth(chart.unit));
        if (const std::optional<PlotRange> range = rangeOf(chart, now))
            width = std::max(width, ValueAxis(*range, steps).labelWidth());
    }
    return width;
}

// Columns of dots begin at multiples of their width in time, so that the picture moves by whole
// dots.
void Plot::drawSeries(PlotCanvas& canvas, int series, const ValueAxis& axis, Duration now) const
{
    const PlotHistory& history = m_histories.at(series);
    const Duration column = std::max<Duration>(Duration(1), m_style.span / canvas.dotColumns());
    const Duration begin = now - now % column - (canvas.dotColumns() - 1) * column;
    for (int at = 0; at < canvas.dotColumns(); ++at) {
        const Duration from = begin + at * column;
        const Duration to = std::min(from + column, now + Duration(1));
        if (const std::optional<PlotRange> part = history.range(from, to))
            canvas.line(at, dotRow(canvas, axis, part->least), dotRow(canvas, axis, part->most),
                        series);
    }
}

// The number of each series at its newest value; one that is above another one is drawn later.
void Plot::addEnds(Page& page, const PlotCanvas& canvas, const Chart& chart,
                   const ValueAxis& axis) const
{
    const int column = displayWidth(page.first().text);
    QMap<int, int> seriesOf; // by row
    for (const int series : chart.series) {
        const double newest = m_histories.at(series).newest();
        if (std::isfinite(newest))
            seriesOf[canvas.rowOf(dotRow(canvas, axis, newest))] = series;
    }
    for (auto end = seriesOf.cbegin(); end != seriesOf.cend(); ++end) {
        page[end.key()].text += QString::number(end.value() + 1);
        page[end.key()].marks.append({column, 1, seriesStyle(end.value())});
    }
}

Page Plot::drawn(const Chart& chart, const ChartRoom& room, Duration now) const
{
    const int axisWidth = room.labelWidth > 0 ? room.labelWidth + 1 : 0;
    const int ends = axisWidth > 0 ? markWidth() : 0;
    PlotCanvas canvas(std::max(1, room.width - axisWidth - ends), room.rows, m_style.isUnicode);
    const std::optional<PlotRange> range = rangeOf(chart, now);
    const ValueAxis axis(range.value_or(PlotRange{0, 0}), room.steps);
    QMap<int, QString> labels; // by row
    if (range) {
        for (const int series : chart.series)
            drawSeries(canvas, series, axis, now);
        for (const double tick : axis.ticks())
            labels[canvas.rowOf(dotRow(canvas, axis, tick))] = axis.label(tick);
    }
    Page page;
    for (int row = 0; row < room.rows; ++row) {
        PageLine line = canvas.row(row);
        for (Mark& mark : line.marks)
            mark.column += axisWidth;
        if (axisWidth > 0)
            line.text.prepend(rightAligned(labels.value(row), room.labelWidth) +
                              edge(labels.contains(row)));
        page.append(line);
    }
    if (range && ends > 0)
        addEnds(page, canvas, chart, axis);
    return page;
}

QChar Plot::edge(bool hasTick) const
{
    if (!m_style.isUnicode)
        return QLatin1Char(hasTick ? '+' : '|');
    return QChar(hasTick ? 0x2524 : 0x2502);
}

Page Plot::timeAxis(int width, int labelWidth, Duration timeOfDay) const
{
    const int begin = labelWidth + 1;
    const int columns = width - begin - markWidth();
    QString line(width, ' ');
    QString texts(width, ' ');
    const QChar dash = m_style.isUnicode ? QChar(0x2500) : QChar('-');
    const QChar tickSign = m_style.isUnicode ? QChar(0x252C) : QChar('+');
    line[labelWidth] = m_style.isUnicode ? QChar(0x2514) : QChar('+');
    for (int i = 0; i < columns; ++i)
        line[begin + i] = dash;
    for (const TimeTick& tick :
         timeTicks(m_style.span, timeOfDay, columns / (kTimeLabelWidth + kLegendBlanks)))
    {
        const double share = 1 - static_cast<double>(tick.before.count()) /
                                     static_cast<double>(m_style.span.count());
        const int at = begin + static_cast<int>(std::lround(share * (columns - 1)));
        line[at] = tickSign;
        const int text =
            std::max(0, std::min(at - tick.label.size() / 2, width - tick.label.size()));
        texts.replace(text, tick.label.size(), tick.label);
    }
    return {{line}, {texts}};
}

Page Plot::page(int width, int rows, Duration now, Duration timeOfDay,
                const QVector<PlotLabel>& labels) const
{
    const int charts = std::max(1, m_charts.size());
    const bool hasAxes = width >= kLeastWidthWithAxis && rows >= kLeastRowsWithAxis;
    const int room = std::max(charts, rows - (hasAxes ? 2 : 0));
    const int each = room / charts;
    const int steps = mostSteps(each);
    const int axis = hasAxes ? labelWidth(steps, now) : 0;
    Page page;
    for (int i = 0; i < m_charts.size(); ++i) {
        const Chart& chart = m_charts.at(i);
        const int mine = i == 0 ? room - (charts - 1) * each : each;
        const Page legend = this->legend(chart, width, mine / 3, labels);
        page += legend;
        int left = mine - legend.size();
        if (hasAxes && !chart.unit.isEmpty() && left > 2) {
            page.append({rightAligned(chart.unit, axis)});
            --left;
        }
        if (left > 0)
            page += drawn(chart, {width, left, axis, steps}, now);
    }
    if (hasAxes)
        page += timeAxis(width, axis, timeOfDay);
    return page;
}

} // namespace micro850::host
