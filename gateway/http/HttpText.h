#ifndef MICRO850_GATEWAY_HTTP_HTTPTEXT_H
#define MICRO850_GATEWAY_HTTP_HTTPTEXT_H

#include <QtCore/QByteArray>
#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <optional>

namespace micro850::gateway {

/// The parts of a path between its slashes, decoded: "/api/a%2Fb" is {"api", "a/b"}, "/" has none.
/// Nothing for a path that does not begin with a slash, has more than 16 parts, or has an escape
/// that is none, a NUL, or bytes that are not UTF-8. Dots have no meaning: ".." is a part.
std::optional<QStringList> decodedPath(const QByteArray& path);

/// The fields of a query or of a form as browsers send it: "a=1&a=2&b=x+y". Nothing for more than
/// 100 fields, for an escape that is none, a NUL, or bytes that are not UTF-8.
std::optional<QMap<QString, QStringList>> decodedForm(const QByteArray& form);

/// What is before the separator; everything when there is none.
QByteArray before(const QByteArray& text, char separator);
/// What is after the separator; nothing when there is none.
QByteArray after(const QByteArray& text, char separator);

/// The bytes are a method or a name of a header as the protocol has them.
bool isHttpToken(const QByteArray& bytes);

/// The bytes can stand in the value of a header: none of them ends a line.
bool isHeaderValue(const QByteArray& bytes);

} // namespace micro850::gateway

#endif
