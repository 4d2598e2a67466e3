#ifndef MICRO850_GATEWAY_WEB_IPADDRESS_H
#define MICRO850_GATEWAY_WEB_IPADDRESS_H

#include <QtCore/QString>

namespace micro850::gateway {

/// An IPv4 or IPv6 address in the one form that all its spellings have in common: "::1" for
/// "0:0::1", "10.0.0.7" for "::ffff:10.0.0.7". Empty for every other text, also for an address with
/// an interface or in brackets.
QString plainAddress(const QString& text);
/// Of a plain address: it is one of this machine alone.
bool isOfThisMachine(const QString& plain);
/// Of a plain address: "0.0.0.0" or "::", which stand for all of a machine.
bool isAnyAddress(const QString& plain);

} // namespace micro850::gateway

#endif
