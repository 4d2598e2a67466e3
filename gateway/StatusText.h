#ifndef MICRO850_GATEWAY_STATUSTEXT_H
#define MICRO850_GATEWAY_STATUSTEXT_H

#include "JsonFile.h"

#include <QtCore/QString>

namespace micro850::gateway {

/// The reply to "status" as lines for people; `now` in milliseconds since 1970 UTC. Throws
/// UserError, which names the key, for a reply that is not as the protocol says.
QString statusText(const JsonNode& reply, qint64 now);

} // namespace micro850::gateway

#endif
