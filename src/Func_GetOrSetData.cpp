#include "Func_GetOrSetData.h"

#include "Func_Initi.h"
#include "internal/DriverState.h"
#include "internal/Frame.h"
#include "internal/TagStore.h"
#include "tagcommunication.h"

#include <cstddef>
#include <cstring>

namespace {

const int kQueuedWrites = 2;
// Bytes of a stored element by type class.
const int kElementSize[] = {1, 1, 1, 2, 4, 8};

RW_VAR writeRequest(const ComInfo& settings, int station)
{
    RW_VAR request = RW_VAR();
    request.accessMode = 1;
    request.hostField3 = settings.remoteMode;
    request.linkId = settings.localLink;
    request.stationNo = settings.multiStation != 0 ? station : settings.defaultStation;
    request.onceFlag = 2;
    return request;
}

/// A tag's stored bytes and how to convert them.
struct StoredValue
{
    bool known;
    int typeClass;
    tagstore::Address address;
    QByteArray image;
};

// The lock is held throughout, so that class and bytes belong together.
StoredValue storedValue(const QString& name, const QString& addressText, int station, int count)
{
    LeafLocker lock(tagstore::leaf);
    StoredValue value = {false, 0, tagstore::addressOf(name, addressText, count), QByteArray()};
    PLCTAGCOMMUNICATION& record = PLCDataStorage[station];
    const QByteArray& info = tagstore::seededInfo(record, name);
    if (!record.handshakeDone)
        return value;
    const QMap<QString, QByteArray>::const_iterator data = record.tagData.constFind(name);
    if (data == record.tagData.constEnd())
        return value;
    value.known = true;
    value.typeClass = frame::byteAt(info, tagstore::kClass);
    value.image = *data;
    return value;
}

// A count below 0, or beyond what any controller holds, counts as 0.
int served(qint64 count)
{
    return count < 0 || count > tagstore::kLargestValue ? 0 : static_cast<int>(count);
}

// Copies `size` bytes of `image` from `position`, each followed by 00 if `widened`. Past the end of
// the image the bytes are 00. A host's buffer that is large enough is reused.
void copyBytes(QByteArray& out, const QByteArray& image, qint64 position, int size, bool widened)
{
    const int step = widened ? 2 : 1;
    out.resize(step * size);
    if (size == 0)
        return;
    char* to = out.data();
    const int present = static_cast<int>(qBound<qint64>(0, image.size() - position, size));
    if (widened || present < size)
        std::memset(to, 0, static_cast<std::size_t>(out.size()));
    if (present == 0)
        return;
    const char* from = image.constData() + position;
    if (!widened) {
        std::memcpy(to, from, static_cast<std::size_t>(present));
        return;
    }
    for (std::ptrdiff_t i = 0; i < present; ++i)
        to[2 * i] = from[i];
}

/// Converts the value to the host's layout. `hostCount` is the count that the host passed. Empty
/// when no element is asked for or the class is not known.
void toHostLayout(QByteArray& out, const StoredValue& value, int hostCount)
{
    // An index beyond the largest value reads as 00, since no image reaches that far. So does an
    // index below 0, which is larger still as an unsigned number.
    unsigned int position = qMin(static_cast<unsigned int>(value.address.startAddress),
                                 static_cast<unsigned int>(tagstore::kLargestValue));
    unsigned int elements = static_cast<unsigned int>(served(value.address.count));
    getPlcAdd(value.typeClass, position, elements);
    // A string gives the host two characters for each word of the count that it passed.
    if (value.typeClass == tagstore::kShortString && elements != 0)
        elements = 2 * static_cast<unsigned int>(served(hostCount));
    const int elementSize =
        value.typeClass > tagstore::kQuadWord ? 0 : kElementSize[value.typeClass];
    copyBytes(out, value.image, position, static_cast<int>(elements) * elementSize,
              value.typeClass == tagstore::kByte);
}

} // namespace

int SetRegisterData(const QString& name, int areaType, const QString& addressText, int station,
                    const QByteArray& value, int count, int varType, int varIndex)
{
    if (!PLC_driver.comInfo)
        return 1;
    RW_VAR request = writeRequest(*PLC_driver.comInfo, station);
    request.varType = varType;
    request.varIndex = varIndex;
    request.tagName = name;
    request.addressText = addressText;
    request.areaType = areaType;
    request.count = count;
    updateRwVar(&request);
    request.data = value;
    if (PLC_driver.comInfo->writeMode != kQueuedWrites) {
        WriteDataToLocal(&request);
        return 1;
    }
    const int queued = AddListWriteVar(&request, 0);
    if (driverstate::failed())
        WriteDataToLocal(&request);
    return queued;
}

int GetRegisterData(const QString& name, int, const QString& addressText, int station,
                    QByteArray& out, int count)
{
    QMutexLocker lock(&PLC_driver.dataMutex);
    const StoredValue value = storedValue(name, addressText, station, count);
    if (!value.known) {
        out = QByteArray(2 * served(count), '\0');
        return 0;
    }
    toHostLayout(out, value, count);
    return 1;
}

int QueryFinishFlag()
{
    return 1;
}

void WriteDataToLocal(RW_VAR*) {}
