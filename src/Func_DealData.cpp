#include "Func_DealData.h"

#include "internal/DriverState.h"
#include "internal/Frame.h"
#include "internal/TagStore.h"
#include "tagcommunication.h"

#include <cstring>

namespace {

/// The part of an undoubled reply that is stored; `bytes` points into the reply.
struct ReplyValue
{
    quint8 typeLow;
    quint8 typeHigh;
    int typeClass;
    const char* bytes;
    int size;
};

ReplyValue valueOf(const QByteArray& reply, int dataStart)
{
    ReplyValue value = {frame::byteAt(reply, frame::kValueType),
                        frame::byteAt(reply, frame::kValueType + 1), 0, nullptr, 0};
    value.typeClass = tagstore::classOf(value.typeLow, value.typeHigh);
    const int size = reply.size() - frame::kTrailerSize - dataStart;
    if (dataStart < 0 || size <= 0)
        return value;
    const int skipped = value.typeClass == tagstore::kShortString ? 1 : 0; // the string's length
    value.bytes = reply.constData() + dataStart + skipped;
    value.size = size - skipped;
    return value;
}

// The first good reply determines the type. It is never changed afterwards.
void confirmType(QByteArray& info, const ReplyValue& value)
{
    if (tagstore::isConfirmed(info))
        return;
    frame::growTo(info, tagstore::kInfoSize);
    info[tagstore::kClass] = static_cast<char>(value.typeClass);
    info[tagstore::kTypeLow] = static_cast<char>(value.typeLow);
    info[tagstore::kTypeHigh] = static_cast<char>(value.typeHigh);
    info[tagstore::kConfirmation] = '\xFF';
}

// Byte position of the reply's first value byte in the tag's image, -1 if nothing is to be stored.
qint64 positionFor(const RW_VAR& request, int typeClass)
{
    if (request.reqFlag == 0)
        return 0;
    const bool indexable =
        request.startAddress >= 0 && request.startAddress <= tagstore::kLargestValue;
    if (request.reqFlag != 1 || !indexable)
        return -1;
    unsigned int position = static_cast<unsigned int>(request.startAddress);
    unsigned int count = static_cast<unsigned int>(request.count);
    getPlcAdd(typeClass, position, count);
    return position;
}

// Image and reply have the same layout, so the bytes are copied as they are, including a last
// element that the reply holds in part. The image only grows; its other bytes keep their values.
void storeValue(PLCTAGCOMMUNICATION& station, const QString& tagName, qint64 position,
                const ReplyValue& value)
{
    const qint64 end = position + value.size;
    if (position < 0 || value.size == 0 || end > tagstore::kLargestValue)
        return;
    QByteArray& image = station.tagData[tagName];
    frame::growTo(image, static_cast<int>(end));
    std::memcpy(image.data() + position, value.bytes, static_cast<std::size_t>(value.size));
}

} // namespace

void SaveToLocalDataErea(QByteArray* reply)
{
    if (!reply || PLC_driver.sendQueue.isEmpty())
        return;
    frame::undoubleDles(*reply);
    const Protocol& head = driverstate::inFlight();
    const ReplyValue value = valueOf(*reply, head.auxLength);
    const qint64 position = positionFor(head.var, value.typeClass);

    LeafLocker lock(tagstore::leaf);
    PLCTAGCOMMUNICATION& station = PLCDataStorage[head.var.stationNo];
    confirmType(station.tagInfo[head.var.tagName], value);
    storeValue(station, head.var.tagName, position, value);
}
