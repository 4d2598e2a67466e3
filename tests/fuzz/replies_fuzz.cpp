// Bytes from the line, as the host parses them: controls and frames, cut into any pieces, and the
// meaning of a frame.

#include "Frame.h"
#include "FrameFields.h"
#include "FrameText.h"
#include "ReplyCollector.h"
#include "fuzz_check.h"
#include "fuzz_input.h"
#include "shown_text.h"
#include "wire.h"

namespace {

using micro850::host::ReplyCollector;

// The driver gets a collected frame as its data are framed, whatever came with it on the line.
void checkForDriver(const ReplyCollector::Event& event)
{
    FUZZ_CHECK(event.data.size() <= 1024);
    const QByteArray frame = micro850::host::replyForDriver(event.frame(), true);
    const QByteArray onLine = wire::framed(event.data.bytes());
    FUZZ_CHECK(frame == onLine || (onLine.endsWith("\x10\x10") && frame == onLine + '\0'));
    FUZZ_CHECK(micro850::host::replyForDriver(event.frame(), false) == onLine);
}

// Each byte of a message is in one part of its explanation.
void checkFields(const QByteArray& message)
{
    int size = 0;
    int last = -1;
    for (const micro850::host::FrameField& field :
         micro850::host::frameFields(message, micro850::host::Request()))
    {
        FUZZ_CHECK(field.offset > last && !field.bytes.isEmpty());
        last = field.offset;
        size += field.bytes.size();
        fuzz::checkShownText(field.name + field.meaning);
    }
    FUZZ_CHECK(size == message.size());
}

void checkData(const QByteArray& data)
{
    const QByteArray onLine = wire::framed(data);
    FUZZ_CHECK(micro850::host::dataOf(onLine) == data);
    FUZZ_CHECK(micro850::host::uncheckedDataOf(onLine) == data);
    micro850::host::frameText(onLine);
    checkFields(onLine);
    const micro850::host::Reply reply = micro850::host::decodeReply(data);
    FUZZ_CHECK(micro850::host::statusText(reply).isEmpty() == reply.good());
    FUZZ_CHECK(micro850::host::statusKey(reply).isEmpty() == reply.good());
    FUZZ_CHECK(reply.values().size() <= data.size());
    const micro850::host::Request request = micro850::host::decodeRequest(data);
    FUZZ_CHECK(request.tag().size() <= 255 && request.element <= 0xFFFF);
    FUZZ_CHECK(!micro850::host::answers(reply, request) || reply.tns == request.tns);
    micro850::host::saysNoConnection(reply);
}

QByteArray take(ReplyCollector& collector, const QByteArray& bytes)
{
    QByteArray kinds;
    for (const ReplyCollector::Event& event : collector.feed(bytes)) {
        kinds.append(static_cast<char>(event.kind));
        kinds.append(event.data.bytes());
        FUZZ_CHECK(event.kind == ReplyCollector::Kind::Frame || event.data.isEmpty());
        if (event.kind != ReplyCollector::Kind::Frame)
            continue;
        checkForDriver(event);
        checkData(event.data.bytes());
    }
    return kinds;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    FuzzInput input(bytes, size);
    QByteArray line;
    while (!input.atEnd())
        line += input.flag() ? wire::framed(input.block()) : input.block();
    // The result does not depend on the pieces.
    ReplyCollector atOnce;
    ReplyCollector inPieces;
    const QByteArray found = take(atOnce, line);
    const int piece = 1 + (line.isEmpty() ? 0 : line.at(0) & 0x0F);
    QByteArray foundInPieces;
    for (int at = 0; at < line.size(); at += piece)
        foundInPieces += take(inPieces, line.mid(at, piece));
    FUZZ_CHECK(found == foundInPieces);
    FUZZ_CHECK(atOnce.inFrame() == inPieces.inFrame());
    FUZZ_CHECK(atOnce.noiseBytes() == inPieces.noiseBytes() && atOnce.noiseBytes() <= line.size());
    checkData(line.left(1024));
    micro850::host::uncheckedDataOf(line);
    micro850::host::frameText(line);
    checkFields(line);
    return 0;
}
