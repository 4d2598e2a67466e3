#ifndef MICRO850_INTERNAL_FRAME_H
#define MICRO850_INTERNAL_FRAME_H

// DF1 frames: building, closing, DLE doubling and checking. Bytes in, bytes out: no global is read
// and no lock is taken.

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace frame {

const char kDle = 0x10;
const char kStx = 0x02;
const char kEtx = 0x03;
const char kAck = 0x06;

/// Offsets in an undoubled frame that begins with DLE ACK.
enum Offset {
    kTransactionLow = 8,
    kTransactionHigh = 9,
    kConnectionLow = 12,
    kConnectionHigh = 13,
    kSequence = 14,
    kPathSize = 17,
    kPath = 18,
    kValueType = 20,
    kValues = 22
};
/// DLE ETX and two bytes of CRC.
const int kTrailerSize = 4;

/// The byte at `index`, 00 outside the array.
inline quint8 byteAt(const QByteArray& bytes, int index)
{
    return index >= 0 && index < bytes.size() ? static_cast<quint8>(bytes.at(index)) : quint8(0);
}
/// Makes `bytes` at least `size` long; the new bytes are 00.
void growTo(QByteArray& bytes, int size);
/// Parses two-digit hexadecimal numbers separated by single blanks.
QByteArray fromHexText(const char* text);

/// CRC of an undoubled frame that ends with DLE ETX.
unsigned int crcOf(const QByteArray& frame);
/// Doubles every DLE between the frame's header and its last four bytes.
void doubleDles(QByteArray& frame);
/// Replaces every pair of DLEs by one. An array without a pair is not detached.
void undoubleDles(QByteArray& frame);
/// Appends DLE ETX and the CRC, then doubles the DLEs.
void close(QByteArray& frame);
void patchTransaction(QByteArray& frame, unsigned short transaction);

/// True when the reply, as received, has DLE ETX in front of its last two bytes.
bool endsAsFrame(const QByteArray& reply);
/// True when the reply, as received, holds a complete frame with the right CRC.
bool isIntact(const QByteArray& reply);

/// What a connected frame's header needs to know of its station.
struct Header
{
    unsigned short transaction;
    quint8 connectionLow;
    quint8 connectionHigh;
};

/// Writes one connected request from front to back.
class Builder
{
public:
    /// Begins with `head`, which ends with the code of the symbol segment; appends the tag name and
    /// the element segment, which element 0 does not have, and patches the path size.
    Builder(const QByteArray& head, const QString& tagName, int element);

    void addType(quint8 low, quint8 high);
    /// Element count (2 bytes) and byte offset 0 (4 bytes). A larger count reaches into the offset.
    void addCount(int count);
    void addBytes(const QByteArray& bytes);
    /// Patches transaction number, connection identifier and sequence byte, and closes the frame.
    /// The builder must not be used afterwards.
    QByteArray& finish(const Header& header);

private:
    void addTagName(const QString& name);
    void addElement(int element);

    QByteArray m_bytes;
};

} // namespace frame

#endif
