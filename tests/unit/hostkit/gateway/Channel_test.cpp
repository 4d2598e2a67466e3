#include "Channel.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <array>

using namespace micro850::host;

namespace {

struct Pair
{
    Pair()
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        channel = std::make_unique<Channel>(ends[0], 100, 1000 * 1000);
        peer = ends[1];
    }
    ~Pair() { closePeer(); }

    void closePeer()
    {
        if (peer >= 0)
            ::close(peer);
        peer = -1;
    }
    QByteArray readPeer() const
    {
        QByteArray bytes(1 << 20, 0);
        const auto got =
            ::recv(peer, bytes.data(), static_cast<std::size_t>(bytes.size()), MSG_DONTWAIT);
        return bytes.left(static_cast<int>(got));
    }

    std::unique_ptr<Channel> channel;
    int peer = -1;
};

} // namespace

TEST(Channel, CarriesLinesBothWays)
{
    const Pair pair;
    EXPECT_TRUE(pair.channel->send("hello\n"));
    EXPECT_EQ(pair.readPeer(), "hello\n");
    ASSERT_EQ(::send(pair.peer, "one\ntwo\n", 8, 0), 8);
    EXPECT_TRUE(pair.channel->receive());
    EXPECT_EQ(pair.channel->next()->text, "one");
    EXPECT_EQ(pair.channel->next()->text, "two");
    EXPECT_FALSE(pair.channel->next());
    EXPECT_TRUE(pair.channel->receive()) << "nothing has come, but the peer is there";
}

TEST(Channel, GivesTheLastLinesOfAPeerThatIsGone)
{
    Pair pair;
    ASSERT_EQ(::send(pair.peer, "last\n", 5, 0), 5);
    pair.closePeer();
    EXPECT_TRUE(pair.channel->receive());
    EXPECT_EQ(pair.channel->next()->text, "last");
    EXPECT_FALSE(pair.channel->receive());
    EXPECT_FALSE(pair.channel->send("x\n"));
}

TEST(Channel, KeepsWhatThePeerDoesNotTakeUpToItsLimitAndLosesNothingOfIt)
{
    const Pair pair;
    const QByteArray line = QByteArray(9999, 'x') + '\n';
    int sent = 0;
    while (pair.channel->send(line))
        ++sent;
    EXPECT_TRUE(pair.channel->hasOutput());
    EXPECT_LE(pair.channel->output().size(), 1000 * 1000);
    QByteArray received;
    while (pair.channel->hasOutput()) {
        received += pair.readPeer();
        ASSERT_TRUE(pair.channel->flush());
    }
    received += pair.readPeer();
    EXPECT_EQ(received.size(), sent * line.size());
    EXPECT_EQ(received.count('\n'), sent);
    EXPECT_TRUE(pair.channel->send(line));
}
