#ifndef MICRO850_HOST_HOSTLAYOUT_H
#define MICRO850_HOST_HOSTLAYOUT_H

// How a host counts elements and lays out value bytes for the driver. The driver moves values by
// the class of their CIP type and counts in 16-bit words where elements are wide.

#include "ByteSlice.h"
#include "CipType.h"

#include <QtCore/QByteArray>

namespace micro850::host {

/// The driver's class of a CIP type.
enum class TypeClass { Boolean, ShortString, Byte, Word, DoubleWord, QuadWord };

TypeClass typeClassOf(quint16 typeCode);

/// The count that makes a cyclic request ask for this many elements. For a wide class the driver
/// subtracts 1 (32-bit) or 3 (64-bit) from the count, which is right for a single value counted in
/// words. A run of n elements therefore needs n + 1 or n + 3, not twice or four times n.
int cyclicCount(TypeClass typeClass, int elements);
/// The count that makes a one-shot read ask for this many elements: words, which the driver
/// divides.
int oneShotCount(TypeClass typeClass, int elements);

/// The count with which GetRegisterData() returns all of this many value bytes of a reply. The
/// driver returns a string without its length byte.
int fetchCount(TypeClass typeClass, int valueBytes);
/// The bytes that GetRegisterData() returned, converted to the controller's byte order. `reply` has
/// the value bytes of the reply, which contain the length of a string.
QByteArray fromHostLayout(TypeClass typeClass, const QByteArray& bytes, const ByteSlice& reply);

/// The bytes of one value as SetRegisterData() needs them, and the count that goes with them.
struct HostValue
{
    QByteArray bytes;
    int count;
};
/// Converts the value bytes of one element, in the controller's byte order.
HostValue toHostLayout(const CipType& type, const QByteArray& element);

} // namespace micro850::host

#endif
