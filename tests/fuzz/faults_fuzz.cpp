// What a user gives the simulated controller besides its tags: fault scripts, which also run on a
// short session, commands, and recordings to answer from.

#include "Command.h"
#include "FaultyLine.h"
#include "Replay.h"
#include "byte_arrays.h"
#include "complaint.h"
#include "fuzz_input.h"
#include "wire.h"

#include <sstream>

namespace {

using namespace micro850;
using namespace micro850::sim;

// More bytes and copies than this only cost time.
bool isSmall(const FaultScript& script)
{
    std::size_t more = 0;
    for (const Fault& fault : script)
        more += fault.kind == FaultKind::Noise ? fault.length : fault.bytes.size() + 1;
    return script.size() <= 16 && more <= 4096;
}

// With any rules a session ends, and the line is quiet once everything on its way has arrived.
void runSession(const FaultScript& script)
{
    static const TagTable table = TagTable::fromText(
        R"({"tags": [{"name": "Speed", "type": "INT", "value": 4112}]})", "tags");
    VirtualClock clock;
    Controller controller(clock, table);
    FaultyLine line(clock, controller, script, 7);
    unsigned told = 0;
    line.setObserver([&told](const FaultyLine::Event& event) {
        ++told;
        FUZZ_CHECK(!describe(event).empty());
    });
    const Bytes requests[] = {
        toBytes(wire::framed(wire::identityRequest(1))),
        toBytes(wire::framed(wire::forwardOpenRequest(2, 0xC61623))),
        toBytes(wire::readRequest(3, wire::hex("5A 3C"), wire::tagPath("Speed"), 1))};
    for (const Bytes& request : requests) {
        line.receive(request);
        clock.advance(Duration(100000));
        line.tick();
        line.transmit();
    }
    unsigned counted = 0;
    for (const auto& [kind, count] : line.counts())
        counted += count;
    FUZZ_CHECK(counted == told);
    line.clear();
    clock.advance(Duration(std::int64_t{4} * 65536 * 3600 * 1000000));
    line.tick();
    line.transmit();
    FUZZ_CHECK(!line.isHungUp());
    FUZZ_CHECK(line.messages(Side::Requests) >= 1);
}

void checkScript(const std::string& text)
{
    const FaultScript script = faultsFromText(text, "f.json");
    for (const Fault& fault : script) {
        FUZZ_CHECK(fault.rate >= 0 && fault.rate <= 1);
        FUZZ_CHECK(fault.messages.empty() || fault.rate == 0);
        FUZZ_CHECK(fault.time.count() >= 0 && fault.bit >= -1 && fault.bit <= 7);
    }
    if (isSmall(script))
        runSession(script);
}

void checkCommand(const std::string& line)
{
    if (const std::optional<Command> command = parseCommand(line)) {
        FUZZ_CHECK(!command->station || *command->station >= 0);
        FUZZ_CHECK(command->kind == Command::Download || command->file.empty());
    }
}

void checkReplay(const std::string& text)
{
    std::istringstream in(text);
    const std::vector<TraceRecord> trace = readTrace(in, "f.txt").records;
    Replay replay(trace, "f.txt");
    FUZZ_CHECK(replay.size() >= 1 && replay.size() <= trace.size());
    Bytes request = toBytes(wire::identityRequest(0x1234));
    if (const std::optional<Bytes> reply = replay.answer(request))
        FUZZ_CHECK(reply->size() >= 8 && (*reply)[4] == 0x34 && (*reply)[5] == 0x12);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    std::string text(reinterpret_cast<const char*>(bytes), size);
    const char kind = text.empty() ? '\0' : text.front();
    if (kind == '\1' || kind == '\2')
        text.erase(0, 1);
    try {
        if (kind == '\1')
            checkCommand(text);
        else if (kind == '\2')
            checkReplay(text);
        else
            checkScript(text);
    } catch (const UserError& error) {
        fuzz::checkComplaint(error, kind == '\2' ? "f.txt:" : kind == '\1' ? "" : "f.json:");
    }
    return 0;
}
