#ifndef MICRO850_GATEWAY_WEB_REQUESTKEYS_H
#define MICRO850_GATEWAY_WEB_REQUESTKEYS_H

#include "HttpMessage.h"

#include <optional>

namespace micro850::gateway {

/// What the query of an address says. All functions throw RequestError, which names the key.
///
/// Throws unless all keys are among `keys`, each at most once.
void expectKeys(const HttpRequest& request, const QStringList& keys);
/// A number from `least` to `most`; `absent` without the key.
qint64 numberOf(const HttpRequest& request, const QString& key, qint64 least, qint64 most,
                qint64 absent);
/// Milliseconds since 1970 UTC, of a time such as 2026-11-22T13:30:00Z or such a number.
std::optional<qint64> timeOf(const HttpRequest& request, const QString& key);

} // namespace micro850::gateway

#endif
