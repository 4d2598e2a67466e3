#ifndef MICRO850_HOST_PAGE_H
#define MICRO850_HOST_PAGE_H

#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

namespace micro850::host {

enum class Style {
    Plain,
    Heading,
    Warning,
    Error,
    Faint,
    Changed,
    Series1,
    Series2,
    Series3,
    Series4,
    Series5,
    Series6,
    Series7,
    Series8
};

/// Columns of a line that have a style of their own.
struct Mark
{
    int column;
    int width;
    Style style;
};

struct PageLine
{
    QString text;
    Style style = Style::Plain;
    bool isSelected = false;
    QVector<Mark> marks = QVector<Mark>();
};
using Page = QVector<PageLine>;

/// Columns of a terminal that a visible text takes: two for a wide character, none for a combining
/// one.
int displayWidth(const QString& text);

/// A text of at most so many columns; a longer one is cut and ends with a mark.
QString cut(const QString& text, int width);

/// A text in exactly so many columns: filled up with blanks, or cut.
QString fitted(const QString& text, int width);
/// The same with the blanks in front.
QString rightAligned(const QString& text, int width);

/// A text in lines of at most so many columns, broken at blanks where there are any.
QStringList wrapped(const QString& text, int width);

} // namespace micro850::host

#endif
