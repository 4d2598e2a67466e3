// Stations on pseudo-terminals, run step by step on one thread.

#include "Station.h"

#include "NetworkPort.h"
#include "UserError.h"
#include "bytes.h"
#include "client.h"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

namespace micro850::sim {
namespace {

constexpr int kAttempts = 5000; // a millisecond apart
const Bytes kIdentity = hex("10 06 10 02 00 01 0B 00 01 00 00 00 01 02 20 01 24 01 10 03 8E 35");

/// The host's end of a station's line.
class HostEnd
{
public:
    explicit HostEnd(const std::string& path)
        : m_descriptor(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK))
    {
        EXPECT_GE(m_descriptor, 0) << path;
    }
    ~HostEnd() { ::close(m_descriptor); }
    HostEnd(const HostEnd&) = delete;
    HostEnd& operator=(const HostEnd&) = delete;

    void send(const Bytes& bytes)
    {
        EXPECT_EQ(::write(m_descriptor, bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }
    Bytes read()
    {
        std::array<std::uint8_t, 1024> buffer;
        const ssize_t count = ::read(m_descriptor, buffer.data(), buffer.size());
        return {buffer.begin(), buffer.begin() + std::max<ssize_t>(count, 0)};
    }

private:
    int m_descriptor;
};

class StationTest : public ::testing::Test
{
protected:
    StationTest()
    {
        std::string name = (std::filesystem::temp_directory_path() / "stationXXXXXX").string();
        m_folder = ::mkdtemp(name.data());
        write("a.json", R"({"tags": [{"name": "A", "type": "INT"}]})");
    }
    ~StationTest() override { std::filesystem::remove_all(m_folder); }

    std::string path(const std::string& name) const { return m_folder + "/" + name; }
    void write(const std::string& name, const std::string& text)
    {
        std::ofstream(path(name)) << text;
    }
    StationSetup setup()
    {
        StationSetup made;
        made.tags = path("a.json");
        made.link = path("plc");
        return made;
    }
    /// Serves until `count` bytes have arrived at the host.
    template<typename Host> Bytes served(Station& station, Host& host, std::size_t count)
    {
        Bytes got;
        for (int i = 0; i < kAttempts && got.size() < count; ++i) {
            station.serve();
            got = got + host.read();
            ::usleep(1000);
        }
        return got;
    }

    /// A station at a free port that hangs up for a moment with the first message. Its address is
    /// what it prints.
    StationSetup networkSetup()
    {
        StationSetup made = setup();
        made.link.clear();
        made.quiet = true;
        made.listen = parseListenAddress("tcp://127.0.0.1:0");
        made.faults = faultsFromText(
            R"({"faults": [{"fault": "hang-up", "message": 1, "seconds": 0.05}]})", "f");
        return made;
    }
    static ListenAddress openedAddress(const StationSetup& made, std::unique_ptr<Station>& station)
    {
        ::testing::internal::CaptureStdout();
        station = std::make_unique<Station>(made);
        std::string printed = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(printed.back(), '\n');
        printed.pop_back();
        return parseListenAddress(printed);
    }
    template<typename Condition> static bool serveUntil(Station& station, Condition condition)
    {
        for (int i = 0; i < kAttempts && !condition(); ++i) {
            station.serve();
            ::usleep(1000);
        }
        return condition();
    }

private:
    std::string m_folder;
};

TEST_F(StationTest, AnswersOnItsPseudoTerminal)
{
    Station station(setup());
    HostEnd host(path("plc"));
    host.send(kIdentity);
    EXPECT_EQ(served(station, host, 61).size(), 61u);
}

TEST_F(StationTest, ClosesItsEndWhileHungUpAndOpensItAgain)
{
    StationSetup made = setup();
    made.quiet = true;
    made.faults =
        faultsFromText(R"({"faults": [{"fault": "hang-up", "message": 1, "seconds": 0.05}]})", "f");
    Station station(made);
    HostEnd host(path("plc"));
    host.send(kIdentity);
    for (int i = 0; i < kAttempts && station.isOpen(); ++i) {
        station.serve();
        ::usleep(1000);
    }
    EXPECT_FALSE(std::filesystem::exists(path("plc")));
    for (int i = 0; i < kAttempts && !station.isOpen(); ++i) {
        station.serve();
        ::usleep(1000);
    }
    HostEnd again(path("plc"));
    again.send(kIdentity);
    // The controller acknowledges the same message and recognises it as a repeat.
    EXPECT_EQ(text(served(station, again, 2)), "10 06");
}

TEST_F(StationTest, ClosesItsConnectionWhileHungUpAndListensAtTheSamePortAgain)
{
    std::unique_ptr<Station> station;
    const ListenAddress address = openedAddress(networkSetup(), station);
    Client client(address);
    EXPECT_EQ(client.send(kIdentity), kIdentity.size());
    ASSERT_TRUE(serveUntil(*station, [&] { return !station->isOpen(); }));
    EXPECT_TRUE(serveUntil(*station, [&] { return client.read(), client.wasSentAway(); }));
    ASSERT_TRUE(serveUntil(*station, [&] { return station->isOpen(); }));
    Client again(address);
    ASSERT_TRUE(again.isConnected());
    EXPECT_EQ(again.send(kIdentity), kIdentity.size());
    EXPECT_EQ(text(served(*station, again, 2)), "10 06");
}

TEST_F(StationTest, WaitsForItsPortWhenAnotherProgramHasItAfterAHangUp)
{
    std::unique_ptr<Station> station;
    const ListenAddress address = openedAddress(networkSetup(), station);
    {
        Client client(address);
        EXPECT_EQ(client.send(kIdentity), kIdentity.size());
        ASSERT_TRUE(serveUntil(*station, [&] { return !station->isOpen(); }));
    }
    SystemClock clock;
    auto other = std::make_unique<NetworkPort>(address, clock, [](const std::string&) {});
    for (int i = 0; i < 200; ++i) { // four times the hang-up
        station->serve();
        EXPECT_FALSE(station->isOpen());
        ::usleep(1000);
    }
    other.reset();
    EXPECT_TRUE(serveUntil(*station, [&] { return station->isOpen(); }));
    EXPECT_TRUE(Client(address).isConnected());
}

// As after a cable was pulled: the next message is received whole, and the controller still knows
// the connection and the message before.
TEST_F(StationTest, ReceivesTheNextClientsMessageAfterOneThatStoppedInTheMiddle)
{
    StationSetup made = networkSetup();
    made.faults = FaultScript();
    std::unique_ptr<Station> station;
    const ListenAddress address = openedAddress(made, station);
    {
        Client client(address);
        EXPECT_EQ(client.send(Bytes(kIdentity.begin() + 2, kIdentity.begin() + 11)), 9u);
        ASSERT_TRUE(serveUntil(*station, [&] { return station->waits().size() == 2; }));
    }
    Client next(address);
    ASSERT_TRUE(next.isConnected());
    EXPECT_EQ(next.send(kIdentity), kIdentity.size());
    EXPECT_EQ(served(*station, next, 61).size(), 61u);
}

TEST_F(StationTest, DownloadsATagFileAndKeepsItsTagsWhenTheFileIsWrong)
{
    StationSetup made = setup();
    made.quiet = true;
    Station station(made);
    write("b.json", R"({"tags": [{"name": "B", "type": "INT"}]})");
    station.execute(*parseCommand("download " + path("b.json")));
    write("b.json", "{");
    EXPECT_THROW(station.execute(*parseCommand("download")), UserError);
    EXPECT_THROW(station.execute(*parseCommand("download missing.json")), UserError);
    station.execute(*parseCommand("power-cycle retain"));
}

TEST_F(StationTest, AnswersFromARecordedTrace)
{
    {
        const auto trace = TraceWriter::open(path("t.txt"));
        trace->write({std::chrono::microseconds(1), Direction::Sent, kIdentity, ""});
        const Bytes reply = hex("01 00 4B 00 01 00 00 00 81 00 00 00 41");
        trace->write({std::chrono::microseconds(2), Direction::Received, framed(reply), ""});
    }
    StationSetup made = setup();
    made.tags.clear();
    made.replay = path("t.txt");
    Station station(made);
    HostEnd host(path("plc"));
    host.send(kIdentity);
    EXPECT_EQ(text(served(station, host, 21)).substr(0, 51),
              "10 06 10 02 01 00 4B 00 01 00 00 00 81 00 00 00 41 ");
    EXPECT_THROW(station.execute(*parseCommand("download")), UserError);
}

} // namespace
} // namespace micro850::sim
