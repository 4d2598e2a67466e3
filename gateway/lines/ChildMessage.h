#ifndef MICRO850_GATEWAY_LINES_CHILDMESSAGE_H
#define MICRO850_GATEWAY_LINES_CHILDMESSAGE_H

#include "Clock.h"
#include "Json.h"

#include <QtCore/QString>

namespace micro850::gateway {

// What the processes of the service send. The functions throw UserError, which names the key, for
// what none of them sends.

QString textIn(const host::Json& message, const char* key);
/// From 0 to `most`.
qint64 numberIn(const host::Json& message, const char* key, qint64 most);

/// "1.5", in seconds.
QString secondsText(Duration time);

} // namespace micro850::gateway

#endif
