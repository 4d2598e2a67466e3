#ifndef MICRO850_INTERNAL_TAGSTORE_H
#define MICRO850_INTERNAL_TAGSTORE_H

// The tag store's leaf lock and what is done while it is held.

#include "internal/Frame.h"
#include "internal/LeafLock.h"
#include "tagcommunication.h"

namespace tagstore {

/// Guards PLCDataStorage and plcAddList.
extern QMutex leaf;

enum InfoByte { kClass = 0, kTypeLow = 1, kTypeHigh = 2, kConfirmation = 3, kInfoSize = 4 };
enum TypeClass {
    kBool = 0,
    kShortString = 1,
    kByte = 2,
    kWord = 3,
    kDoubleWord = 4,
    kQuadWord = 5,
    kUnknownClass = 0xFF
};

/// No stored value grows past this many bytes, and no host count above this many words is served:
/// no controller holds as much, so a larger number is a mistaken index or count.
const int kLargestValue = 1 << 24;

/// True when a tag's information holds the confirmation of a reply.
bool isConfirmed(const QByteArray& info);
/// getRegType() of the two bytes of a type field.
int classOf(quint8 typeLow, quint8 typeHigh);

/// A request's element and count, as the catalogue defines them.
struct Address
{
    int startAddress;
    int count;
    int reqFlag;
};

/// A station as AddTheTagInformationContainer() makes it.
PLCTAGCOMMUNICATION freshStation();
/// The station's next transaction number; creates the station. Takes `leaf`.
unsigned short transactionOf(int station);

// Caller holds `leaf`.
Address addressOf(const QString& tagName, const QString& addressText, int count);
/// The tag's information, seeded as long as no reply confirmed it.
QByteArray& seededInfo(PLCTAGCOMMUNICATION& station, const QString& tagName);
frame::Header headerOf(const PLCTAGCOMMUNICATION& station);

} // namespace tagstore

#endif
