#ifndef MICRO850_HOST_HOSTLAYOUT_H
#define MICRO850_HOST_HOSTLAYOUT_H

// How a host counts elements and lays out value bytes for the driver. The driver moves values by
// the class of their CIP type and counts in 16-bit words where elements are wide.

#include "CipType.h"

#include <QtCore/QByteArray>

namespace micro850::host {

/// The driver's class of a CIP type.
enum class TypeClass { Boolean, ShortString, Byte, Word, DoubleWord, QuadWord };

TypeClass typeClassOf(quint16 typeCode);

/// The count that makes a cyclic request ask for so many elements. For a wide class the driver
/// takes 1 (32-bit) or 3 (64-bit) off the count, which is right for a single value counted in
/// words; a run of n elements therefore needs n + 1 or n + 3, not twice or four times n.
int cyclicCount(TypeClass typeClass, int elements);
/// The count that makes a one-shot read ask for so many elements: words, which the driver divides.
int oneShotCount(TypeClass typeClass, int elements);

/// The count under which GetRegisterData() gives so many value bytes, as they stood in a reply. A
/// string's length byte is not among the driver's bytes.
int fetchCount(TypeClass typeClass, int valueBytes);
/// The value bytes in the controller's order out of what GetRegisterData() gave. `reply` holds the
/// reply's value bytes, which tell the length of a string.
QByteArray fromHostLayout(TypeClass typeClass, const QByteArray& bytes, const QByteArray& reply);

/// True when the driver can write the type: of those it moves byte by byte, only the ones that are
/// one byte wide.
bool isWritable(const CipType& type);
/// Value bytes of one element, in the controller's order, as SetRegisterData() takes them, and the
/// count to give.
struct HostValue
{
    QByteArray bytes;
    int count;
};
HostValue toHostLayout(const CipType& type, const QByteArray& element);

} // namespace micro850::host

#endif
