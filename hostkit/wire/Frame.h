#ifndef MICRO850_HOST_FRAME_H
#define MICRO850_HOST_FRAME_H

// The frames on the line as a host sees them: how to build and open them, and the contents of
// requests and replies. The driver ignores status, type and transaction number of a reply, so that
// a host has to decode them itself.

#include "ByteSlice.h"

#include <QtCore/QString>
#include <QtCore/QVector>

namespace micro850::host {

const char kDle = 0x10;
const char kStx = 0x02;
const char kEtx = 0x03;
const char kAck = 0x06;
const char kNak = 0x15;
const char kEnq = 0x05;

/// Bytes of a frame before its data: DLE ACK DLE STX.
const int kHeadBytes = 4;
/// Bytes of a frame after its data: DLE ETX and the CRC.
const int kTrailerBytes = 4;

/// CIP services of the host's requests, all but the second of which are the driver's. A reply
/// carries them with kReplyBit.
enum Service : quint8 {
    kGetAttributesAll = 0x01,
    kForwardClose = 0x4E,
    kReadTagFragmented = 0x52,
    kWriteTagFragmented = 0x53,
    kForwardOpen = 0x54
};
const quint8 kReplyBit = 0x80;
/// Set in the link command of a reply.
const quint8 kReplyCommandBit = 0x40;

/// DLE and this control.
QByteArray linkControl(char control);
/// The CRC that closes a frame of this application data, before doubling.
quint16 frameCrc(const ByteSlice& data);
/// The frame of this application data: "10 06 10 02", the data with each 10 doubled, "10 03" and
/// the CRC.
QByteArray wireFrame(const ByteSlice& data);
/// The application data of a complete frame as wireFrame() builds it; empty for any other bytes.
ByteSlice dataOf(const QByteArray& frame);
/// The same without a check of the CRC: for a frame that the driver has just built.
ByteSlice uncheckedDataOf(const QByteArray& frame);

/// A complete frame of the driver with another transaction number, and with the sequence byte that
/// goes with it; other bytes unchanged.
QByteArray renumbered(const QByteArray& frame, quint16 tns);

/// The contents of a request frame of the driver.
struct Request
{
    bool valid = false; ///< false: too short; nothing else is set then
    quint8 command = 0;
    quint16 tns = 0;
    quint8 service = 0;
    ByteSlice name;      ///< of the tag; empty for a connection request
    quint32 element = 0; ///< from the element segment, 0 without one
    quint16 count = 0;   ///< elements to read or write
    // Of a write:
    quint16 typeCode = 0;
    ByteSlice values; ///< in the controller's byte order

    QString tag() const { return QString::fromLatin1(name.begin(), name.size()); }
};

/// Decodes the application data of a request. Fields that are cut off are 0.
Request decodeRequest(const ByteSlice& data);

/// The contents of a reply.
struct Reply
{
    bool valid = false;    ///< false: too short for its header; nothing else is set then
    quint8 command = 0;    ///< with kReplyCommandBit
    quint8 linkStatus = 0; ///< status of the link layer, 0 is good
    quint16 tns = 0;
    quint8 service = 0; ///< without kReplyBit
    quint8 generalStatus = 0;
    QVector<quint16> extendedStatus;
    ByteSlice body; ///< after the status: type code and values of a read

    /// True when the link and CIP carried out the request, or a part of it.
    bool good() const;
    /// CIP type code of a read reply, 0 if there is none. A leading A3 is skipped.
    quint16 typeCode() const;
    /// Value bytes of a read reply, in the controller's byte order.
    ByteSlice values() const;
};

/// Decodes the application data of a reply.
Reply decodeReply(const ByteSlice& data);

/// True when the reply belongs to the request: transaction number, command and service match. A
/// reply that only the link layer answered (linkStatus set) need not carry a service.
bool answers(const Reply& reply, const Request& request);

/// True for a request that changes nothing in the peer, so that it may be carried out twice.
bool isRepeatable(const Request& request);

/// True when the peer does not know the connection that the request quotes.
bool saysNoConnection(const Reply& reply);

/// True when the peer refuses to open a connection because one with the same serial numbers is open
/// already.
bool saysConnectionInUse(const Reply& reply);
/// True when the peer opened a connection and tells its identifier.
bool hasConnection(const Reply& reply);

/// What tells the connection that a request opens from all others: connection serial number, vendor
/// and originator serial number. `data` is the application data of the request; empty when it opens
/// no connection.
QByteArray connectionKey(const ByteSlice& data);
/// The application data of the request that closes the connection which the request with this
/// application data opened; empty when that one opens no connection.
QByteArray closeRequest(const QByteArray& openRequest, quint16 tns);

} // namespace micro850::host

#endif
