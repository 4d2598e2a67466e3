#ifndef MICRO850_HOST_PAGE_H
#define MICRO850_HOST_PAGE_H

#include <QtCore/QString>
#include <QtCore/QVector>

namespace micro850::host {

enum class Style { Plain, Heading, Warning, Error, Faint };

struct PageLine
{
    QString text;
    Style style;
};
using Page = QVector<PageLine>;

/// Columns of a terminal that a visible text takes: two for a wide character, none for a combining
/// one.
int displayWidth(const QString& text);

/// A text of at most so many columns; a longer one is cut and ends with a mark.
QString cut(const QString& text, int width);

/// A text in exactly so many columns: filled up with blanks, or cut.
QString fitted(const QString& text, int width);

} // namespace micro850::host

#endif
