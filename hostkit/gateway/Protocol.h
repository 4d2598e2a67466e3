#ifndef MICRO850_HOST_GATEWAY_PROTOCOL_H
#define MICRO850_HOST_GATEWAY_PROTOCOL_H

// The protocol between the gateway, its clients and its workers; docs/gateway-protocol.md describes
// it.

#include "CipType.h"
#include "Json.h"
#include "ValueStore.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <optional>

namespace micro850::host {

const int kProtocolVersion = 1;
/// In bytes, with the line feed.
const int kLongestRequest = 64 * 1024;
const int kLongestReply = 1024 * 1024;

/// A variable's value as the protocol carries it.
struct GatewayValue
{
    QString line;
    QString name;
    int station = 1;
    QString tag;
    int element = 0;
    /// Null before the first value.
    const CipType* type = nullptr;
    /// All elements in the controller's byte order; empty before the first value.
    QByteArray bytes;
    /// As the variable shows it; null before the first value.
    Json value;
    QString unit;
    Quality quality = Quality::Never;
    /// When its oldest element was read last, in milliseconds since 1970 UTC.
    std::optional<qint64> time;
    QString error;
};

/// The object of a value in "values".
Json jsonOf(const GatewayValue& value);
/// The same as text.
QByteArray encoded(const GatewayValue& value);
/// The value of such an object. Throws UserError, which names the key, for one that is not as the
/// protocol says.
GatewayValue gatewayValueOf(const Json& object);

/// "2026-11-22T13:30:00.125Z" of milliseconds since 1970 UTC.
QString timeText(qint64 milliseconds);
/// The milliseconds of such a text; nothing when it is no such text.
std::optional<qint64> timeOf(const QString& text);

} // namespace micro850::host

#endif
