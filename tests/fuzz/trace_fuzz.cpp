// Recorded traffic, as text and as pcapng: any file is read or refused with one line. A trace that
// is read can be written again.

#include "TraceFile.h"
#include "complaint.h"

#include <cstddef>
#include <cstdint>
#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    std::istringstream in(std::string(reinterpret_cast<const char*>(bytes), size));
    try {
        for (const micro850::TraceRecord& record : micro850::readTrace(in, "t.txt")) {
            // A parsed trace never has more bytes than its file.
            FUZZ_CHECK(record.bytes.size() <= size && record.note.size() <= size);
            FUZZ_CHECK(record.time.count() >= 0);
        }
    } catch (const micro850::UserError& error) {
        fuzz::checkComplaint(error, "t.txt:");
    }
    return 0;
}
