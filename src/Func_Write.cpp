#include "Func_Write.h"

#include "Func_GetOrSetData.h"
#include "internal/DriverState.h"
#include "internal/Frame.h"
#include "internal/TagStore.h"

namespace {

// Head of a connected Write Tag Fragmented request, patched as the read request's.
const char kWriteTemplate[] = "10 06 10 02 00 01 0A 00 A4 00 00 00 B5 9C AB 45 53 07 91";

/// What the encoder needs of the station's record.
struct WriteContext
{
    frame::Header header;
    QByteArray info;
};

WriteContext contextOf(const RW_VAR& request)
{
    LeafLocker lock(tagstore::leaf);
    PLCTAGCOMMUNICATION& station = PLCDataStorage[request.stationNo];
    WriteContext context = {tagstore::headerOf(station), station.tagInfo[request.tagName]};
    return context;
}

// Pads with 00 or cuts to exactly `size` bytes. A size that no controller can take leaves the bytes
// alone: the controller then refuses the write, as count and bytes disagree.
void fit(QByteArray& data, qint64 size)
{
    if (size > tagstore::kLargestValue)
        return;
    const int wanted = static_cast<int>(qMax<qint64>(size, 0));
    frame::growTo(data, wanted);
    data.truncate(wanted);
}

// The host hands one 16-bit word per 8-bit element, value in the low byte.
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

/// Brings `request.data` into the layout of the class; the number of elements to announce.
int reshape(RW_VAR& request, const QByteArray& info)
{
    const int count = request.count;
    const int typeClass = frame::byteAt(info, tagstore::kClass); // an empty entry counts as BOOL
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
    // No controller takes more, and the frame's length has to stay a number.
    request.data.truncate(tagstore::kLargestValue);
    return elements;
}

int elementForWrite(const RW_VAR& request, const QByteArray& info)
{
    const bool isIndexed =
        request.reqFlag != 0 && frame::byteAt(info, tagstore::kClass) != tagstore::kShortString;
    return isIndexed ? request.startAddress : 0;
}

} // namespace

void WriteRegister(RW_VAR* request)
{
    if (!request)
        return;
    static const QByteArray head = frame::fromHexText(kWriteTemplate);
    const WriteContext context = contextOf(*request);
    const int elements = reshape(*request, context.info);

    frame::Builder builder(head, request->tagName, elementForWrite(*request, context.info));
    builder.addType(frame::byteAt(context.info, tagstore::kTypeLow),
                    frame::byteAt(context.info, tagstore::kTypeHigh));
    builder.addCount(elements);
    builder.addBytes(request->data);

    driverstate::queue(builder.finish(context.header), driverstate::kVariableLength, 0, *request);
    driverstate::beginExchange(1);
    driverstate::notifyRefresh(request->varType);
    if (!driverstate::failed())
        WriteDataToLocal(request);
}
