#ifndef MICRO850_COMMON_TRACEFILE_H
#define MICRO850_COMMON_TRACEFILE_H

// Recorded traffic of the serial line: one record a frame, as a text file or as pcapng for
// Wireshark.

#include "Bytes.h"

#include <chrono>
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
};

/// Writes records one by one; a record is in the file when write() returns.
class TraceWriter
{
public:
    virtual ~TraceWriter() = default;
    virtual void write(const TraceRecord& record) = 0;

    /// Creates `path`, or empties it: pcapng for a name ending in ".pcapng", text for ".txt".
    /// Throws UserError with one line for another name or a file that cannot be written.
    static std::unique_ptr<TraceWriter> open(const std::string& path);
};

/// All records of a trace file of either kind, recognised by its content. Throws std::runtime_error
/// with one line that names the file and the line or byte that is wrong.
std::vector<TraceRecord> readTrace(const std::string& path);
/// The same from a stream; messages call it `name`.
std::vector<TraceRecord> readTrace(std::istream& in, const std::string& name);

} // namespace micro850

#endif
