#include "PlotCanvas.h"

#include <algorithm>
#include <array>

namespace micro850::host {

namespace {

const int kBraille = 0x2800;
// By column of dots, and by row from the top.
const std::array<std::array<int, 4>, 2> kDots = {
    {{0x01, 0x02, 0x04, 0x40}, {0x08, 0x10, 0x20, 0x80}}};
const char kSigns[] = "*+ox#@%&";

} // namespace

Style seriesStyle(int series)
{
    return static_cast<Style>(static_cast<int>(Style::Series1) + series % kMostSeries);
}

PlotCanvas::PlotCanvas(int width, int rows, bool isUnicode)
    : m_width(width), m_rows(rows), m_isUnicode(isUnicode), m_dotsWide(isUnicode ? 2 : 1),
      m_dotsHigh(isUnicode ? 4 : 1), m_cells(width * rows)
{
}

void PlotCanvas::line(int dotColumn, int from, int to, int series)
{
    for (int dotRow = std::min(from, to); dotRow <= std::max(from, to); ++dotRow) {
        if (dotColumn < 0 || dotColumn >= dotColumns() || dotRow < 0 || dotRow >= dotRows())
            continue;
        Cell& cell = m_cells[rowOf(dotRow) * m_width + dotColumn / m_dotsWide];
        const int fromTop = m_dotsHigh - 1 - dotRow % m_dotsHigh;
        cell.dots |= kDots.at(static_cast<std::size_t>(dotColumn % m_dotsWide))
                         .at(static_cast<std::size_t>(fromTop));
        cell.series = series;
    }
}

QChar PlotCanvas::signOf(const Cell& cell) const
{
    if (cell.series < 0)
        return QLatin1Char(' ');
    return m_isUnicode ? QChar(kBraille + cell.dots)
                       : QChar(QLatin1Char(kSigns[cell.series % kMostSeries]));
}

PageLine PlotCanvas::row(int row) const
{
    PageLine line;
    for (int column = 0; column < m_width; ++column) {
        const Cell& cell = m_cells.at(row * m_width + column);
        line.text += signOf(cell);
        if (cell.series < 0)
            continue;
        const Style style = seriesStyle(cell.series);
        const bool goesOn = !line.marks.isEmpty() && line.marks.last().style == style &&
                            line.marks.last().column + line.marks.last().width == column;
        if (goesOn)
            ++line.marks.last().width;
        else
            line.marks.append({column, 1, style});
    }
    return line;
}

} // namespace micro850::host
