#ifndef MICRO850_HOST_PLOTCANVAS_H
#define MICRO850_HOST_PLOTCANVAS_H

#include "Page.h"

namespace micro850::host {

/// The style of a series of a chart; there are kMostSeries.
Style seriesStyle(int series);
const int kMostSeries = 8;

/// Dots in the cells of a window: braille characters, two dots wide and four high, or one sign a
/// cell where the terminal has no Unicode.
class PlotCanvas
{
public:
    PlotCanvas(int width, int rows, bool isUnicode);

    /// In dots; rows count from the bottom.
    int dotColumns() const { return m_width * m_dotsWide; }
    int dotRows() const { return m_rows * m_dotsHigh; }
    /// The row of the window, from the top, that has this row of dots.
    int rowOf(int dotRow) const { return m_rows - 1 - dotRow / m_dotsHigh; }
    /// A vertical line between two rows of dots, both included.
    void line(int dotColumn, int from, int to, int series);

    /// The cells of a row; marks begin at column 0.
    PageLine row(int row) const;

private:
    struct Cell
    {
        int dots = 0;
        int series = -1;
    };
    QChar signOf(const Cell& cell) const;

    int m_width;
    int m_rows;
    bool m_isUnicode;
    int m_dotsWide;
    int m_dotsHigh;
    QVector<Cell> m_cells;
};

} // namespace micro850::host

#endif
