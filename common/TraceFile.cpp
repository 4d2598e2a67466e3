#include "TraceFile.h"

#include "UserError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <istream>
#include <stdexcept>

namespace micro850 {

namespace {

using std::chrono::microseconds;

constexpr std::uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr std::uint32_t kInterfaceDescription = 1;
constexpr std::uint32_t kEnhancedPacket = 6;
constexpr std::uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr std::uint32_t kSwappedMagic = 0x4D3C2B1A;
constexpr std::uint16_t kLinkTypeUser0 = 147;
constexpr std::uint16_t kFlagsOption = 2;
constexpr std::uint32_t kInbound = 1;
constexpr std::uint32_t kOutbound = 2;
// Frames are shorter than a kilobyte; a larger block means that the file is damaged.
constexpr std::uint32_t kLargestBlock = 1u << 20;

[[noreturn]] void fail(const std::string& name, const std::string& what)
{
    throw UserError(name + ": " + what);
}

// ---- Text ---------------------------------------------------------------------------------------

const char kTextHeader[] = "# time in seconds since 1970, > sent or < received, bytes, decode";

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

std::string oneLine(std::string text)
{
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < ' ')
            c = ' ';
    }
    return text;
}

class TextWriter : public TraceWriter
{
public:
    explicit TextWriter(std::ofstream file) : m_file(std::move(file))
    {
        m_file << kTextHeader << std::endl;
    }

    void write(const TraceRecord& record) override
    {
        const auto count = record.time.count();
        std::string micros = std::to_string(count % 1000000);
        micros.insert(0, 6 - micros.size(), '0');
        m_file << count / 1000000 << '.' << micros
               << (record.direction == Direction::Sent ? " > " : " < ") << hexOf(record.bytes);
        if (!record.note.empty())
            m_file << "  # " << oneLine(record.note);
        m_file << std::endl;
    }

private:
    std::ofstream m_file;
};

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
            const std::size_t text = m_line.find_first_not_of(' ', note + 1);
            record.note = text == std::string::npos ? "" : m_line.substr(text);
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
        const auto seconds = number<std::uint32_t>(dot, 10);
        ++m_at;
        const auto micros = number<std::uint32_t>(blank, 10);
        return microseconds(std::int64_t{seconds} * 1000000 + micros);
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

std::vector<TraceRecord> readText(std::istream& in, const std::string& name)
{
    std::vector<TraceRecord> records;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (line.empty() || line[0] == '#' || line == "\r")
            continue;
        try {
            records.push_back(TextLine(line).record());
        } catch (const std::runtime_error& error) {
            fail(name + ':' + std::to_string(number), error.what());
        }
    }
    return records;
}

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

class PcapngWriter : public TraceWriter
{
public:
    explicit PcapngWriter(std::ofstream file) : m_file(std::move(file))
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
        m_file << block(kSectionHeader, section) << block(kInterfaceDescription, interface)
               << std::flush;
    }

    void write(const TraceRecord& record) override
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
        put<std::uint32_t>(body, 0); // end of options
        m_file << block(kEnhancedPacket, body) << std::flush;
    }

private:
    std::ofstream m_file;
};

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

TraceRecord packetOf(BodyReader body)
{
    TraceRecord record;
    body.number(4); // interface
    const std::uint64_t high = body.number(4);
    const std::uint64_t time = high << 32 | body.number(4);
    if (time > static_cast<std::uint64_t>(INT64_MAX))
        throw std::runtime_error("a time stamp is beyond what a clock shows");
    record.time = microseconds(static_cast<std::int64_t>(time));
    const std::uint64_t size = body.number(4);
    body.number(4); // original length
    record.bytes = body.bytes(size);
    while (!body.atEnd()) {
        const std::uint64_t option = body.number(2);
        const std::uint64_t length = body.number(2);
        if (option == kFlagsOption && length == 4)
            record.direction =
                (body.number(4) & 3) == kInbound ? Direction::Received : Direction::Sent;
        else
            body.bytes(length);
    }
    return record;
}

class PcapngReader
{
public:
    PcapngReader(std::istream& in, const std::string& name) : m_in(in), m_name(name) {}

    std::vector<TraceRecord> records()
    {
        std::vector<TraceRecord> records;
        try {
            while (next()) {
                if (m_type == kEnhancedPacket)
                    records.push_back(packetOf(BodyReader(m_body, m_swapped)));
            }
        } catch (const std::runtime_error& error) {
            fail(m_name, "byte " + std::to_string(m_start) + ": " + error.what());
        }
        return records;
    }

private:
    bool next()
    {
        m_start += m_size;
        std::array<char, 12> head{};
        m_in.read(head.data(), 8);
        if (m_in.gcount() == 0)
            return false;
        if (m_in.gcount() < 8)
            throw std::runtime_error("the file ends within a block");
        std::string begin(head.data(), 8);
        m_type = static_cast<std::uint32_t>(BodyReader(begin, m_swapped).number(4));
        if (m_type == kSectionHeader)
            begin += byteOrder();
        BodyReader reader(begin, m_swapped);
        reader.number(4);
        m_size = static_cast<std::uint32_t>(reader.number(4));
        if (m_size < begin.size() + 4 || m_size % 4 != 0 || m_size > kLargestBlock)
            throw std::runtime_error("a block of " + std::to_string(m_size) +
                                     " bytes is not possible");
        m_body.resize(m_size - begin.size());
        m_in.read(m_body.data(), static_cast<std::streamsize>(m_body.size()));
        if (static_cast<std::size_t>(m_in.gcount()) != m_body.size())
            throw std::runtime_error("the file ends within a block");
        m_body.resize(m_body.size() - 4); // the size is repeated at the end
        return true;
    }

    // The section header's mark of the byte order. The header's type reads the same in both orders.
    std::string byteOrder()
    {
        std::string magic(4, '\0');
        m_in.read(magic.data(), 4);
        const std::uint64_t value = BodyReader(magic, false).number(4);
        if (value != kByteOrderMagic && value != kSwappedMagic)
            throw std::runtime_error("the byte order mark is wrong");
        m_swapped = value == kSwappedMagic;
        return magic;
    }

    std::istream& m_in;
    const std::string& m_name;
    std::uint64_t m_start = 0;
    std::uint32_t m_type = 0;
    std::uint32_t m_size = 0;
    std::string m_body;
    bool m_swapped = false;
};

bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

} // namespace

std::unique_ptr<TraceWriter> TraceWriter::open(const std::string& path)
{
    const bool pcapng = endsWith(path, ".pcapng");
    if (!pcapng && !endsWith(path, ".txt"))
        fail(path, "a trace file ends in .pcapng or .txt");
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file)
        fail(path, std::string("cannot be written: ") + std::strerror(errno));
    if (pcapng)
        return std::make_unique<PcapngWriter>(std::move(file));
    return std::make_unique<TextWriter>(std::move(file));
}

std::vector<TraceRecord> readTrace(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        fail(path, std::string("cannot be read: ") + std::strerror(errno) + " (check the path)");
    return readTrace(file, path);
}

std::vector<TraceRecord> readTrace(std::istream& in, const std::string& name)
{
    std::string begin(4, '\0');
    in.read(begin.data(), 4);
    in.clear();
    in.seekg(0);
    const bool pcapng = BodyReader(begin, false).number(4) == kSectionHeader;
    return pcapng ? PcapngReader(in, name).records() : readText(in, name);
}

} // namespace micro850
