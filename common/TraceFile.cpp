#include "TraceFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <istream>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace micro850 {

namespace {

using std::chrono::microseconds;

constexpr std::uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr std::uint32_t kInterfaceDescription = 1;
constexpr std::uint32_t kEnhancedPacket = 6;
constexpr std::uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr std::uint32_t kSwappedMagic = 0x4D3C2B1A;
constexpr std::uint16_t kLinkTypeUser0 = 147;
constexpr std::uint16_t kCommentOption = 1;
constexpr std::uint16_t kFlagsOption = 2;
constexpr std::uint16_t kResolutionOption = 9;
constexpr std::uint32_t kInbound = 1;
constexpr std::uint32_t kOutbound = 2;
// Frames are shorter than a kilobyte; a larger block means that the file is damaged.
constexpr std::uint32_t kLargestBlock = 1u << 20;
// What the text of the largest block needs.
constexpr std::size_t kLongestLine = std::size_t{4} << 20;
// What is kept in memory as a whole.
constexpr off_t kLargestWhole = off_t{256} << 20;
// The end of the year 9999: no text of a date has room for a later one.
constexpr std::int64_t kLastSecond = 253402300799;
constexpr char kTooLate[] = "a time is beyond the year 9999";

[[noreturn]] void fail(const std::string& name, const std::string& what)
{
    throw UserError(name + ": " + what);
}

std::string withoutControls(std::string text)
{
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7F')
            c = ' ';
    }
    return text;
}

const char kStation[] = "station ";

std::string stationText(const TraceRecord& record)
{
    return record.station < 0 ? std::string() : kStation + std::to_string(record.station);
}

// Takes "station 2" from the begin of a note. Any other text stays as it is.
void popStation(TraceRecord& record)
{
    const std::string& note = record.note;
    if (note.compare(0, sizeof kStation - 1, kStation) != 0)
        return;
    int number = 0;
    const char* const end = note.data() + note.size();
    const auto result = std::from_chars(note.data() + sizeof kStation - 1, end, number);
    const std::string rest(result.ptr, end);
    if (result.ec != std::errc() || number < 0 || (!rest.empty() && rest.compare(0, 2, ": ") != 0))
        return;
    record.station = number;
    record.note = rest.empty() ? rest : rest.substr(2);
}

// ---- Text ---------------------------------------------------------------------------------------

const char kTextHeading[] = "# time in seconds since 1970, > sent or < received, bytes, decode";

std::string hexOf(const Bytes& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (std::uint8_t byte : bytes) {
        if (!text.empty())
            text += ' ';
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string textOf(const TraceRecord& record)
{
    const auto count = record.time.count();
    std::string micros = std::to_string(count % 1000000);
    micros.insert(0, 6 - micros.size(), '0');
    std::string line = std::to_string(count / 1000000) + '.' + micros +
                       (record.direction == Direction::Sent ? " > " : " < ") + hexOf(record.bytes);
    const std::string station = stationText(record);
    if (!station.empty() || !record.note.empty())
        line += "  # " + station + (station.empty() || record.note.empty() ? "" : ": ") +
                withoutControls(record.note);
    return line + '\n';
}

// One line of a text trace. Throws the reason without the place.
class TextLine
{
public:
    explicit TextLine(const std::string& line) : m_line(line) {}

    TraceRecord record()
    {
        TraceRecord record;
        record.time = time();
        record.direction = direction();
        const std::size_t note = m_line.find('#', m_at);
        if (note != std::string::npos) {
            const std::string text = withoutControls(m_line.substr(note + 1));
            const std::size_t begin = text.find_first_not_of(' ');
            if (begin != std::string::npos)
                record.note = text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
            popStation(record);
        }
        record.bytes = bytes(note == std::string::npos ? m_line.size() : note);
        return record;
    }

private:
    template<typename T> T number(std::size_t end, int base)
    {
        T value{};
        const char* first = m_line.data() + m_at;
        const char* last = m_line.data() + end;
        const auto result = std::from_chars(first, last, value, base);
        if (first == last || result.ec != std::errc() || result.ptr != last)
            throw std::runtime_error('"' + m_line.substr(m_at, end - m_at) + "\" is not a number");
        m_at = end;
        return value;
    }

    microseconds time()
    {
        const std::size_t dot = m_line.find('.');
        const std::size_t blank = m_line.find(' ');
        if (dot == std::string::npos || blank == std::string::npos || blank != dot + 7)
            throw std::runtime_error(
                "not a trace: each line must start with a time such as 1732233600.123456");
        const auto seconds = number<std::uint64_t>(dot, 10);
        if (seconds > static_cast<std::uint64_t>(kLastSecond))
            throw std::runtime_error(kTooLate);
        ++m_at;
        const auto micros = number<std::uint32_t>(blank, 10);
        return microseconds(static_cast<std::int64_t>(seconds) * 1000000 + micros);
    }

    Direction direction()
    {
        const std::string mark = m_line.substr(m_at, 3);
        if (mark != " > " && mark != " < " && mark != " >" && mark != " <")
            throw std::runtime_error("the time is followed by > (sent) or < (received)");
        m_at += mark.size();
        return mark[1] == '>' ? Direction::Sent : Direction::Received;
    }

    Bytes bytes(std::size_t end)
    {
        Bytes bytes;
        while ((m_at = std::min(m_line.find_first_not_of(" \r", m_at), end)) < end) {
            const std::size_t stop = std::min(m_line.find_first_of(" \r", m_at), end);
            if (stop - m_at != 2)
                throw std::runtime_error("bytes are two hexadecimal digits each");
            bytes.push_back(number<std::uint8_t>(stop, 16));
        }
        return bytes;
    }

    const std::string& m_line;
    std::size_t m_at = 0;
};

// Reads the lines one by one, so that a file of any size needs little memory.
class TextReader
{
public:
    TextReader(std::istream& in, const std::string& name, const TraceHandler& handle)
        : m_in(in), m_name(name), m_handle(handle)
    {
    }

    std::string run()
    {
        while (next()) {
            if (m_cut && m_isTrace)
                return "line " + std::to_string(m_number) +
                       " is cut short and left out: the recording ended there";
            handle();
        }
        if (!m_isTrace)
            fail(m_name, "not a trace: no line of it is a record");
        return "";
    }

private:
    // The next line with content; false at the end.
    bool next()
    {
        do {
            ++m_number;
            if (!readLine())
                return false;
            m_isTrace = m_isTrace || (!m_cut && m_line == kTextHeading);
        } while (m_line.empty() || m_line[0] == '#' || m_line == "\r");
        return true;
    }

    bool readLine()
    {
        std::array<char, 4096> part{};
        m_line.clear();
        for (;;) {
            m_in.getline(part.data(), part.size());
            const auto count = static_cast<std::size_t>(m_in.gcount());
            m_cut = m_in.eof();
            if (!m_in.fail()) {
                m_line.append(part.data(), m_cut ? count : count - 1);
                return true;
            }
            if (count + 1 < part.size()) // the end, or an error
                return !m_line.empty();
            m_in.clear();
            m_line.append(part.data(), count);
            if (m_line.size() >= kLongestLine)
                failHere("not a trace: the line is longer than " + std::to_string(kLongestLine) +
                         " bytes");
        }
    }

    void handle()
    {
        TraceRecord record;
        try {
            record = TextLine(m_line).record();
        } catch (const std::runtime_error& error) {
            failHere(error.what());
        }
        if (m_cut)
            failHere("the only record is cut short: its line has no end");
        m_isTrace = true;
        m_handle(record);
    }

    [[noreturn]] void failHere(const std::string& what) const
    {
        fail(m_name + ':' + std::to_string(m_number), what);
    }

    std::istream& m_in;
    const std::string& m_name;
    const TraceHandler& m_handle;
    std::string m_line;
    int m_number = 0;
    bool m_cut = false;     ///< the line has no end
    bool m_isTrace = false; ///< the heading or a record was seen
};

// ---- pcapng -------------------------------------------------------------------------------------

template<typename T> void put(std::string& out, T value)
{
    for (std::size_t i = 0; i < sizeof(T); ++i)
        out += static_cast<char>((value >> (8 * i)) & 0xFF);
}

std::string block(std::uint32_t type, const std::string& body)
{
    std::string out;
    const auto size = static_cast<std::uint32_t>(body.size() + 12);
    put(out, type);
    put(out, size);
    out += body;
    put(out, size);
    return out;
}

std::string pcapngHeading()
{
    std::string section;
    put(section, kByteOrderMagic);
    put<std::uint16_t>(section, 1);
    put<std::uint16_t>(section, 0);
    put(section, ~std::uint64_t{0}); // section length not given
    std::string interface;
    put(interface, kLinkTypeUser0);
    put<std::uint16_t>(interface, 0);
    put<std::uint32_t>(interface, 0); // no snap length; time stamps in microseconds by default
    return block(kSectionHeader, section) + block(kInterfaceDescription, interface);
}

std::string packetOf(const TraceRecord& record)
{
    const auto stamp = static_cast<std::uint64_t>(record.time.count());
    const auto size = static_cast<std::uint32_t>(record.bytes.size());
    std::string body;
    put<std::uint32_t>(body, 0); // interface
    put(body, static_cast<std::uint32_t>(stamp >> 32));
    put(body, static_cast<std::uint32_t>(stamp));
    put(body, size);
    put(body, size);
    body.append(record.bytes.begin(), record.bytes.end());
    body.append((4 - size % 4) % 4, '\0');
    put(body, kFlagsOption);
    put<std::uint16_t>(body, 4);
    put(body, record.direction == Direction::Sent ? kOutbound : kInbound);
    const std::string station = stationText(record);
    if (!station.empty()) {
        put(body, kCommentOption);
        put(body, static_cast<std::uint16_t>(station.size()));
        body += station;
        body.append((4 - station.size() % 4) % 4, '\0');
    }
    put<std::uint32_t>(body, 0); // end of options
    return block(kEnhancedPacket, body);
}

// Reads numbers of a block's body in the file's byte order, never beyond its end.
class BodyReader
{
public:
    BodyReader(const std::string& body, bool swapped) : m_body(body), m_swapped(swapped) {}

    std::uint64_t number(std::size_t size)
    {
        if (m_body.size() - m_at < size)
            throw std::runtime_error("a block is cut short");
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size; ++i) {
            const std::size_t at = m_at + (m_swapped ? i : size - 1 - i);
            value = value << 8 | static_cast<std::uint8_t>(m_body[at]);
        }
        m_at += size;
        return value;
    }

    Bytes bytes(std::uint64_t size)
    {
        if (m_body.size() - m_at < size)
            throw std::runtime_error("a packet is longer than its block");
        const auto first = m_body.begin() + static_cast<std::ptrdiff_t>(m_at);
        const auto count = static_cast<std::ptrdiff_t>(size);
        m_at = std::min(m_at + (static_cast<std::size_t>(size) + 3) / 4 * 4, m_body.size());
        return {first, first + count};
    }

    bool atEnd() const { return m_body.size() - m_at < 4; }

private:
    const std::string& m_body;
    bool m_swapped;
    std::size_t m_at = 0;
};

// Packets' time stamps count these parts of a second, 10 to the power of minus `digits`.
struct Interface
{
    unsigned digits = 6;
};

microseconds timeOf(std::uint64_t stamp, const Interface& interface)
{
    for (unsigned digits = interface.digits; digits > 6; --digits)
        stamp /= 10;
    const auto last = static_cast<std::uint64_t>(kLastSecond + 1) * 1000000 - 1;
    for (unsigned digits = interface.digits; digits < 6 && stamp <= last; ++digits)
        stamp *= 10;
    if (stamp > last)
        throw std::runtime_error(kTooLate);
    return microseconds(static_cast<std::int64_t>(stamp));
}

Interface interfaceOf(BodyReader body)
{
    const std::uint64_t linkType = body.number(2);
    if (linkType != kLinkTypeUser0)
        throw std::runtime_error("not a trace: packets of link type " + std::to_string(linkType) +
                                 ", not " + std::to_string(kLinkTypeUser0));
    body.number(2);
    body.number(4); // the longest packet
    Interface interface;
    while (!body.atEnd()) {
        const std::uint64_t option = body.number(2);
        const std::uint64_t length = body.number(2);
        const Bytes value = body.bytes(length);
        if (option == kResolutionOption && length == 1)
            interface.digits = value[0];
    }
    if (interface.digits > 18)
        throw std::runtime_error("times are in units that this program does not know");
    return interface;
}

TraceRecord recordOf(BodyReader body, const std::vector<Interface>& interfaces)
{
    TraceRecord record;
    const std::uint64_t interface = body.number(4);
    const std::uint64_t high = body.number(4);
    const std::uint64_t stamp = high << 32 | body.number(4);
    record.time =
        timeOf(stamp, interface < interfaces.size() ? interfaces[interface] : Interface());
    const std::uint64_t size = body.number(4);
    body.number(4); // original length
    record.bytes = body.bytes(size);
    while (!body.atEnd()) {
        const std::uint64_t option = body.number(2);
        const std::uint64_t length = body.number(2);
        if (option == kFlagsOption && length == 4) {
            record.direction =
                (body.number(4) & 3) == kInbound ? Direction::Received : Direction::Sent;
            continue;
        }
        const Bytes value = body.bytes(length);
        if (option != kCommentOption)
            continue;
        TraceRecord commented;
        commented.note.assign(value.begin(), value.end());
        popStation(commented);
        record.station = commented.station;
    }
    return record;
}

class PcapngReader
{
public:
    PcapngReader(std::istream& in, const std::string& name, const TraceHandler& handle)
        : m_in(in), m_name(name), m_handle(handle)
    {
    }

    std::string run()
    {
        try {
            while (next())
                handle();
        } catch (const UserError&) {
            throw; // of the one who handles the records
        } catch (const std::runtime_error& error) {
            fail(m_name, "byte " + std::to_string(m_start) + ": " + error.what());
        }
        return m_cut ? "byte " + std::to_string(m_start) +
                           ": the block is cut short and left out: the recording ended there"
                     : "";
    }

private:
    void handle()
    {
        const BodyReader body(m_body, m_swapped);
        if (m_type == kSectionHeader)
            m_interfaces.clear();
        else if (m_type == kInterfaceDescription)
            m_interfaces.push_back(interfaceOf(body));
        else if (m_type == kEnhancedPacket)
            m_handle(recordOf(body, m_interfaces));
    }

    // Reads the next block. False at the end of the file, and where the file ends within a block.
    bool next()
    {
        m_start += m_size;
        std::string begin;
        if (!append(begin, 8))
            return false;
        m_type = static_cast<std::uint32_t>(BodyReader(begin, m_swapped).number(4));
        if (m_type == kSectionHeader) {
            if (!append(begin, 4))
                return false;
            findByteOrder(begin.substr(8));
        }
        BodyReader reader(begin, m_swapped);
        reader.number(4);
        m_size = static_cast<std::uint32_t>(reader.number(4));
        if (m_size < begin.size() + 4 || m_size % 4 != 0 || m_size > kLargestBlock)
            throw std::runtime_error("a block of " + std::to_string(m_size) +
                                     " bytes is not possible");
        m_body.clear();
        if (!append(m_body, m_size - begin.size()))
            return false;
        m_body.resize(m_body.size() - 4); // the size is repeated at the end
        return true;
    }

    // False when the file has no more bytes. A file of which not even the first block is whole is
    // refused.
    bool append(std::string& bytes, std::size_t count)
    {
        const std::size_t before = bytes.size();
        bytes.resize(before + count);
        m_in.read(&bytes[before], static_cast<std::streamsize>(count));
        const auto got = static_cast<std::size_t>(m_in.gcount());
        if (got == count)
            return true;
        m_cut = before + got > 0 || &bytes == &m_body;
        if (m_cut && m_start == 0)
            throw std::runtime_error("the file ends within its heading");
        return false;
    }

    // The section header's mark of the byte order. The header's type reads the same in both orders.
    void findByteOrder(const std::string& magic)
    {
        const std::uint64_t value = BodyReader(magic, false).number(4);
        if (value != kByteOrderMagic && value != kSwappedMagic)
            throw std::runtime_error("the byte order mark is wrong");
        m_swapped = value == kSwappedMagic;
    }

    std::istream& m_in;
    const std::string& m_name;
    const TraceHandler& m_handle;
    std::vector<Interface> m_interfaces;
    std::uint64_t m_start = 0;
    std::uint32_t m_type = 0;
    std::uint32_t m_size = 0;
    std::string m_body;
    bool m_swapped = false;
    bool m_cut = false;
};

// ---- Files --------------------------------------------------------------------------------------

bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Whether the file begins as a trace of this program does.
bool isOwnTrace(int descriptor)
{
    for (const std::string& heading : {std::string(kTextHeading) + '\n', pcapngHeading()}) {
        std::string begin(heading.size(), '\0');
        const ssize_t count = ::pread(descriptor, &begin[0], begin.size(), 0);
        if (count == static_cast<ssize_t>(begin.size()) && begin == heading)
            return true;
    }
    return false;
}

void emptyForTrace(OutputFile& file, bool replaces)
{
    if (!file.isRegular())
        return;
    file.lock();
    struct stat status = {};
    if (::fstat(file.descriptor(), &status) != 0)
        failToWrite(file.name(), errno);
    if (status.st_size > 0 && !replaces && !isOwnTrace(file.descriptor()))
        fail(file.name(), "is there and is not a trace (name another file, or replace it with "
                          "--force)");
    if (::ftruncate(file.descriptor(), 0) != 0)
        failToWrite(file.name(), errno);
}

// The size of the file; only a regular file with content can be a trace.
off_t sizeToRead(const std::string& path)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0)
        fail(path, std::string("cannot be read: ") + std::strerror(errno) + " (check the path)");
    if (S_ISDIR(status.st_mode))
        fail(path, "is a directory (name a trace file)");
    if (!S_ISREG(status.st_mode))
        fail(path, "is a pipe or a device (save the trace to a file first)");
    return status.st_size;
}

} // namespace

void requireTraceFile(const std::string& path)
{
    sizeToRead(path);
}

TraceWriter::TraceWriter(OutputFile file, bool pcapng) : m_file(std::move(file)), m_pcapng(pcapng)
{
    m_file.write(m_pcapng ? pcapngHeading() : std::string(kTextHeading) + '\n');
}

std::unique_ptr<TraceWriter> TraceWriter::open(const std::string& path, bool replaces)
{
    const bool pcapng = endsWith(path, ".pcapng");
    if (!pcapng && !endsWith(path, ".txt"))
        fail(path, "a trace file ends in .pcapng or .txt");
    OutputFile file = OutputFile::open(path);
    emptyForTrace(file, replaces);
    return std::unique_ptr<TraceWriter>(new TraceWriter(std::move(file), pcapng));
}

void TraceWriter::write(const TraceRecord& record)
{
    m_file.write(m_pcapng ? packetOf(record) : textOf(record));
}

void TraceWriter::close()
{
    m_file.close();
}

std::string readTrace(std::istream& in, const std::string& name, const TraceHandler& handle)
{
    std::string begin(4, '\0');
    in.read(&begin[0], 4);
    if (in.gcount() == 0 && !in.bad())
        fail(name, "is empty: not a trace");
    in.clear();
    in.seekg(0);
    const bool pcapng = BodyReader(begin, false).number(4) == kSectionHeader;
    const std::string remark =
        pcapng ? PcapngReader(in, name, handle).run() : TextReader(in, name, handle).run();
    if (in.bad())
        throw UserError(name + ": cannot be read: " + std::strerror(EIO), kExitRefused);
    return remark;
}

std::string readTrace(const std::string& path, const TraceHandler& handle)
{
    sizeToRead(path);
    std::ifstream file(path, std::ios::binary);
    if (!file)
        fail(path, std::string("cannot be read: ") + std::strerror(errno) + " (check the path)");
    return readTrace(file, path, handle);
}

Trace readTrace(std::istream& in, const std::string& name)
{
    Trace trace;
    trace.remark = readTrace(
        in, name, [&trace](const TraceRecord& record) { trace.records.push_back(record); });
    return trace;
}

Trace readTrace(const std::string& path)
{
    if (sizeToRead(path) > kLargestWhole)
        fail(path, "is larger than " + std::to_string(kLargestWhole >> 20) +
                       " MiB (record a shorter session)");
    Trace trace;
    trace.remark =
        readTrace(path, [&trace](const TraceRecord& record) { trace.records.push_back(record); });
    return trace;
}

} // namespace micro850
