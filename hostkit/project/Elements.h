#ifndef MICRO850_HOST_ELEMENTS_H
#define MICRO850_HOST_ELEMENTS_H

// The elements of a tag between wire bytes, values and texts. Strings are Latin-1 on the wire.

#include "CipValue.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVector>

namespace micro850::host {

/// The elements' bytes in a run of value bytes; a string is the whole run.
QVector<QByteArray> elementsOf(const CipType& type, const QByteArray& bytes);

/// The value in the wire bytes of one element.
CipValue decodeElement(const CipType& type, const QByteArray& element);
/// The wire bytes of one element.
QByteArray encodeElement(const CipType& type, const CipValue& value);
/// The value that a user's text describes; for times and dates also the ISO 8601 form, for strings
/// also the form in double quotes in which shownText() shows those with control characters. Throws
/// UserError.
CipValue parseElement(const CipType& type, const QString& text);

/// A value as text.
QString valueText(const CipValue& value);
/// A date or a time of day as its ISO 8601 text; any other value, and a number that is no date, as
/// it is.
CipValue isoValue(const CipType& type, const CipValue& value);
/// A value as text for users: dates, times of day and durations as ISO 8601 writes them; a string
/// as visibleValue() shows it.
QString shownText(const CipType& type, const CipValue& value);

} // namespace micro850::host

#endif
