#ifndef MICRO850_GATEWAY_WEB_PROBLEM_H
#define MICRO850_GATEWAY_WEB_PROBLEM_H

#include "HttpMessage.h"
#include "Json.h"

namespace micro850::gateway {

/// An error for programs, as application/problem+json: {"type": "about:blank", "title", "status",
/// "detail", "code"}. `code` is one of the protocol where there is one: "not-allowed"; `detail` is
/// a line for people.
HttpResponse problem(int status, const std::string& code, const std::string& detail);
/// The problem of an error object of the protocol: {"code", "text"}.
HttpResponse problemOf(const host::Json& error);
/// JSON on one line, without a line feed. Bytes of a text that are not UTF-8 are replaced.
QByteArray jsonText(const host::Json& value);
/// A body of JSON that is not kept by caches.
HttpResponse jsonResponse(const host::Json& body);

} // namespace micro850::gateway

#endif
