#include "Replay.h"

#include "LinkLayer.h"
#include "UserError.h"

#include <algorithm>
#include <utility>

namespace micro850::sim {

namespace {

constexpr std::size_t kCommand = 2;
constexpr std::size_t kTransaction = 4;
constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kSequence = 10;
constexpr std::size_t kConnectedHeaderSize = 12;
constexpr std::uint8_t kConnectedCommand = 0x0A;
constexpr std::uint8_t kReplyFlag = 0x40;
constexpr std::uint8_t kForwardOpen = 0x54;
// A Forward_Open carries a serial number that each session draws anew.
constexpr std::size_t kForwardOpenContent = 6;

std::uint16_t transactionOf(const Bytes& message)
{
    return static_cast<std::uint16_t>(message[kTransaction] | message[kTransaction + 1] << 8);
}

// Command and CIP part: what stays the same when a request is made again.
Bytes contentOf(const Bytes& message)
{
    const bool connected = message[kCommand] == kConnectedCommand;
    const std::size_t head =
        std::min(connected ? kConnectedHeaderSize : kHeaderSize, message.size());
    Bytes content(message.begin() + static_cast<std::ptrdiff_t>(head) - 1, message.end());
    content[0] = message[kCommand];
    if (!connected && content.size() > 1 && content[1] == kForwardOpen)
        content.resize(std::min(content.size(), 1 + kForwardOpenContent));
    return content;
}

LinkOptions everyMessage()
{
    LinkOptions options;
    options.duplicateDetection = false;
    return options;
}

// The good messages among the recorded bytes of one direction.
class Messages
{
public:
    std::vector<Bytes> of(const Bytes& bytes)
    {
        m_taken.clear();
        m_link.receive(bytes);
        m_link.transmit();
        return m_taken;
    }

private:
    VirtualClock m_clock;
    std::vector<Bytes> m_taken;
    LinkLayer m_link{m_clock,
                     [this](const Bytes& message) {
                         m_taken.push_back(message);
                         return std::optional<Bytes>();
                     },
                     everyMessage()};
};

} // namespace

Replay::Replay(const std::vector<TraceRecord>& trace, const std::string& name)
{
    Messages sent;
    Messages received;
    std::optional<Bytes> open;
    for (const TraceRecord& record : trace) {
        if (record.direction == Direction::Sent) {
            for (const Bytes& request : sent.of(record.bytes))
                open = request;
            continue;
        }
        for (const Bytes& reply : received.of(record.bytes)) {
            const bool answers = open && (reply[kCommand] & kReplyFlag) != 0 &&
                                 transactionOf(reply) == transactionOf(*open);
            if (!answers)
                continue;
            m_replies[contentOf(*open)].replies.push_back(reply);
            open.reset();
        }
    }
    if (m_replies.empty())
        throw UserError(name + ": no request in it has a reply (record a session that worked)");
}

std::optional<Bytes> Replay::answer(const Bytes& message)
{
    const auto found = m_replies.find(contentOf(message));
    if (found == m_replies.end())
        return std::nullopt;
    Recorded& recorded = found->second;
    Bytes reply = recorded.replies[recorded.next];
    recorded.next = (recorded.next + 1) % recorded.replies.size();
    reply[kTransaction] = message[kTransaction];
    reply[kTransaction + 1] = message[kTransaction + 1];
    const bool connected = message[kCommand] == kConnectedCommand;
    if (connected && reply.size() > kSequence && message.size() > kSequence)
        reply[kSequence] = message[kSequence];
    return reply;
}

} // namespace micro850::sim
