#ifndef MICRO850_GATEWAY_WEB_IPADDRESS_H
#define MICRO850_GATEWAY_WEB_IPADDRESS_H

#include <QtCore/QString>

namespace micro850::gateway {

/// An IPv4 or IPv6 address in the one form that all its spellings have in common: "::1" for
/// "0:0::1", "10.0.0.7" for "::ffff:10.0.0.7". Empty for every other text, also for an address with
/// a zone or in brackets.
QString canonicalAddress(const QString& text);
/// Of a canonical address: it is one of this machine alone.
bool isLoopbackAddress(const QString& canonical);
/// Of a canonical address: "0.0.0.0" or "::", which stand for all of a machine.
bool isAnyAddress(const QString& canonical);

} // namespace micro850::gateway

#endif
