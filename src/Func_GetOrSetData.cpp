#include "Func_GetOrSetData.h"

#include "Func_Initi.h"
#include "tagcommunication.h"

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

/// A tag's stored bytes and how to read them.
struct StoredValue
{
    bool known;
    int typeClass;
    QByteArray image;
};

// One step for the store, so that class and bytes belong together. Completes the request.
StoredValue storedValue(RW_VAR& request)
{
    LeafLocker lock(tagstore::leaf);
    StoredValue value = {false, 0, QByteArray()};
    tagstore::completeRequest(request);
    if (!tagstore::isConnected(request.stationNo) || !tagstore::hasTagData(request))
        return value;
    const PLCTAGCOMMUNICATION& station = PLCDataStorage[request.stationNo];
    value.known = true;
    value.typeClass = frame::byteAt(station.tagInfo.value(request.tagName), tagstore::kClass);
    value.image = station.tagData.value(request.tagName);
    return value;
}

// A count below 0, or beyond what any controller holds, asks for nothing.
int served(qint64 count)
{
    return count < 0 || count > tagstore::kLargestValue ? 0 : static_cast<int>(count);
}

// Bytes of `image` from `position`, 00 behind its end.
QByteArray bytesFrom(const QByteArray& image, qint64 position, int size)
{
    QByteArray bytes(size, '\0');
    if (size > 0 && position < image.size()) {
        const qint64 present = qMin<qint64>(size, image.size() - position);
        std::memcpy(bytes.data(), image.constData() + position, static_cast<std::size_t>(present));
    }
    return bytes;
}

QByteArray withZeroBytes(const QByteArray& bytes)
{
    QByteArray words(2 * bytes.size(), '\0');
    for (int i = 0; i < bytes.size(); ++i)
        words[2 * i] = bytes.at(i);
    return words;
}

/// The value in the host's layout. `request` is completed, `hostCount` as the host passed it.
QByteArray hostLayout(const StoredValue& value, const RW_VAR& request, int hostCount)
{
    if (value.typeClass > tagstore::kQuadWord)
        return QByteArray();
    const bool indexable =
        request.startAddress >= 0 && request.startAddress <= tagstore::kLargestValue;
    unsigned int position = indexable ? static_cast<unsigned int>(request.startAddress) : 0;
    unsigned int elements = static_cast<unsigned int>(served(request.count));
    getPlcAdd(value.typeClass, position, elements);
    if (elements == 0)
        return QByteArray();
    // A string's characters are counted by what the host asked for, two to a word.
    if (value.typeClass == tagstore::kShortString)
        elements = 2 * static_cast<unsigned int>(served(hostCount));
    const int size = static_cast<int>(elements) * kElementSize[value.typeClass];
    const QByteArray bytes =
        bytesFrom(value.image, indexable ? position : value.image.size(), size);
    return value.typeClass == tagstore::kByte ? withZeroBytes(bytes) : bytes;
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
    RW_VAR request = RW_VAR();
    request.tagName = name;
    request.addressText = addressText;
    request.stationNo = station;
    request.count = count;
    const StoredValue value = storedValue(request);
    if (!value.known) {
        out = QByteArray(2 * served(count), '\0');
        return 0;
    }
    out = hostLayout(value, request, count);
    return 1;
}

int QueryFinishFlag()
{
    return 1;
}

void WriteDataToLocal(RW_VAR*) {}
