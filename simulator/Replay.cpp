#include "Replay.h"

#include "CipMessage.h"
#include "Df1.h"
#include "LinkLayer.h"
#include "UserError.h"

#include <algorithm>
#include <utility>

namespace micro850::sim {

namespace {

// The part of a Forward_Open or Forward_Close before its times and serial number, which differ from
// session to session.
constexpr std::size_t kForwardContent = 6;

std::uint16_t transactionOf(const Bytes& message)
{
    return static_cast<std::uint16_t>(message[df1::kTransactionLow] | message[df1::kTransactionHigh]
                                                                          << 8);
}

// Command and CIP part: these are equal when the same request is made again.
Bytes contentOf(const Bytes& message)
{
    const bool connected = message[df1::kCommand] == kConnectedCommand;
    const std::size_t head =
        std::min(connected ? kConnectedHeaderSize : df1::kHeaderSize, message.size());
    Bytes content(message.begin() + static_cast<std::ptrdiff_t>(head) - 1, message.end());
    content[0] = message[df1::kCommand];
    const bool isForward =
        content.size() > 1 && (content[1] == kForwardOpen || content[1] == kForwardClose);
    if (!connected && isForward)
        content.resize(std::min(content.size(), 1 + kForwardContent));
    return content;
}

LinkOptions withoutDuplicateDetection()
{
    LinkOptions options;
    options.duplicateDetection = false;
    return options;
}

/// Parses the recorded bytes of one direction into messages; a bad one is left out.
class MessageParser
{
public:
    std::vector<Bytes> feed(const Bytes& bytes)
    {
        m_messages.clear();
        m_link.receive(bytes);
        m_link.transmit();
        return m_messages;
    }

private:
    VirtualClock m_clock;
    std::vector<Bytes> m_messages;
    LinkLayer m_link{m_clock,
                     [this](const Bytes& message) {
                         m_messages.push_back(message);
                         return std::optional<Bytes>();
                     },
                     withoutDuplicateDetection()};
};

} // namespace

Replay::Replay(const std::vector<TraceRecord>& trace, const std::string& name)
{
    MessageParser sent;
    MessageParser received;
    std::optional<Bytes> unanswered;
    for (const TraceRecord& record : trace) {
        if (record.direction == Direction::Sent) {
            for (const Bytes& request : sent.feed(record.bytes))
                unanswered = request;
            continue;
        }
        for (const Bytes& reply : received.feed(record.bytes)) {
            const bool answers = unanswered && (reply[df1::kCommand] & df1::kReplyFlag) != 0 &&
                                 transactionOf(reply) == transactionOf(*unanswered);
            if (!answers)
                continue;
            m_replies[contentOf(*unanswered)].replies.push_back(reply);
            unanswered.reset();
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
    reply[df1::kTransactionLow] = message[df1::kTransactionLow];
    reply[df1::kTransactionHigh] = message[df1::kTransactionHigh];
    const bool connected = message[df1::kCommand] == kConnectedCommand;
    if (connected && reply.size() > kSequence && message.size() > kSequence)
        reply[kSequence] = message[kSequence];
    return reply;
}

} // namespace micro850::sim
