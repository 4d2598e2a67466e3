#include "LinkLayer.h"

#include <utility>

namespace micro850::sim {

namespace {

constexpr std::uint8_t kDle = 0x10;
constexpr std::uint8_t kStx = 0x02;
constexpr std::uint8_t kEtx = 0x03;
constexpr std::uint8_t kEnq = 0x05;
constexpr std::uint8_t kAck = 0x06;
constexpr std::uint8_t kNak = 0x15;
// A message that grows beyond this is noise that happened to begin like one.
constexpr std::size_t kLongestMessage = 4096;
// Replies that wait behind the one on the wire; a peer that acknowledges none is then refused.
constexpr std::size_t kMostWaiting = 4;
// Source, command and transaction number within a message's data.
constexpr std::size_t kSource = 1;
constexpr std::size_t kCommand = 2;
constexpr std::size_t kTransaction = 4;
constexpr std::size_t kHeaderSize = 8;

Bytes framed(const Bytes& data)
{
    Bytes frame = {kDle, kStx};
    for (std::uint8_t byte : data) {
        frame.push_back(byte);
        if (byte == kDle)
            frame.push_back(kDle);
    }
    Bytes covered = data;
    covered.push_back(kEtx);
    const std::uint16_t crc = linkCrc(covered);
    frame.insert(frame.end(), {kDle, kEtx, static_cast<std::uint8_t>(crc & 0xFF),
                               static_cast<std::uint8_t>(crc >> 8)});
    return frame;
}

} // namespace

std::uint16_t linkCrc(const Bytes& bytes)
{
    std::uint16_t shift = 0;
    for (std::uint8_t byte : bytes) {
        for (int bit = 0; bit < 8; ++bit) {
            const bool feedback = ((shift ^ (byte >> bit)) & 1) != 0;
            shift = static_cast<std::uint16_t>(shift >> 1);
            if (feedback)
                shift ^= 0xA001;
        }
    }
    return shift;
}

LinkLayer::LinkLayer(const Clock& clock, Handler handler, LinkOptions options)
    : m_clock(clock), m_handler(std::move(handler)), m_options(options), m_lastAnswer(kNak)
{
}

void LinkLayer::receive(const Bytes& bytes)
{
    for (std::uint8_t byte : bytes)
        take(byte);
}

void LinkLayer::take(std::uint8_t byte)
{
    switch (m_state) {
    case State::Idle:
        if (byte == kDle)
            m_state = State::Control;
        break;
    case State::Control:
        m_state = State::Idle;
        takeControl(byte);
        break;
    case State::Message:
        if (byte == kDle)
            m_state = State::Escape;
        else
            m_data.push_back(byte);
        if (m_data.size() > kLongestMessage)
            m_state = State::Idle;
        break;
    case State::Escape:
        takeEscape(byte);
        break;
    case State::CrcLow:
        m_crcLow = byte;
        m_state = State::CrcHigh;
        break;
    case State::CrcHigh:
        m_state = State::Idle;
        takeMessage(static_cast<std::uint16_t>(m_crcLow | byte << 8));
        break;
    }
}

void LinkLayer::takeControl(std::uint8_t byte)
{
    if (byte == kStx)
        beginMessage();
    else if (byte == kDle)
        m_state = State::Control; // a run of DLE: the last one counts
    else
        takeResponse(byte);
}

// False for a byte that is no response.
bool LinkLayer::takeResponse(std::uint8_t byte)
{
    if (byte == kAck)
        acknowledged();
    else if (byte == kNak)
        refused();
    else if (byte == kEnq)
        asked();
    else
        return false;
    return true;
}

// Responses may stand within the peer's message; a DLE STX there begins it anew.
void LinkLayer::takeEscape(std::uint8_t byte)
{
    m_state = State::Message;
    if (byte == kDle) {
        m_data.push_back(kDle);
    } else if (byte == kEtx) {
        m_state = State::CrcLow;
    } else if (byte == kStx) {
        ++m_counters.abandoned;
        beginMessage();
    } else if (!takeResponse(byte)) {
        m_illegal = true;
    }
}

void LinkLayer::beginMessage()
{
    m_data.clear();
    m_illegal = false;
    m_state = State::Message;
}

void LinkLayer::takeMessage(std::uint16_t crc)
{
    Bytes covered = m_data;
    covered.push_back(kEtx);
    if (m_illegal || linkCrc(covered) != crc || m_data.size() < kHeaderSize) {
        ++m_counters.corrupt;
        answer(kNak);
        return;
    }
    if (m_waiting.size() >= kMostWaiting) {
        ++m_counters.full;
        answer(kNak);
        return;
    }
    answer(kAck);
    if (m_options.duplicateDetection && isDuplicate(m_data)) {
        ++m_counters.duplicates;
        return;
    }
    ++m_counters.messages;
    if (const std::optional<Bytes> reply = m_handler(m_data))
        send(*reply);
}

bool LinkLayer::isDuplicate(const Bytes& data)
{
    const Bytes identity = {data[kSource], data[kCommand], data[kTransaction],
                            data[kTransaction + 1]};
    return std::exchange(m_lastMessage, identity) == identity;
}

void LinkLayer::answer(std::uint8_t control)
{
    m_lastAnswer = control;
    m_out.insert(m_out.end(), {kDle, control});
}

void LinkLayer::send(const Bytes& data)
{
    m_waiting.push_back(framed(data));
    if (!m_awaiting)
        sendNext();
}

void LinkLayer::sendNext()
{
    m_awaiting.reset();
    if (m_waiting.empty())
        return;
    m_awaiting = std::move(m_waiting.front());
    m_waiting.pop_front();
    m_enquiries = 0;
    m_naks = 0;
    m_out.insert(m_out.end(), m_awaiting->begin(), m_awaiting->end());
    m_deadline = m_clock.now() + m_options.ackTimeout;
}

void LinkLayer::resend()
{
    ++m_counters.retransmissions;
    m_out.insert(m_out.end(), m_awaiting->begin(), m_awaiting->end());
    m_deadline = m_clock.now() + m_options.ackTimeout;
}

void LinkLayer::giveUp()
{
    ++m_counters.undelivered;
    sendNext();
}

void LinkLayer::acknowledged()
{
    sendNext();
}

void LinkLayer::refused()
{
    if (!m_awaiting)
        return;
    if (++m_naks <= m_options.nakLimit)
        resend();
    else
        giveUp();
}

void LinkLayer::asked()
{
    m_out.insert(m_out.end(), {kDle, m_lastAnswer});
}

void LinkLayer::tick()
{
    if (!m_awaiting || m_clock.now() < m_deadline)
        return;
    if (++m_enquiries <= m_options.enquiryLimit) {
        ++m_counters.enquiries;
        m_out.insert(m_out.end(), {kDle, kEnq});
        m_deadline = m_clock.now() + m_options.ackTimeout;
    } else {
        giveUp();
    }
}

Bytes LinkLayer::transmit()
{
    return std::exchange(m_out, Bytes());
}

void LinkLayer::reset()
{
    m_state = State::Idle;
    m_data.clear();
    m_lastAnswer = kNak;
    m_lastMessage.clear();
    m_out.clear();
    m_awaiting.reset();
    m_waiting.clear();
    m_counters = LinkCounters();
}

} // namespace micro850::sim
