#include "Func_Write.h"

#include "Func_GetOrSetData.h"
#include "internal/DriverState.h"
#include "internal/Frame.h"
#include "internal/TagStore.h"

namespace {

// Head of a connected Write Tag Fragmented request up to the code of its symbol segment. The same
// bytes are patched as in a read request.
const char kWriteTemplate[] = "10 06 10 02 00 01 0A 00 A4 00 00 00 B5 9C AB 45 53 07 91";

/// What the encoder needs to know of the station.
struct WriteContext
{
    frame::Header header;
    int typeClass;
    quint8 typeLow;
    quint8 typeHigh;
};

WriteContext contextOf(const RW_VAR& request)
{
    LeafLocker lock(tagstore::leaf);
    PLCTAGCOMMUNICATION& station = PLCDataStorage[request.stationNo];
    // An empty entry reads as class BOOL with the type code 00 00.
    const QByteArray& info = station.tagInfo[request.tagName];
    const WriteContext context = {
        tagstore::headerOf(station), frame::byteAt(info, tagstore::kClass),
        frame::byteAt(info, tagstore::kTypeLow), frame::byteAt(info, tagstore::kTypeHigh)};
    return context;
}

// Pads with 00 or cuts to exactly `size` bytes. A size that no controller can hold leaves the bytes
// alone: the controller then refuses the write, since count and bytes disagree.
void fit(QByteArray& data, qint64 size)
{
    if (size > tagstore::kLargestValue)
        return;
    const int wanted = static_cast<int>(qMax<qint64>(size, 0));
    frame::growTo(data, wanted);
    data.truncate(wanted);
}

// The host gives one 16-bit word per 8-bit element, with the value in the low byte.
void fitLowBytes(QByteArray& data, int count)
{
    if (count > tagstore::kLargestValue)
        return;
    QByteArray low(qMax(count, 0), '\0');
    for (int i = 0; i < low.size() && 2 * i < data.size(); ++i)
        low[i] = data.at(2 * i);
    data = low;
}

int elementsOf(int words, int wordsPerElement)
{
    return static_cast<int>((qint64(words) + wordsPerElement - 1) / wordsPerElement);
}

/// Converts `request.data` to the layout of the class. Returns the number of elements to announce.
int reshape(RW_VAR& request, int typeClass)
{
    const int count = request.count;
    int elements = count;
    switch (typeClass) {
    case tagstore::kBool:
        fit(request.data, count);
        break;
    case tagstore::kShortString:
        request.data.truncate(tagstore::kLargestValue);
        request.data.prepend(static_cast<char>(request.data.size() & 0xFF));
        elements = 1;
        break;
    case tagstore::kByte:
        fitLowBytes(request.data, count);
        break;
    case tagstore::kWord:
        fit(request.data, 2 * qint64(count));
        break;
    case tagstore::kDoubleWord:
        elements = elementsOf(count, 2);
        fit(request.data, 4 * qint64(elements));
        break;
    case tagstore::kQuadWord:
        elements = elementsOf(count, 4);
        fit(request.data, 8 * qint64(elements));
        break;
    default:
        break;
    }
    // No controller takes more, and the frame's length must fit an int.
    request.data.truncate(tagstore::kLargestValue);
    return elements;
}

int elementForWrite(const RW_VAR& request, int typeClass)
{
    const bool isIndexed = request.reqFlag != 0 && typeClass != tagstore::kShortString;
    return isIndexed ? request.startAddress : 0;
}

} // namespace

void WriteRegister(RW_VAR* request)
{
    if (!request)
        return;
    static const QByteArray head = frame::fromHexText(kWriteTemplate);
    const WriteContext context = contextOf(*request);
    const int elements = reshape(*request, context.typeClass);

    frame::Builder builder(head, request->tagName, elementForWrite(*request, context.typeClass));
    builder.addType(context.typeLow, context.typeHigh);
    builder.addCount(elements);
    builder.addBytes(request->data);

    driverstate::queue(builder.finish(context.header), driverstate::kVariableLength, 0, *request);
    driverstate::beginExchange(1);
    driverstate::notifyRefresh(request->varType);
    if (!driverstate::failed())
        WriteDataToLocal(request);
}
