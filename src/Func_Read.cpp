#include "Func_Read.h"

#include "internal/DriverState.h"
#include "internal/Frame.h"
#include "internal/TagStore.h"
#include "internal/Wrapping.h"

namespace {

// Head of a connected Read Tag Fragmented request up to its symbol segment code; header bytes 8, 9,
// 12, 13, 14 and path size 17 are patched.
const char kReadTemplate[] = "10 06 10 02 00 01 0A 00 48 00 00 00 76 61 4F 45 52 06 91";

/// What an encoder needs of the station's record.
struct ReadContext
{
    frame::Header header;
    int typeClass;
};

// Caller holds the store's leaf lock. A class that no reply confirmed is forgotten, so that the
// first read of a tag always asks for a single element.
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

// `count` is in 16-bit words for the wide classes: a single 32-bit value has 2, a single 64-bit 4.
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
