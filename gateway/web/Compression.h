#ifndef MICRO850_GATEWAY_WEB_COMPRESSION_H
#define MICRO850_GATEWAY_WEB_COMPRESSION_H

#include "HttpMessage.h"

namespace micro850::gateway {

/// Whether the client takes a body that is compressed with gzip.
bool takesGzip(const HttpRequest& request);

/// The bytes as a file of gzip.
QByteArray gzipped(const QByteArray& bytes);

/// Compresses a body of JSON where that is worth it and the client takes it; a long list is
/// compressed while the client reads. Streams of events stay as they are. Not for what has a secret
/// beside text that others choose: its length would tell of the secret.
void compress(HttpResponse& response, const HttpRequest& request);

} // namespace micro850::gateway

#endif
