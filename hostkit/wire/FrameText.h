#ifndef MICRO850_HOST_FRAMETEXT_H
#define MICRO850_HOST_FRAMETEXT_H

#include "Frame.h"
#include "ReplyCollector.h"

#include <QtCore/QString>

namespace micro850::host {

/// "path destination unknown (status 05)"; empty for a good reply.
QString statusText(const Reply& reply);
/// The key under which replies are counted: "05", "FF/2105", "link 10"; empty for a good reply.
QString statusKey(const Reply& reply);

/// "NAK: not received intact".
QString controlText(ReplyCollector::Kind kind);
/// "read Level[3] x1", "open connection".
QString requestText(const Request& request);
/// One line about the last frame or link control in these bytes: what it asks for, or what it
/// answers. "no frame" when there is none.
QString frameText(const QByteArray& frame);

} // namespace micro850::host

#endif
