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

/// A text of at most so many characters; a longer one is cut and ends with a mark.
QString cut(const QString& text, int width);

} // namespace micro850::host

#endif
