// Recorded traffic, as text and as pcapng: any file is read or refused with one line. What was read
// and is written again, in either format, is read as the same. A written file that is cut anywhere
// is read up to there.

#include "TraceFile.h"
#include "complaint.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

namespace {

using namespace micro850;

/// A folder of this process, removed at its end.
struct Folder
{
    Folder()
    {
        // In memory where there is such a disk: it is twenty times faster.
        const std::filesystem::path memory = "/dev/shm";
        const auto place =
            std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path();
        std::string name = (place / "trace-fuzz-XXXXXX").string();
        FUZZ_CHECK(::mkdtemp(&name[0]) != nullptr);
        path = name;
    }
    ~Folder() { std::filesystem::remove_all(path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    std::string file(const char* name) const { return (path / name).string(); }

    std::filesystem::path path;
};

std::optional<Trace> readOrRefused(const std::string& path)
{
    try {
        return readTrace(path);
    } catch (const UserError& error) {
        fuzz::checkComplaint(error, path + ':');
        return std::nullopt;
    }
}

// A stream is read as the file with the same bytes is.
void checkStream(const std::string& content, const std::optional<Trace>& ofFile)
{
    std::istringstream in(content);
    try {
        const Trace trace = readTrace(in, "t.txt");
        FUZZ_CHECK(ofFile && trace.records.size() == ofFile->records.size());
        FUZZ_CHECK(trace.remark == ofFile->remark);
    } catch (const UserError& error) {
        fuzz::checkComplaint(error, "t.txt:");
        FUZZ_CHECK(!ofFile);
    }
}

void checkRecords(const std::vector<TraceRecord>& records, std::size_t size)
{
    for (const TraceRecord& record : records) {
        // A parsed trace never has more bytes than its file.
        FUZZ_CHECK(record.bytes.size() <= size && record.note.size() <= size);
        FUZZ_CHECK(record.time.count() >= 0);
    }
}

// `actual` has the first records of `expected`.
void checkBegin(const std::vector<TraceRecord>& actual, const std::vector<TraceRecord>& expected,
                bool hasNotes)
{
    FUZZ_CHECK(actual.size() <= expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        FUZZ_CHECK(actual[i].time == expected[i].time);
        FUZZ_CHECK(actual[i].direction == expected[i].direction);
        FUZZ_CHECK(actual[i].bytes == expected[i].bytes);
        FUZZ_CHECK(actual[i].station == expected[i].station);
        FUZZ_CHECK(actual[i].note == (hasNotes ? expected[i].note : std::string()));
    }
}

void checkWritten(const std::string& path, const std::vector<TraceRecord>& records,
                  std::size_t place, bool hasNotes)
{
    {
        const auto writer = TraceWriter::open(path);
        for (const TraceRecord& record : records)
            writer->write(record);
        writer->close();
    }
    const Trace again = readTrace(path);
    FUZZ_CHECK(again.remark.empty() && again.records.size() == records.size());
    checkBegin(again.records, records, hasNotes);

    const std::uintmax_t size = std::filesystem::file_size(path);
    std::filesystem::resize_file(path, place % size);
    if (const std::optional<Trace> cut = readOrRefused(path))
        checkBegin(cut->records, records, hasNotes);
    std::filesystem::resize_file(path, 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    static const Folder folder;
    const std::string content(reinterpret_cast<const char*>(bytes), size);
    const std::string input = folder.file("input.txt");
    std::ofstream(input, std::ios::binary | std::ios::trunc) << content;
    const std::optional<Trace> trace = readOrRefused(input);
    checkStream(content, trace);
    if (!trace)
        return 0;
    checkRecords(trace->records, size);
    // Any number that depends on the whole input.
    const std::size_t place = std::hash<std::string>()(content);
    checkWritten(folder.file("t.txt"), trace->records, place, true);
    checkWritten(folder.file("t.pcapng"), trace->records, place, false);
    return 0;
}
