#ifndef MICRO850_TESTS_WIRE_H
#define MICRO850_TESTS_WIRE_H

// Bytes on the wire, written from the protocol and independent of the driver: hexadecimal text, a
// CRC, DLE doubling, and the frames that tests expect or deliver.

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <cstdint>
#include <ostream>
#include <string>

namespace wire {

/// The bytes of a text like "10 06 10 02". Skips spaces and line ends; aborts on anything else.
QByteArray hex(const char* text);
/// Bytes as hexadecimal text, for messages.
std::string text(const QByteArray& bytes);

/// CRC-16/ARC by a table that is built by polynomial division, unlike the driver's loop.
std::uint16_t crc16Arc(const QByteArray& bytes);
/// CRC-16/MODBUS.
std::uint16_t crc16Modbus(const QByteArray& bytes);

/// The data with each byte 0x10 doubled.
QByteArray withDoubledDle(const QByteArray& data);
/// "10 06 10 02", the data with each 0x10 doubled, "10 03" and the CRC of the data.
QByteArray framed(const QByteArray& data);
/// The data of a frame built by framed(); empty if its start, end or CRC is wrong.
QByteArray unframed(const QByteArray& frame);

/// Little-endian bytes of a number.
QByteArray little(quint64 value, int size);

/// The data of the two connection requests. The serial number is sent as its three low bytes.
QByteArray identityRequest(quint16 tns);
QByteArray forwardOpenRequest(quint16 tns, quint32 serial);
/// Complete replies, from DLE ACK to CRC. The driver keeps only the low half of the identifier.
QByteArray identityReply(quint16 tns);
QByteArray forwardOpenReply(quint16 tns, const QByteArray& connectionIdLow);

/// A request path: a symbol segment and, for an index other than 0, an element segment.
QByteArray tagPath(const QByteArray& name, quint32 element = 0);
/// Complete request frames of the connected services.
QByteArray readRequest(quint16 tns, const QByteArray& connectionId, const QByteArray& path,
                       quint32 count);
QByteArray writeRequest(quint16 tns, const QByteArray& connectionId, const QByteArray& path,
                        quint16 type, quint32 count, const QByteArray& value);
/// Complete replies of the connected services: status 0 with type and values, a bare write
/// confirmation, an error status.
QByteArray readReply(quint16 tns, quint16 type, const QByteArray& value);
QByteArray writeReply(quint16 tns);
QByteArray errorReply(quint16 tns, quint8 service, quint8 status);

} // namespace wire

#endif
