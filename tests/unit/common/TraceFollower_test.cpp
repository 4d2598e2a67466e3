#include "TraceFollower.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>
#include <vector>

using namespace micro850;

namespace {

TraceRecord record(int number)
{
    TraceRecord made;
    made.time = std::chrono::microseconds(1234567890000000 + number);
    made.bytes = {0x10, static_cast<std::uint8_t>(number)};
    return made;
}

class TraceFollowerTest : public ::testing::Test
{
protected:
    TraceFollowerTest()
        : m_folder(std::filesystem::temp_directory_path() /
                   ("micro850-follow-" + std::to_string(::getpid())))
    {
        std::filesystem::create_directories(m_folder);
    }
    ~TraceFollowerTest() override { std::filesystem::remove_all(m_folder); }
    std::string file(const char* name) const { return (m_folder / name).string(); }

    /// Follows until this many records came; each time nothing more is there, `then` may add some.
    FollowEnd follow(const std::string& path, std::size_t count,
                     const std::function<void()>& then = nullptr)
    {
        return followTrace(
            path, [this](const TraceRecord& read) { numbers.push_back(read.bytes.at(1)); },
            [this, count, then] {
                if (numbers.size() >= count)
                    return true;
                if (then)
                    then();
                return false;
            });
    }

    std::vector<int> numbers;

private:
    std::filesystem::path m_folder;
};

using Numbers = std::vector<int>;

} // namespace

TEST_F(TraceFollowerTest, ReadsRecordsAsTheyAreWritten)
{
    for (const char* name : {"a.txt", "a.pcapng"}) {
        numbers.clear();
        const auto writer = TraceWriter::open(file(name));
        writer->write(record(1));
        int next = 2;
        EXPECT_EQ(follow(file(name), 4, [&] { writer->write(record(next++)); }), FollowEnd::Asked);
        EXPECT_EQ(numbers, (Numbers{1, 2, 3, 4})) << name;
    }
}

TEST_F(TraceFollowerTest, WaitsForTheRestOfARecord)
{
    const std::string line = "1234567890.000001 > 10 05\n";
    std::ofstream out(file("a.txt"));
    out << line << line.substr(0, 9) << std::flush;
    bool added = false;
    follow(file("a.txt"), 2, [&] {
        if (!added)
            out << line.substr(9) << std::flush;
        added = true;
    });
    EXPECT_EQ(numbers, (Numbers{5, 5}));
}

TEST_F(TraceFollowerTest, SaysThatTheFileWasRecordedAnew)
{
    TraceWriter::open(file("a.txt"))->write(record(1));
    EXPECT_EQ(follow(file("a.txt"), 9, [&] { TraceWriter::open(file("a.txt")); }),
              FollowEnd::Replaced);
    EXPECT_EQ(numbers, Numbers{1});
    EXPECT_EQ(follow(file("a.txt"), 9,
                     [&] {
                         TraceWriter::open(file("b.txt"))->write(record(2));
                         std::filesystem::rename(file("b.txt"), file("a.txt"));
                     }),
              FollowEnd::Replaced);
}

TEST_F(TraceFollowerTest, WaitsForTheFirstByteAndEndsWithoutOne)
{
    std::ofstream(file("a.txt")).close();
    EXPECT_EQ(follow(file("a.txt"), 0), FollowEnd::Asked);
    EXPECT_EQ(follow(file("a.txt"), 1,
                     [&] {
                         std::ofstream(file("a.txt"), std::ios::app)
                             << "1234567890.000001 > 10 05\n";
                     }),
              FollowEnd::Asked);
    EXPECT_EQ(numbers.front(), 5);
}

TEST_F(TraceFollowerTest, RefusesWhatIsNoTrace)
{
    std::ofstream(file("a.txt")) << "this is no trace\n";
    EXPECT_THROW(follow(file("a.txt"), 1), UserError);
    EXPECT_THROW(follow(file("none.txt"), 1), UserError);
    EXPECT_THROW(follow("/dev/zero", 1), UserError);
}
