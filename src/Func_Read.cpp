#include "Func_Read.h"

#include "internal/DriverState.h"
#include "internal/Frame.h"
#include "internal/TagStore.h"
#include "internal/Wrapping.h"

namespace {

// Head of a connected Read Tag Fragmented request up to the code of its symbol segment. Header
// bytes 8, 9, 12, 13 and 14 and the path size at 17 are patched.
const char kReadTemplate[] = "10 06 10 02 00 01 0A 00 48 00 00 00 76 61 4F 45 52 06 91";

/// What the encoder needs to know of the station.
struct ReadContext
{
    frame::Header header;
    int typeClass;
};

// Forgets a class that no reply confirmed, so that the first read of a tag always asks for one
// element. Caller holds the store's leaf lock.
int classForRead(PLCTAGCOMMUNICATION& station, const QString& tagName)
{
    QByteArray& info = station.tagInfo[tagName];
    if (!tagstore::isConfirmed(info) &&
        frame::byteAt(info, tagstore::kClass) != tagstore::kUnknownClass)
    {
        frame::growTo(info, 1);
        info[tagstore::kClass] = static_cast<char>(tagstore::kUnknownClass);
    }
    return frame::byteAt(info, tagstore::kClass);
}

ReadContext contextOf(const RW_VAR& request)
{
    LeafLocker lock(tagstore::leaf);
    PLCTAGCOMMUNICATION& station = PLCDataStorage[request.stationNo];
    ReadContext context = {tagstore::headerOf(station), tagstore::kByte};
    if (request.reqFlag != 0)
        context.typeClass = classForRead(station, request.tagName);
    return context;
}

// In the wide classes `count` is in 16-bit words: 2 for one 32-bit value, 4 for one 64-bit value.
int elementCountForRead(const RW_VAR& request, int typeClass)
{
    const bool once = request.onceFlag != 0;
    switch (typeClass) {
    case tagstore::kShortString:
    case tagstore::kUnknownClass:
        return 1;
    case tagstore::kDoubleWord:
        return once ? request.count >> 1 : wrapping::difference(request.count, 1);
    case tagstore::kQuadWord:
        return once ? request.count >> 2 : wrapping::difference(request.count, 3);
    default:
        return request.count;
    }
}

// Element 0 while the class is unknown, since an index could not be scaled yet.
int elementForRead(const RW_VAR& request, int typeClass)
{
    const bool isIndexed = request.reqFlag != 0 && typeClass != tagstore::kShortString &&
                           typeClass != tagstore::kUnknownClass;
    return isIndexed ? request.startAddress : 0;
}

} // namespace

void ReadRegister(RW_VAR* request)
{
    if (!request)
        return;
    static const QByteArray head = frame::fromHexText(kReadTemplate);
    const ReadContext context = contextOf(*request);

    frame::Builder builder(head, request->tagName, elementForRead(*request, context.typeClass));
    builder.addCount(elementCountForRead(*request, context.typeClass));

    driverstate::queue(builder.finish(context.header), driverstate::kVariableLength, frame::kValues,
                       *request);
    driverstate::beginExchange(1);
}
