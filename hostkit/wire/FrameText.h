#ifndef MICRO850_HOST_FRAMETEXT_H
#define MICRO850_HOST_FRAMETEXT_H

#include "Frame.h"
#include "ReplyCollector.h"

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace micro850::host {

/// "access beyond the end of the tag (status FF/2105)"; of a tag's reply, with a hint: "no such tag
/// (names are as in the controller's program; status 05)". Empty for a good reply.
QString statusText(const Reply& reply);
/// The same without hint and parentheses, to continue a sentence: "out of connections, status
/// 01/0113".
QString statusPhrase(const Reply& reply);
/// The key under which replies are counted, with the first extended word only: "05", "FF/2105",
/// "link 10"; empty for a good reply.
QString statusKey(const Reply& reply);

/// "NAK: not received intact".
QString controlText(ReplyCollector::Kind kind);
/// "read", "open connection".
QString serviceText(quint8 service);
/// "read Level[3] x1", "open connection".
QString requestText(const Request& request);
/// "INT 10 11", "SHORT_STRING Apple"; of many values the first ones. A type that is not known is
/// "type 02A0, 12 bytes".
QString valuesText(quint16 typeCode, const ByteSlice& values);
/// The values one by one, as shown to users; empty for a type that is not known.
QStringList valueTexts(quint16 typeCode, const ByteSlice& values);
/// One line about the last frame or link control in these bytes: what it asks for, or what it
/// answers. "no frame" when there is none.
QString frameText(const QByteArray& frame);

} // namespace micro850::host

#endif
