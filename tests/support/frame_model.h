#ifndef MICRO850_TESTS_FRAME_MODEL_H
#define MICRO850_TESTS_FRAME_MODEL_H

#include <QtCore/QByteArray>

/// How the driver treats the bytes of any frame, broken ones included, written from its definition
/// and independent of its code.
namespace frame_model {

/// The frame with its DLEs doubled: all but those of the header and of the last four bytes.
QByteArray doubled(const QByteArray& plain);
/// The bytes with each pair of DLEs replaced by one.
QByteArray undoubled(const QByteArray& bytes);
/// The CRC that belongs to an undoubled frame that ends with DLE ETX.
unsigned int crcOf(const QByteArray& closed);
/// 1 if the bytes, as received, hold a complete frame with the right CRC, else 0. Tries every
/// possible position of the end, with all bytes before it.
int verdict(const QByteArray& reply);

} // namespace frame_model

#endif
