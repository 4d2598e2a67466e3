#include "TraceFile.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
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
        const auto records = readTrace(file(name));
        ASSERT_EQ(records.size(), 2u) << name;
        expectSame(records[0], kSent);
        expectSame(records[1], kReceived);
    }
    EXPECT_EQ(readTrace(file("a.txt"))[0].note, "read Speed");
}

TEST_F(TraceTest, WritesEachRecordToTheFileBeforeTheWriterCloses)
{
    const auto writer = TraceWriter::open(file("a.pcapng"));
    writer->write(kSent);
    EXPECT_EQ(readTrace(file("a.pcapng")).size(), 1u);
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
    const auto records = readTrace(in, "b.pcapng");
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
    EXPECT_EQ(errorOf(""), "");
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
    EXPECT_EQ(errorWith(whole.substr(0, whole.size() - 1)),
              file("b.pcapng") + ": byte 48: the file ends within a block");
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
        EXPECT_STREQ(error.what(), "t.pcapng: byte 48: a time stamp is beyond what a clock shows");
    }
}

TEST_F(TraceTest, ReportsABadNumberInOneLineWhateverItContains)
{
    EXPECT_EQ(errorOf("1\t\x1B.000000 > 10\n"), "t.txt:1: \"1  \" is not a number");
}

TEST_F(TraceTest, AcceptsOnlyTheTwoFileFormats)
{
    EXPECT_THROW(TraceWriter::open(file("a.log")), std::runtime_error);
    EXPECT_THROW(TraceWriter::open(file("no/such/folder.txt")), std::runtime_error);
    EXPECT_THROW(readTrace(file("absent.txt")), std::runtime_error);
}

} // namespace
} // namespace micro850
