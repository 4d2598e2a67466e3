#ifndef MICRO850_INTERNAL_CONNECTIONSETUP_H
#define MICRO850_INTERNAL_CONNECTIONSETUP_H

// The two frames that connect a station: Identity and Forward_Open.

#include <QtCore/QByteArray>

namespace connection {

/// Frames of the set-up that are answered: ComInfo::framesAnswered while a station is not
/// connected.
enum Step { kAwaitingIdentity = 0, kAwaitingForwardOpen = 1, kConnected = 2 };
/// Frames of a set-up.
const int kFrames = 2;

/// Sizes of the replies before DLE doubling.
const int kIdentityReplySize = 61;
const int kForwardOpenReplySize = 46;

/// 0 to 16777214, seeded from the seconds of the day: equal within one second.
int randomSerial();

/// Get_Attributes_All of the Identity object.
QByteArray identityRequest(unsigned short transaction);
/// Forward_Open with a random serial number.
QByteArray forwardOpenRequest(unsigned short transaction);
/// Gives a queued Forward_Open request another transaction number. Bytes that cannot be one are
/// left alone.
void renumber(QByteArray& forwardOpen, unsigned short transaction);
/// The same, with a fresh serial number: for a resend.
void renew(QByteArray& forwardOpen, unsigned short transaction);

/// The connection identifier's two low bytes in a Forward_Open reply as received.
QByteArray identifierIn(QByteArray reply);

} // namespace connection

#endif
