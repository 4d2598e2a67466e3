#include "FaultyLine.h"

#include "Df1.h"

#include <algorithm>
#include <array>
#include <utility>

namespace micro850::sim {

namespace {

constexpr std::array<std::uint8_t, 2> kAckBytes = {df1::kDle, df1::kAck};
// A transmission that stops in the middle is passed on after this silence.
constexpr Duration kSilence{50000};
// The same for link controls: the message that belongs to them may still follow.
constexpr Duration kControlSilence{5000};

std::string hexOf(const Bytes& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += text.empty() ? "" : " ";
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string secondsOf(Duration time)
{
    std::string text = std::to_string(static_cast<double>(time.count()) / 1e6);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.')
        text.pop_back();
    return text + " s";
}

std::ptrdiff_t offset(std::size_t index)
{
    return static_cast<std::ptrdiff_t>(index);
}

} // namespace

FaultyLine::FaultyLine(const Clock& clock, Controller& controller, FaultScript script,
                       std::uint64_t seed)
    : m_clock(clock), m_controller(controller), m_script(std::move(script)), m_dice(seed)
{
}

void FaultyLine::receive(const Bytes& bytes)
{
    if (!bytes.empty())
        m_lastInput = m_clock.now();
    SideState& requests = m_sides[index(Side::Requests)];
    for (const Transmission& sent : requests.splitter.feed(bytes))
        pass(Side::Requests, sent);
    deliver();
}

void FaultyLine::tick()
{
    TransmissionSplitter& splitter = m_sides[index(Side::Requests)].splitter;
    const Duration patience = splitter.isBetweenMessages() ? kControlSilence : kSilence;
    if (m_clock.now() - m_lastInput >= patience) {
        if (const auto sent = splitter.flush())
            pass(Side::Requests, *sent);
    }
    deliver();
    m_controller.tick();
    collectReplies();
    deliver();
}

Bytes FaultyLine::transmit()
{
    deliver();
    return std::exchange(m_out, Bytes());
}

void FaultyLine::deliver()
{
    std::deque<Piece>& requests = m_sides[index(Side::Requests)].pieces;
    while (!requests.empty() && requests.front().due <= m_clock.now()) {
        const Piece piece = std::move(requests.front());
        requests.pop_front();
        execute(piece);
    }
    std::deque<Piece>& replies = m_sides[index(Side::Replies)].pieces;
    while (!replies.empty() && replies.front().due <= m_clock.now()) {
        m_out.insert(m_out.end(), replies.front().bytes.begin(), replies.front().bytes.end());
        replies.pop_front();
    }
}

void FaultyLine::execute(const Piece& piece)
{
    m_controller.server().setFailure(piece.failure);
    m_controller.receive(piece.bytes);
    m_controller.server().setFailure(std::nullopt);
    collectReplies();
}

void FaultyLine::collectReplies()
{
    SideState& replies = m_sides[index(Side::Replies)];
    for (const Transmission& sent : replies.splitter.feed(m_controller.transmit()))
        pass(Side::Replies, sent);
    if (const auto sent = replies.splitter.flush())
        pass(Side::Replies, *sent);
}

void FaultyLine::pass(Side side, const Transmission& sent)
{
    SideState& state = m_sides[index(side)];
    Passage passage(side, state.messages, sent);
    if (sent.hasMessage()) {
        passage.number = ++state.messages;
        releaseHeld(side);
        for (const Fault& fault : m_script) {
            if (fault.side == side && strikes(fault, passage.number))
                apply(fault, passage);
        }
        if (side == Side::Replies)
            m_previousReply = sent.bytes;
    }
    if (!isHungUp())
        send(passage);
}

bool FaultyLine::strikes(const Fault& fault, unsigned number)
{
    if (fault.messages.empty())
        return m_dice.hits(fault.rate);
    return std::find(fault.messages.begin(), fault.messages.end(), number) != fault.messages.end();
}

void FaultyLine::apply(const Fault& fault, Passage& passage)
{
    switch (fault.kind) {
    case FaultKind::LoseByte:
    case FaultKind::FlipBit:
    case FaultKind::DoubleByte:
    case FaultKind::InsertBytes:
    case FaultKind::Noise:
        return applyToBytes(fault, passage);
    case FaultKind::Delay:
    case FaultKind::Duplicate:
    case FaultKind::Split:
        return applyToTime(fault, passage);
    case FaultKind::Withhold:
    case FaultKind::WithholdAck:
    case FaultKind::Nak:
    case FaultKind::Previous:
    case FaultKind::CipError:
        return applyToAnswer(fault, passage);
    case FaultKind::HangUp:
        return hangUp(fault, passage);
    }
}

void FaultyLine::applyToBytes(const Fault& fault, Passage& passage)
{
    Bytes& bytes = passage.sent.bytes;
    const std::size_t at =
        fault.byte == 0 ? static_cast<std::size_t>(m_dice.below(bytes.size())) : fault.byte - 1;
    if (at >= bytes.size())
        return;
    const auto position = bytes.begin() + offset(at);
    const std::uint8_t before = bytes[at];
    std::string what = "byte " + std::to_string(at + 1) + ": ";
    if (fault.kind == FaultKind::LoseByte) {
        bytes.erase(position);
        what += hexOf({before}) + " lost";
    } else if (fault.kind == FaultKind::FlipBit) {
        const auto bit = fault.bit < 0 ? m_dice.below(8) : static_cast<unsigned>(fault.bit);
        bytes[at] = static_cast<std::uint8_t>(before ^ (1u << bit));
        what += "bit " + std::to_string(bit) + " flipped, " + hexOf({before}) + " becomes " +
                hexOf({bytes[at]});
    } else if (fault.kind == FaultKind::DoubleByte) {
        bytes.insert(position, before);
        what += hexOf({before}) + " doubled";
    } else {
        const Bytes more = fault.bytes.empty() ? randomBytes(fault) : fault.bytes;
        bytes.insert(position, more.begin(), more.end());
        what += hexOf(more) + " inserted";
    }
    report(fault, passage, what);
}

Bytes FaultyLine::randomBytes(const Fault& fault)
{
    Bytes bytes(fault.kind == FaultKind::Noise ? fault.length : 1);
    for (std::uint8_t& byte : bytes)
        byte = static_cast<std::uint8_t>(m_dice.below(256));
    return bytes;
}

void FaultyLine::applyToTime(const Fault& fault, Passage& passage)
{
    if (fault.kind == FaultKind::Duplicate) {
        ++passage.copies;
        report(fault, passage, "sent twice");
    } else if (fault.kind == FaultKind::Split) {
        passage.gap = fault.time;
        report(fault, passage, "in single bytes with gaps of " + secondsOf(fault.time));
    } else if (fault.later > 0) {
        passage.later = fault.later;
        report(fault, passage, "held until " + std::to_string(fault.later) + " later");
    } else {
        passage.delay += fault.time;
        report(fault, passage, "delayed by " + secondsOf(fault.time));
    }
}

void FaultyLine::applyToAnswer(const Fault& fault, Passage& passage)
{
    Transmission& sent = passage.sent;
    if (fault.kind == FaultKind::Withhold) {
        passage.withheld = true;
        report(fault, passage, "withheld");
    } else if (fault.kind == FaultKind::WithholdAck) {
        withholdAck(fault, passage);
    } else if (fault.kind == FaultKind::Nak) {
        refuse(fault, passage);
    } else if (fault.kind == FaultKind::CipError) {
        passage.failure = fault.failure;
        report(fault, passage, "answered with status " + hexOf({fault.failure.status}));
    } else if (!m_previousReply.empty()) {
        sent.bytes = m_previousReply;
        sent.message = 0;
        report(fault, passage, "the previous reply sent instead");
    }
}

void FaultyLine::withholdAck(const Fault& fault, Passage& passage)
{
    Transmission& sent = passage.sent;
    const auto end = sent.bytes.begin() + offset(std::min(sent.message, sent.bytes.size()));
    const auto found = std::search(sent.bytes.begin(), end, kAckBytes.begin(), kAckBytes.end());
    if (found == end)
        return;
    sent.bytes.erase(found, found + offset(kAckBytes.size()));
    sent.message -= kAckBytes.size();
    report(fault, passage, "its acknowledgement withheld");
}

void FaultyLine::refuse(const Fault& fault, Passage& passage)
{
    Transmission& sent = passage.sent;
    if (passage.side == Side::Requests) {
        passage.withheld = true;
        schedule(Side::Replies, {m_clock.now(), {df1::kDle, df1::kNak}, std::nullopt});
        report(fault, passage, "refused with DLE NAK");
    } else if (sent.bytes.size() >= kAckBytes.size() &&
               std::equal(kAckBytes.begin(), kAckBytes.end(), sent.bytes.begin()))
    {
        sent.bytes[1] = df1::kNak;
        report(fault, passage, "DLE NAK before it instead of DLE ACK");
    }
}

void FaultyLine::hangUp(const Fault& fault, const Passage& passage)
{
    m_hungUpUntil = m_clock.now() + fault.time;
    for (SideState& side : m_sides)
        side.pieces.clear();
    report(fault, passage, "the line hung up for " + secondsOf(fault.time));
}

void FaultyLine::report(const Fault& fault, const Passage& passage, const std::string& what)
{
    ++m_counts[fault.kind];
    if (m_observer)
        m_observer({m_clock.now(), passage.side, passage.number, fault.kind, what});
}

void FaultyLine::send(Passage& passage)
{
    Bytes bytes = std::move(passage.sent.bytes);
    if (passage.withheld)
        bytes.resize(std::min(bytes.size(), passage.sent.message));
    SideState& state = m_sides[index(passage.side)];
    Duration due = m_clock.now() + passage.delay;
    for (unsigned copy = 0; copy < passage.copies && !bytes.empty(); ++copy) {
        if (passage.later > 0) {
            state.held.push_back({passage.number + passage.later, {due, bytes, passage.failure}});
        } else if (!passage.gap) {
            schedule(passage.side, {due, bytes, passage.failure});
        } else {
            for (const std::uint8_t byte : bytes) {
                schedule(passage.side, {due, {byte}, passage.failure});
                due += *passage.gap;
            }
        }
    }
}

// A line keeps its order: a piece never overtakes an earlier one.
void FaultyLine::schedule(Side side, Piece piece)
{
    std::deque<Piece>& pieces = m_sides[index(side)].pieces;
    if (isHungUp())
        return;
    if (!pieces.empty())
        piece.due = std::max(piece.due, pieces.back().due);
    pieces.push_back(std::move(piece));
}

void FaultyLine::releaseHeld(Side side)
{
    SideState& state = m_sides[index(side)];
    while (!state.held.empty()) {
        const auto due =
            std::find_if(state.held.begin(), state.held.end(),
                         [&state](const Held& held) { return held.until <= state.messages; });
        if (due == state.held.end())
            return;
        Piece piece = std::move(due->piece);
        state.held.erase(due);
        piece.due = m_clock.now();
        schedule(side, std::move(piece));
    }
}

std::string describe(const FaultyLine::Event& event)
{
    const std::string side = event.side == Side::Requests ? "request " : "reply ";
    return side + std::to_string(event.message) + ": " + event.what;
}

} // namespace micro850::sim
