#ifndef MICRO850_HOST_JSON_H
#define MICRO850_HOST_JSON_H

#include "CipValue.h"

#include <QtCore/QString>
#include <QtCore/QVector>

#include <nlohmann/json.hpp>

namespace micro850::host {

/// Keys keep the order in which they were added.
using Json = nlohmann::ordered_json;

Json jsonOf(const QString& text);
/// True or false, a number, or a text; a real number that is not finite is a text.
Json jsonOf(const CipValue& value);
/// The value, or the array of several.
Json jsonOf(const QVector<CipValue>& values);

} // namespace micro850::host

#endif
