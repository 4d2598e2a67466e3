#ifndef MICRO850_HOST_GATEWAY_MESSAGE_H
#define MICRO850_HOST_GATEWAY_MESSAGE_H

// The objects that gateway, clients and workers send each other.

#include "Json.h"
#include "JsonFile.h"
#include "UserError.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace micro850::host {

/// The codes of errors.
namespace errorcode {
constexpr const char* kBadRequest = "bad-request";
constexpr const char* kUnknownName = "unknown-name";
constexpr const char* kRefused = "refused";
constexpr const char* kUnreachable = "unreachable";
constexpr const char* kUnknownOutcome = "unknown-outcome";
constexpr const char* kNotAllowed = "not-allowed";
constexpr const char* kCancelled = "cancelled";
constexpr const char* kBusy = "busy";
constexpr const char* kBadConfiguration = "bad-configuration";
} // namespace errorcode

/// The line of a message, with its line feed. Bytes of a text that are not UTF-8 are replaced.
QByteArray lineOf(const Json& message);

/// The message in a line, an object. Throws UserError, which names line and column or the key: for
/// what is no JSON, for deep nesting, and for a key that is given twice. `name` is what the error
/// calls the message.
JsonNode messageIn(const QByteArray& line, const std::string& name);
/// A value of a parsed message.
Json jsonOf(const JsonNode& node);

/// The bytes of hexadecimal text. Throws UserError, which names `key`, for other text.
QByteArray bytesOf(const QString& hexadecimal, const std::string& key);

/// {"id": ..., "reply": name}
Json replyTo(const Json& id, const char* name);
/// {"id": ..., "error": {...}}; `element` only when it is not below 0.
Json errorReply(const Json& id, const char* code, const std::string& text, int element = -1);
/// {"event": name}
Json eventNamed(const char* name);

} // namespace micro850::host

#endif
