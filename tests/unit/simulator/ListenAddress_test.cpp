#include "ListenAddress.h"

#include "UserError.h"

#include <gtest/gtest.h>

namespace micro850::sim {
namespace {

std::string normalised(const std::string& text)
{
    return parseListenAddress(text).text();
}

/// What is wrong with the address, without the address and the remedy.
std::string complaint(const std::string& text)
{
    try {
        parseListenAddress(text);
    } catch (const UserError& error) {
        EXPECT_EQ(error.status(), kExitUsage);
        const std::string whole = error.what();
        const std::string begin = "--listen " + text + ": ";
        const std::string end =
            " (like tcp://127.0.0.1:2000 or tcp://[::1]:2000; port 0 is any free one)";
        EXPECT_EQ(whole.substr(0, begin.size()), begin);
        EXPECT_EQ(whole.substr(whole.size() - end.size()), end);
        return whole.substr(begin.size(), whole.size() - begin.size() - end.size());
    }
    return "";
}

TEST(ListenAddress, IsParsedAndWrittenAsTheSystemWritesIt)
{
    EXPECT_EQ(normalised("tcp://127.0.0.1:2000"), "tcp://127.0.0.1:2000");
    EXPECT_EQ(normalised("tcp://0.0.0.0:0"), "tcp://0.0.0.0:0");
    EXPECT_EQ(normalised("tcp://[::1]:65535"), "tcp://[::1]:65535");
    EXPECT_EQ(normalised("tcp://[0:0:0:0:0:0:0:1]:007"), "tcp://[::1]:7");
    EXPECT_EQ(normalised("tcp://[FD00::0A]:2000"), "tcp://[fd00::a]:2000");
}

TEST(ListenAddress, IsRefusedWithTheReason)
{
    EXPECT_EQ(complaint(""), "it does not begin with tcp://");
    EXPECT_EQ(complaint("127.0.0.1:2000"), "it does not begin with tcp://");
    EXPECT_EQ(complaint("rfc2217://127.0.0.1:2000"), "it does not begin with tcp://");
    EXPECT_EQ(complaint("tcp://"), "the port is missing");
    EXPECT_EQ(complaint("tcp://127.0.0.1"), "the port is missing");
    EXPECT_EQ(complaint("tcp://[::1]"), "the port is missing");
    EXPECT_EQ(complaint("tcp://127.0.0.1:"), "\"\" is not the number of a port");
    EXPECT_EQ(complaint("tcp://127.0.0.1:-1"), "\"-1\" is not the number of a port");
    EXPECT_EQ(complaint("tcp://127.0.0.1:20 00"), "\"20 00\" is not the number of a port");
    EXPECT_EQ(complaint("tcp://127.0.0.1:65536"), "port 65536 is beyond the last one, 65535");
    EXPECT_EQ(complaint("tcp://127.0.0.1:99999999999999999999"),
              "port 99999999999999999999 is beyond the last one, 65535");
    EXPECT_EQ(complaint("tcp://:2000"), "\"\" is not a numeric address");
    EXPECT_EQ(complaint("tcp://[]:2000"), "\"[]\" is not a numeric address");
    EXPECT_EQ(complaint("tcp://localhost:2000"), "\"localhost\" is not a numeric address");
    EXPECT_EQ(complaint("tcp://127.1:2000"), "\"127.1\" is not a numeric address");
    EXPECT_EQ(complaint("tcp://[127.0.0.1]:2000"), "\"127.0.0.1\" is not a numeric address");
    EXPECT_EQ(complaint("tcp://::1:2000"), "the address needs brackets");
}

TEST(ListenAddress, KnowsWhetherOtherMachinesReachIt)
{
    EXPECT_TRUE(parseListenAddress("tcp://127.0.0.1:1").isLoopback());
    EXPECT_TRUE(parseListenAddress("tcp://127.9.9.9:1").isLoopback());
    EXPECT_TRUE(parseListenAddress("tcp://[::1]:1").isLoopback());
    EXPECT_FALSE(parseListenAddress("tcp://0.0.0.0:1").isLoopback());
    EXPECT_FALSE(parseListenAddress("tcp://12.7.0.1:1").isLoopback());
    EXPECT_FALSE(parseListenAddress("tcp://[::]:1").isLoopback());
    EXPECT_FALSE(parseListenAddress("tcp://[::11]:1").isLoopback());
}

TEST(ListenAddress, IsFollowedByTheNextPortsUpToTheLast)
{
    const ListenAddress address = parseListenAddress("tcp://[::1]:65534");
    EXPECT_EQ(address.following(0).text(), "tcp://[::1]:65534");
    EXPECT_EQ(address.following(1).text(), "tcp://[::1]:65535");
    EXPECT_THROW(address.following(2), UserError);
    EXPECT_EQ(parseListenAddress("tcp://[::1]:0").following(3).port, 0) << "any free one again";
}

} // namespace
} // namespace micro850::sim
