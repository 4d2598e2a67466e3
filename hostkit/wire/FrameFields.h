#ifndef MICRO850_HOST_FRAMEFIELDS_H
#define MICRO850_HOST_FRAMEFIELDS_H

#include "Frame.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVector>

namespace micro850::host {

/// A part of a message as it is on the line.
struct FrameField
{
    int offset;       ///< of its first byte in the message
    QByteArray bytes; ///< as sent: each 10 of the data is there twice
    QString name;     ///< "DLE STX", "tag", "general status"
    QString meaning;  ///< "Speed", "05: no such tag ..."; may be empty
};

/// The parts of a message from the line, whole or damaged, in their order; all bytes are in one of
/// them. `request` is the one that a reply answers: it names the elements. It may be invalid.
QVector<FrameField> frameFields(const QByteArray& message, const Request& request);

} // namespace micro850::host

#endif
