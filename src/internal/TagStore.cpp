#include "internal/TagStore.h"

#include <cstring>

namespace {

// CIP type code minus 0xC1 to type class. The bit-string, date, time and string types are moved
// byte by byte on purpose, whatever their width.
const int kTypeClasses[26] = {0, 2, 3, 4, 5, 2, 3, 4, 5, 4, 5, 2, 2,
                              2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 1};
const unsigned int kFirstTypeCode = 0xC1;
const int kStructureMark = 0xA3;

// QString::toInt(), which asks the locale; for plain digits, as almost every host gives them, in a
// tenth of the time.
int numberOf(const QString& text)
{
    const int kSafeDigits = 9;
    bool plain = !text.isEmpty() && text.size() <= kSafeDigits;
    int number = 0;
    for (int i = 0; plain && i < text.size(); ++i) {
        const int digit = text.at(i).unicode() - '0';
        plain = digit >= 0 && digit <= 9;
        number = 10 * number + digit;
    }
    return plain ? number : text.toInt();
}

} // namespace

namespace tagstore {

QMutex leaf;

bool isConfirmed(const QByteArray& info)
{
    return frame::byteAt(info, kConfirmation) == 0xFF;
}

int classOf(quint8 typeLow, quint8 typeHigh)
{
    const unsigned int code = typeLow == kStructureMark ? typeHigh : typeLow;
    const unsigned int index = code - kFirstTypeCode;
    return index < 26 ? kTypeClasses[index] : int(kByte);
}

PLCTAGCOMMUNICATION freshStation()
{
    PLCTAGCOMMUNICATION station = PLCTAGCOMMUNICATION();
    station.transactionCounter = 1;
    return station;
}

unsigned short transactionOf(int station)
{
    LeafLocker lock(leaf);
    return PLCDataStorage[station].transactionCounter;
}

Address addressOf(const QString& tagName, const QString& addressText, int count)
{
    if (plcAddList.constFind(tagName) == plcAddList.constEnd()) {
        const Address whole = {0, 1, 0};
        return whole;
    }
    const Address element = {numberOf(addressText), count, 1};
    return element;
}

// An entry that no reply confirmed is seeded again on every call, so a class is never trusted
// before a reply proved it.
QByteArray& seededInfo(PLCTAGCOMMUNICATION& station, const QString& tagName)
{
    QByteArray& info = station.tagInfo[tagName];
    if (isConfirmed(info))
        return info;
    frame::growTo(info, kInfoSize);
    const char fresh[kInfoSize] = {static_cast<char>(kUnknownClass), 0, 0, 0};
    if (std::memcmp(info.constData(), fresh, sizeof fresh) != 0)
        std::memcpy(info.data(), fresh, sizeof fresh);
    return info;
}

frame::Header headerOf(const PLCTAGCOMMUNICATION& station)
{
    const frame::Header header = {station.transactionCounter,
                                  frame::byteAt(station.connectionId, 0),
                                  frame::byteAt(station.connectionId, 1)};
    return header;
}

} // namespace tagstore
