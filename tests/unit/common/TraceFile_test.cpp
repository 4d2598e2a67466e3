#include "TraceFile.h"

#include "UserError.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace micro850 {
namespace {

using std::chrono::microseconds;

/// Creates a temporary folder for each test.
class TraceTest : public ::testing::Test
{
protected:
    TraceTest()
    {
        m_folder = std::filesystem::temp_directory_path() /
                   ("micro850-trace-" + std::to_string(::getpid()));
        std::filesystem::create_directories(m_folder);
    }
    ~TraceTest() override { std::filesystem::remove_all(m_folder); }

    std::string file(const char* name) const { return (m_folder / name).string(); }

    static std::string content(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    static std::string errorOf(const std::string& text)
    {
        std::istringstream in(text);
        try {
            readTrace(in, "t.txt");
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }

private:
    std::filesystem::path m_folder;
};

const TraceRecord kSent{
    microseconds(1234567890000042), Direction::Sent, {0x10, 0x06, 0xFF}, "read Speed"};
const TraceRecord kReceived{microseconds(1234567891500000), Direction::Received, {0x00}, ""};

void expectSame(const TraceRecord& actual, const TraceRecord& expected)
{
    EXPECT_EQ(actual.time, expected.time);
    EXPECT_EQ(actual.direction, expected.direction);
    EXPECT_EQ(actual.bytes, expected.bytes);
}

TEST_F(TraceTest, WritesOneTextLineForEachFrame)
{
    {
        const auto writer = TraceWriter::open(file("a.txt"));
        writer->write(kSent);
        writer->write(kReceived);
    }
    EXPECT_EQ(content(file("a.txt")),
              "# time in seconds since 1970, > sent or < received, bytes, decode\n"
              "1234567890.000042 > 10 06 FF  # read Speed\n"
              "1234567891.500000 < 00\n");
}

TEST_F(TraceTest, ReadsBackItsRecordsInBothFormats)
{
    for (const char* name : {"a.txt", "a.pcapng"}) {
        {
            const auto writer = TraceWriter::open(file(name));
            writer->write(kSent);
            writer->write(kReceived);
        }
        const auto records = readTrace(file(name)).records;
        ASSERT_EQ(records.size(), 2u) << name;
        expectSame(records[0], kSent);
        expectSame(records[1], kReceived);
    }
    EXPECT_EQ(readTrace(file("a.txt")).records[0].note, "read Speed");
}

TEST_F(TraceTest, KeepsTheStationOfAFrameInBothFormats)
{
    TraceRecord sent = kSent;
    sent.station = 65535;
    TraceRecord received = kReceived;
    received.station = 0;
    for (const char* name : {"a.txt", "a.pcapng"}) {
        {
            const auto writer = TraceWriter::open(file(name));
            writer->write(sent);
            writer->write(received);
            writer->write(kSent);
        }
        const auto records = readTrace(file(name)).records;
        ASSERT_EQ(records.size(), 3u) << name;
        EXPECT_EQ(records[0].station, 65535) << name;
        EXPECT_EQ(records[1].station, 0) << name;
        EXPECT_EQ(records[2].station, -1) << name;
        expectSame(records[0], kSent);
    }
    EXPECT_EQ(readTrace(file("a.txt")).records[0].note, "read Speed");
    EXPECT_NE(content(file("a.txt")).find("FF  # station 65535: read Speed\n"), std::string::npos);
}

TEST_F(TraceTest, TakesANoteThatOnlyBeginsLikeAStationForANote)
{
    for (const char* note : {"station", "station x: y", "station 99999999999: y",
                             "station 1 is dead", "station -1: y", "stations 1: y"})
    {
        std::istringstream in("1234567890.000042 > 10 05  # " + std::string(note) + '\n');
        const Trace trace = readTrace(in, "t.txt");
        ASSERT_EQ(trace.records.size(), 1u);
        EXPECT_EQ(trace.records[0].station, -1) << note;
        EXPECT_EQ(trace.records[0].note, note);
    }
}

// Whoever cannot go on with a record knows why, whatever the format of the file is.
TEST_F(TraceTest, PassesOnWhatTheReaderOfARecordThrows)
{
    for (const char* name : {"a.txt", "a.pcapng"}) {
        TraceWriter::open(file(name))->write(kSent);
        try {
            readTrace(file(name), [](const TraceRecord&) {
                throw micro850::UserError("the disk is full", micro850::kExitRefused);
            });
            FAIL() << "no error";
        } catch (const micro850::UserError& error) {
            EXPECT_EQ(std::string(error.what()), "the disk is full") << name;
            EXPECT_EQ(error.status(), micro850::kExitRefused);
        }
    }
}

TEST_F(TraceTest, WritesEachRecordToTheFileBeforeTheWriterCloses)
{
    const auto writer = TraceWriter::open(file("a.pcapng"));
    writer->write(kSent);
    EXPECT_EQ(readTrace(file("a.pcapng")).records.size(), 1u);
}

TEST_F(TraceTest, WritesPcapngBlocksThatStartAndEndWithTheirSize)
{
    TraceWriter::open(file("a.pcapng"))->write(kReceived);
    const std::string bytes = content(file("a.pcapng"));
    const std::string header("\x0A\x0D\x0D\x0A\x1C\0\0\0\x4D\x3C\x2B\x1A\1\0\0\0", 16);
    EXPECT_EQ(bytes.substr(0, 16), header);
    EXPECT_EQ(bytes.substr(24, 4), std::string("\x1C\0\0\0", 4));
    EXPECT_EQ(bytes.substr(28, 12), std::string("\1\0\0\0\x14\0\0\0\x93\0\0\0", 12));
    EXPECT_EQ(bytes.size(), 28u + 20u + 48u);
    EXPECT_EQ(bytes.substr(bytes.size() - 4), std::string("\x30\0\0\0", 4));
}

TEST_F(TraceTest, ReadsAPcapngFileOfTheOtherByteOrder)
{
    const std::string section("\x0A\x0D\x0D\x0A\0\0\0\x1C\x1A\x2B\x3C\x4D\0\1\0\0"
                              "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\0\0\0\x1C",
                              28);
    const std::string packet("\0\0\0\6\0\0\0\x24\0\0\0\0\0\0\0\0\0\0\0\5\0\0\0\2\0\0\0\2"
                             "\x10\6\0\0\0\0\0\x24",
                             36);
    std::istringstream in(section + packet);
    const auto records = readTrace(in, "b.pcapng").records;
    ASSERT_EQ(records.size(), 1u);
    expectSame(records[0], {microseconds(5), Direction::Sent, {0x10, 0x06}, ""});
}

TEST_F(TraceTest, ReportsTheNumberOfAWrongLine)
{
    EXPECT_EQ(errorOf("1.000000 > 10 06\n1.5 > 10\n"),
              "t.txt:2: not a trace: each line must start with a time such as 1732233600.123456");
    EXPECT_EQ(errorOf("1.000000 = 10\n"),
              "t.txt:1: the time is followed by > (sent) or < (received)");
    EXPECT_EQ(errorOf("1.000000 > 1\n"), "t.txt:1: bytes are two hexadecimal digits each");
    EXPECT_EQ(errorOf("1.000000 > 1G\n"), "t.txt:1: \"1G\" is not a number");
    EXPECT_EQ(errorOf("x.000000 > 10\n"), "t.txt:1: \"x\" is not a number");
    EXPECT_EQ(errorOf(""), "t.txt: is empty: not a trace");
}

TEST_F(TraceTest, RejectsADamagedCapture)
{
    TraceWriter::open(file("a.pcapng"))->write(kSent);
    const std::string whole = content(file("a.pcapng"));
    const auto errorWith = [this](std::string bytes) {
        std::ofstream(file("b.pcapng"), std::ios::binary) << bytes;
        try {
            readTrace(file("b.pcapng"));
        } catch (const std::runtime_error& error) {
            return std::string(error.what());
        }
        return std::string("read without an error");
    };
    EXPECT_EQ(errorWith(whole.substr(0, 20)),
              file("b.pcapng") + ": byte 0: the file ends within its heading");
    std::string longPacket = whole;
    longPacket[48 + 20] = '\x7F';
    EXPECT_EQ(errorWith(longPacket),
              file("b.pcapng") + ": byte 48: a packet is longer than its block");
    std::string tiny = whole;
    tiny[48 + 4] = 4;
    EXPECT_EQ(errorWith(tiny), file("b.pcapng") + ": byte 48: a block of 4 bytes is not possible");
}

TEST_F(TraceTest, RejectsATimeStampThatNoClockCanShow)
{
    TraceWriter::open(file("a.pcapng"))->write(kSent);
    std::string bytes = content(file("a.pcapng"));
    // The highest byte of the time stamp's high half, after two blocks, a header and the interface.
    bytes[48 + 8 + 4 + 3] = '\x80';
    std::istringstream in(bytes);
    try {
        readTrace(in, "t.pcapng");
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "t.pcapng: byte 48: a time is beyond the year 9999");
    }
}

TEST_F(TraceTest, ReportsABadNumberInOneLineWhateverItContains)
{
    EXPECT_EQ(errorOf("1\t\x1B.000000 > 10\n"), "t.txt:1: \"1\\t\\x1b\" is not a number");
}

TEST_F(TraceTest, AcceptsOnlyTheTwoFileFormats)
{
    EXPECT_THROW(TraceWriter::open(file("a.log")), std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(file("a.log")));
    EXPECT_THROW(TraceWriter::open(file("no/such/folder.txt")), std::runtime_error);
    EXPECT_THROW(readTrace(file("absent.txt")), std::runtime_error);
}

TEST_F(TraceTest, ReadsAFileWhoseLastRecordIsCutUpToThere)
{
    for (const char* name : {"a.txt", "a.pcapng"}) {
        {
            const auto writer = TraceWriter::open(file(name));
            writer->write(kReceived);
            writer->write(kReceived);
        }
        const std::string whole = content(file(name));
        const std::size_t heading = std::string(name) == "a.txt" ? 66 : 48;
        const std::size_t record = (whole.size() - heading) / 2;
        for (std::size_t size = heading + record; size < whole.size(); ++size) {
            std::ofstream(file(name), std::ios::binary) << whole.substr(0, size);
            const Trace trace = readTrace(file(name));
            ASSERT_EQ(trace.records.size(), 1u) << name << ' ' << size;
            expectSame(trace.records[0], kReceived);
            EXPECT_EQ(trace.remark.empty(), size == heading + record) << name << ' ' << size;
        }
    }
    std::istringstream text("1.000000 > 10 06\n2.000000 > 10 0");
    EXPECT_EQ(readTrace(text, "t.txt").remark,
              "line 2 is cut short and left out: the recording ended there");
}

TEST_F(TraceTest, TakesZeroBytesAtTheEndForACutRecord)
{
    std::istringstream text("1.000000 > 10 06\n" + std::string(4096, '\0'));
    const Trace trace = readTrace(text, "t.txt");
    EXPECT_EQ(trace.records.size(), 1u);
    EXPECT_NE(trace.remark, "");
}

TEST_F(TraceTest, ReadsTimesUpToTheYear9999)
{
    std::istringstream text("4294967296.000000 > 10\n253402300799.999999 < 06\n");
    const auto records = readTrace(text, "t.txt").records;
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].time.count(), 4294967296000000);
    EXPECT_EQ(records[1].time.count(), 253402300799999999);
    EXPECT_EQ(errorOf("253402300800.000000 > 10\n"), "t.txt:1: a time is beyond the year 9999");
    {
        const auto writer = TraceWriter::open(file("a.pcapng"));
        writer->write(records[1]);
    }
    expectSame(readTrace(file("a.pcapng")).records.at(0), records[1]);
}

// A section in little-endian order, and an interface with this link type and these options.
std::string captureOf(char linkType, const std::string& options)
{
    const std::string section("\x0A\x0D\x0D\x0A\x1C\0\0\0\x4D\x3C\x2B\x1A\1\0\0\0"
                              "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x1C\0\0\0",
                              28);
    const std::string size{static_cast<char>(20 + options.size()), '\0', '\0', '\0'};
    return section + std::string("\1\0\0\0", 4) + size + linkType + std::string(7, '\0') + options +
           size;
}

const std::string kPacketAtFive("\6\0\0\0\x24\0\0\0\0\0\0\0\0\0\0\0\x88\x13\0\0\2\0\0\0"
                                "\2\0\0\0\x10\6\0\0\x24\0\0\0",
                                36);

TEST_F(TraceTest, ReadsTheTimesOfACaptureInItsOwnUnits)
{
    const std::string nanoseconds("\x09\0\1\0\x09\0\0\0", 8);
    const std::string milliseconds("\x09\0\1\0\x03\0\0\0", 8);
    const auto microsecondsOf = [](const std::string& capture) {
        std::istringstream in(capture);
        return readTrace(in, "t.pcapng").records.at(0).time.count();
    };
    EXPECT_EQ(microsecondsOf(captureOf('\x93', "") + kPacketAtFive), 5000);
    EXPECT_EQ(microsecondsOf(captureOf('\x93', nanoseconds) + kPacketAtFive), 5);
    EXPECT_EQ(microsecondsOf(captureOf('\x93', milliseconds) + kPacketAtFive), 5000000);
    EXPECT_EQ(errorOf(captureOf('\x93', std::string("\x09\0\1\0\x8A\0\0\0", 8))),
              "t.txt: byte 28: times are in units that this program does not know");
}

TEST_F(TraceTest, RefusesACaptureOfAnotherKindOfLine)
{
    EXPECT_EQ(errorOf(captureOf('\1', "") + kPacketAtFive),
              "t.txt: byte 28: not a trace: packets of link type 1, not 147");
}

TEST_F(TraceTest, RefusesATextWithoutARecord)
{
    EXPECT_EQ(errorOf("\n\n"), "t.txt: not a trace: no line of it is a record");
    EXPECT_EQ(errorOf("# a remark\n"), "t.txt: not a trace: no line of it is a record");
    EXPECT_EQ(errorOf("1.000000 > 10 06"),
              "t.txt:1: the only record is cut short: its line has no end");
    TraceWriter::open(file("a.txt"))->close(); // nothing was sent
    EXPECT_TRUE(readTrace(file("a.txt")).records.empty());
}

// The message for this path; "" if it is read.
std::string complaintAbout(const std::string& path)
{
    try {
        readTrace(path);
    } catch (const UserError& error) {
        EXPECT_EQ(error.status(), kExitUsage);
        return error.what();
    }
    return "";
}

TEST_F(TraceTest, ReadsOnlyARegularFile)
{
    EXPECT_EQ(complaintAbout(file("")), file("") + ": is a directory (name a trace file)");
    EXPECT_EQ(complaintAbout("/dev/zero"),
              "/dev/zero: is a pipe or a device (save the trace to a file first)");
    ASSERT_EQ(::mkfifo(file("pipe.txt").c_str(), 0600), 0);
    EXPECT_EQ(complaintAbout(file("pipe.txt")),
              file("pipe.txt") + ": is a pipe or a device (save the trace to a file first)");
}

TEST_F(TraceTest, ReadsLinesOfAnyLengthThatAFrameNeeds)
{
    for (const std::size_t size : {1348u, 1356u, 1357u, 1358u, 1359u, 1360u, 1364u, 30000u}) {
        for (const char* note : {"", "n", "nn", "nnn"}) {
            const TraceRecord record{microseconds(1), Direction::Sent, Bytes(size, 0x41), note};
            {
                const auto writer = TraceWriter::open(file("a.txt"));
                writer->write(record);
                writer->write(kSent);
            }
            const auto records = readTrace(file("a.txt")).records;
            ASSERT_EQ(records.size(), 2u) << size;
            expectSame(records[0], record);
            EXPECT_EQ(records[0].note, note);
            expectSame(records[1], kSent);
        }
    }
}

TEST_F(TraceTest, RefusesALineWithoutAnEndInLittleMemory)
{
    {
        std::ofstream(file("zeros.txt"));
    }
    std::filesystem::resize_file(file("zeros.txt"), std::uintmax_t{200} << 20);
    EXPECT_EQ(complaintAbout(file("zeros.txt")),
              file("zeros.txt") + ":1: not a trace: the line is longer than 4194304 bytes");
    std::filesystem::resize_file(file("zeros.txt"), (std::uintmax_t{256} << 20) + 1);
    EXPECT_EQ(complaintAbout(file("zeros.txt")),
              file("zeros.txt") + ": is larger than 256 MiB (record a shorter session)");
}

std::string openingComplaint(const std::string& path)
{
    try {
        TraceWriter::open(path);
    } catch (const UserError& error) {
        return error.what();
    }
    return "";
}

TEST_F(TraceTest, ReplacesOnlyAnEmptyFileOrATraceUnlessItIsTold)
{
    const std::string refusal =
        ": is there and is not a trace (name another file, or replace it with --force)";
    {
        std::ofstream(file("notes.txt")) << "precious\n";
    }
    EXPECT_EQ(openingComplaint(file("notes.txt")), file("notes.txt") + refusal);
    std::filesystem::create_symlink(file("notes.txt"), file("link.pcapng"));
    EXPECT_EQ(openingComplaint(file("link.pcapng")), file("link.pcapng") + refusal);
    EXPECT_EQ(content(file("notes.txt")), "precious\n");

    {
        std::ofstream(file("empty.txt"));
    }
    TraceWriter::open(file("empty.txt"))->write(kSent);
    EXPECT_EQ(openingComplaint(file("empty.txt")), "");
    EXPECT_TRUE(readTrace(file("empty.txt")).records.empty());
    std::filesystem::copy_file(file("empty.txt"), file("was-text.pcapng"));
    EXPECT_EQ(openingComplaint(file("was-text.pcapng")), "");

    TraceWriter::open(file("notes.txt"), true)->write(kSent);
    EXPECT_EQ(readTrace(file("notes.txt")).records.size(), 1u);
}

TEST_F(TraceTest, RefusesAFileThatAnotherProgramIsRecording)
{
    const auto first = TraceWriter::open(file("a.txt"));
    first->write(kSent);
    EXPECT_EQ(openingComplaint(file("a.txt")),
              file("a.txt") + ": another program is writing to it (name another file, or end that "
                              "program)");
    EXPECT_EQ(readTrace(file("a.txt")).records.size(), 1u);
}

TEST_F(TraceTest, RefusesATerminal)
{
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(terminal, 0);
    ASSERT_EQ(::grantpt(terminal) + ::unlockpt(terminal), 0);
    std::filesystem::create_symlink(::ptsname(terminal), file("line.txt"));
    EXPECT_EQ(openingComplaint(file("line.txt")),
              file("line.txt") + ": is a terminal or a serial line (name a file)");
    ::close(terminal);
}

TEST_F(TraceTest, KeepsWholeRecordsWhenTheNextOneDoesNotFit)
{
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before = {};
    ::getrlimit(RLIMIT_FSIZE, &before);
    for (const char* name : {"a.txt", "a.pcapng"}) {
        const auto writer = TraceWriter::open(file(name));
        writer->write(kSent);
        const rlim_t size = content(file(name)).size();
        const rlimit limit = {size + 9, before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        std::string complaint;
        try {
            writer->write(kSent);
        } catch (const UserError& error) {
            complaint = error.what();
            EXPECT_EQ(error.status(), kExitRefused);
        }
        ::setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_EQ(complaint, file(name) + ": cannot be written: File too large");
        EXPECT_EQ(content(file(name)).size(), size);
    }
}

TEST_F(TraceTest, ReportsAFullDisk)
{
    std::filesystem::create_symlink("/dev/full", file("full.txt"));
    EXPECT_EQ(openingComplaint(file("full.txt")),
              file("full.txt") + ": cannot be written: No space left on device");
}

} // namespace
} // namespace micro850
