#ifndef MICRO850_COMMON_TRACEFILE_H
#define MICRO850_COMMON_TRACEFILE_H

// Recorded traffic of the serial line: one record a frame, as a text file or as pcapng for
// Wireshark.

#include "Bytes.h"
#include "OutputFile.h"

#include <chrono>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace micro850 {

/// As the host sees it.
enum class Direction { Sent, Received };

struct TraceRecord
{
    std::chrono::microseconds time{0}; ///< since 1970-01-01 UTC
    Direction direction = Direction::Sent;
    Bytes bytes;
    std::string note; ///< one-line decode, for the reader; not kept by pcapng
    int station = -1; ///< whose frame it is; below 0 when that is not known
};

/// Writes records one by one; a record is in the file when write() returns. All functions throw
/// UserError with one line that names the file and the cause.
class TraceWriter
{
public:
    /// Creates `path`, or empties it: pcapng for a name ending in ".pcapng", text for ".txt". A
    /// file with content that is not a trace of this program is emptied only if `replaces`. A link
    /// is followed; what counts is the file that it leads to.
    static std::unique_ptr<TraceWriter> open(const std::string& path, bool replaces = false);

    /// What was written before stays whole when this record does not fit.
    void write(const TraceRecord& record);
    /// Ends the file.
    void close();

private:
    TraceWriter(OutputFile file, bool pcapng);

    OutputFile m_file;
    bool m_pcapng;
};

using TraceHandler = std::function<void(const TraceRecord&)>;

/// Reads a trace file of either kind, recognised by its content, and calls `handle` for each
/// record in turn. Returns a remark when the last record is cut short, otherwise "". Throws
/// UserError with one line that names the file and the line or byte that is wrong.
std::string readTrace(const std::string& path, const TraceHandler& handle);
/// The same from a stream; messages call it `name`.
std::string readTrace(std::istream& in, const std::string& name, const TraceHandler& handle);

/// Throws UserError unless there is a file of this name that can be a trace.
void requireTraceFile(const std::string& path);

/// A trace in memory.
struct Trace
{
    std::vector<TraceRecord> records;
    std::string remark; ///< when the last record is cut short
};

/// The whole trace at once. A file of more than 256 MiB is refused.
Trace readTrace(const std::string& path);
Trace readTrace(std::istream& in, const std::string& name);

} // namespace micro850

#endif
