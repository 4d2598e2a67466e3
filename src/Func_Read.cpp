#include "Func_Read.h"

#include "tagcommunication.h"

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
    ReadContext context = {frame::headerOf(station), tagstore::kByte};
    if (request.reqFlag != 0)
        context.typeClass = classForRead(station, request.tagName);
    return context;
}

int wrappingDifference(int count, unsigned int less)
{
    return static_cast<int>(static_cast<unsigned int>(count) - less);
}

// `count` is in 16-bit words for the wide classes: a single 32-bit value has 2, a single 64-bit 4.
int elementCountForRead(const RW_VAR& request, int typeClass)
{
    if (request.reqFlag == 0)
        return request.count;
    const bool once = request.onceFlag != 0;
    switch (typeClass) {
    case tagstore::kShortString:
    case tagstore::kUnknownClass:
        return 1;
    case tagstore::kDoubleWord:
        return once ? request.count >> 1 : wrappingDifference(request.count, 1);
    case tagstore::kQuadWord:
        return once ? request.count >> 2 : wrappingDifference(request.count, 3);
    default:
        return request.count;
    }
}

// An unknown class reads the whole tag's first element: an index could not be scaled.
bool takesElement(const RW_VAR& request, int typeClass)
{
    return request.reqFlag != 0 && typeClass != tagstore::kShortString &&
           typeClass != tagstore::kUnknownClass;
}

} // namespace

void ReadRegister(RW_VAR* request)
{
    if (!request)
        return;
    static const QByteArray head = frame::fromHexText(kReadTemplate);
    const ReadContext context = contextOf(*request);

    frame::Builder builder(head,
                           frame::roomForTagName(request->tagName) + frame::kRoomForRequestTail);
    builder.addTagName(request->tagName);
    if (takesElement(*request, context.typeClass))
        builder.addElement(request->startAddress);
    builder.endPath();
    builder.addCount(elementCountForRead(*request, context.typeClass));

    frame::queue(builder.finished(context.header), frame::kVariableLength, frame::kValues,
                 *request);
    frame::beginExchange(1);
}
