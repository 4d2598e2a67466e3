#include "internal/ConnectionSetup.h"

#include "internal/Frame.h"
#include "internal/QtCompat.h"

#include <QtCore/QTime>

namespace {

// Both without DLE ETX and CRC. Transaction number at 8, serial number at 32.
const char kIdentityTemplate[] = "10 06 10 02 00 01 0B 00 01 00 00 00 01 02 20 01 24 01";
const char kForwardOpenTemplate[] =
    "10 06 10 02 00 01 0B 00 02 00 00 00 54 02 20 06 24 01 05 F7 02 00 00 80 01 00 01 80 02 00 34 "
    "12 23 16 C6 02 02 00 00 00 80 84 1E 00 F8 43 80 84 1E 00 F8 43 A3 02 20 02 24 01";
const int kForwardOpenSize = 62; // undoubled, with DLE ETX and CRC
const int kOriginatorSerial = 32;
// Offsets of the O->T connection identifier in an undoubled Forward_Open reply.
const int kReplyConnectionLow = 16;
const int kReplyConnectionHigh = 17;

void patchSerial(QByteArray& bytes)
{
    const int serial = connection::randomSerial();
    for (int i = 0; i < 3; ++i)
        bytes[kOriginatorSerial + i] = static_cast<char>((serial >> (8 * i)) & 0xFF);
}

QByteArray closed(QByteArray request, unsigned short transaction)
{
    request.reserve(kForwardOpenSize);
    frame::patchTransaction(request, transaction);
    frame::close(request);
    return request;
}

// Undoes the doubling and closing of a Forward_Open request. False if the bytes cannot be one.
bool reopen(QByteArray& forwardOpen)
{
    frame::undoubleDles(forwardOpen);
    // Undoubling also makes one byte of a CRC that happens to be 10 10.
    if (forwardOpen.size() == kForwardOpenSize - 1 &&
        frame::byteAt(forwardOpen, kForwardOpenSize - 2) == frame::kDle)
        forwardOpen.append(frame::kDle);
    if (forwardOpen.size() != kForwardOpenSize)
        return false;
    forwardOpen.chop(frame::kTrailerSize);
    return true;
}

} // namespace

namespace connection {

int randomSerial()
{
    const int seconds = QTime(0, 0, 0).secsTo(QTime::currentTime());
    return qtcompat::seededRandom(static_cast<unsigned int>(seconds)) % 0xFFFFFF;
}

QByteArray identityRequest(unsigned short transaction)
{
    static const QByteArray identity = frame::fromHexText(kIdentityTemplate);
    return closed(identity, transaction);
}

QByteArray forwardOpenRequest(unsigned short transaction)
{
    static const QByteArray forwardOpen = frame::fromHexText(kForwardOpenTemplate);
    QByteArray bytes = forwardOpen;
    patchSerial(bytes);
    return closed(bytes, transaction);
}

void renumber(QByteArray& forwardOpen, unsigned short transaction)
{
    QByteArray bytes = forwardOpen;
    if (reopen(bytes))
        forwardOpen = closed(bytes, transaction);
}

void renew(QByteArray& forwardOpen, unsigned short transaction)
{
    QByteArray bytes = forwardOpen;
    if (!reopen(bytes))
        return;
    patchSerial(bytes);
    forwardOpen = closed(bytes, transaction);
}

QByteArray identifierIn(QByteArray reply)
{
    frame::undoubleDles(reply);
    QByteArray id;
    id.append(static_cast<char>(frame::byteAt(reply, kReplyConnectionLow)));
    id.append(static_cast<char>(frame::byteAt(reply, kReplyConnectionHigh)));
    return id;
}

} // namespace connection
