#include "LinkLayer.h"

#include "Df1.h"

#include <utility>

namespace micro850::sim {

namespace {

// A message that grows longer than this is noise that happened to begin like a message.
constexpr std::size_t kLongestMessage = 4096;
// Replies that wait for the one on the wire. Further messages of a peer that acknowledges nothing
// are refused.
constexpr std::size_t kMostWaiting = 4;

} // namespace

LinkLayer::LinkLayer(const Clock& clock, Handler handler, LinkOptions options)
    : m_clock(clock), m_handler(std::move(handler)), m_options(options), m_lastResponse(df1::kNak)
{
}

void LinkLayer::receive(const Bytes& bytes)
{
    for (std::uint8_t byte : bytes)
        handleByte(byte);
}

void LinkLayer::handleByte(std::uint8_t byte)
{
    switch (m_state) {
    case State::Idle:
        if (byte == df1::kDle)
            m_state = State::Control;
        break;
    case State::Control:
        m_state = State::Idle;
        handleControl(byte);
        break;
    case State::Message:
        if (byte == df1::kDle)
            m_state = State::Escape;
        else
            m_data.push_back(byte);
        if (m_data.size() > kLongestMessage)
            m_state = State::Idle;
        break;
    case State::Escape:
        handleEscape(byte);
        break;
    case State::CrcLow:
        m_crcLow = byte;
        m_state = State::CrcHigh;
        break;
    case State::CrcHigh:
        m_state = State::Idle;
        handleMessage(static_cast<std::uint16_t>(m_crcLow | byte << 8));
        break;
    }
}

void LinkLayer::handleControl(std::uint8_t byte)
{
    if (byte == df1::kStx)
        beginMessage();
    else if (byte == df1::kDle)
        m_state = State::Control; // in a run of DLEs the last one counts
    else
        handleResponse(byte);
}

// Returns false when the byte is not a response.
bool LinkLayer::handleResponse(std::uint8_t byte)
{
    if (byte == df1::kAck)
        handleAck();
    else if (byte == df1::kNak)
        handleNak();
    else if (byte == df1::kEnq)
        handleEnquiry();
    else
        return false;
    return true;
}

// The peer may send responses within its message. A DLE STX there starts the message again.
void LinkLayer::handleEscape(std::uint8_t byte)
{
    m_state = State::Message;
    if (byte == df1::kDle) {
        m_data.push_back(df1::kDle);
    } else if (byte == df1::kEtx) {
        m_state = State::CrcLow;
    } else if (byte == df1::kStx) {
        ++m_counters.abandoned;
        beginMessage();
    } else if (!handleResponse(byte)) {
        m_illegal = true;
    }
}

void LinkLayer::beginMessage()
{
    m_data.clear();
    m_illegal = false;
    m_state = State::Message;
}

void LinkLayer::handleMessage(std::uint16_t crc)
{
    if (m_illegal || df1::crcOfData(m_data) != crc || m_data.size() < df1::kHeaderSize) {
        ++m_counters.corrupt;
        respond(df1::kNak);
        return;
    }
    if (m_waiting.size() >= kMostWaiting) {
        ++m_counters.full;
        respond(df1::kNak);
        return;
    }
    respond(df1::kAck);
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
    const Bytes identity = {data[df1::kSource], data[df1::kCommand], data[df1::kTransactionLow],
                            data[df1::kTransactionHigh]};
    return std::exchange(m_lastMessage, identity) == identity;
}

void LinkLayer::respond(std::uint8_t control)
{
    m_lastResponse = control;
    m_out.insert(m_out.end(), {df1::kDle, control});
}

void LinkLayer::send(const Bytes& data)
{
    m_waiting.push_back(df1::frame(data));
    if (!m_awaited)
        sendNext();
}

void LinkLayer::sendNext()
{
    m_awaited.reset();
    if (m_waiting.empty())
        return;
    m_awaited = std::move(m_waiting.front());
    m_waiting.pop_front();
    m_enquiries = 0;
    m_naks = 0;
    sendAwaited();
}

void LinkLayer::sendAwaited()
{
    m_out.insert(m_out.end(), m_awaited->begin(), m_awaited->end());
    m_deadline = m_clock.now() + m_options.ackTimeout;
}

void LinkLayer::giveUp()
{
    ++m_counters.undelivered;
    sendNext();
}

void LinkLayer::handleAck()
{
    sendNext();
}

void LinkLayer::handleNak()
{
    if (!m_awaited)
        return;
    if (++m_naks > m_options.nakLimit)
        return giveUp();
    ++m_counters.retransmissions;
    sendAwaited();
}

void LinkLayer::handleEnquiry()
{
    m_out.insert(m_out.end(), {df1::kDle, m_lastResponse});
}

void LinkLayer::tick()
{
    if (!m_awaited || m_clock.now() < m_deadline)
        return;
    if (++m_enquiries <= m_options.enquiryLimit) {
        ++m_counters.enquiries;
        m_out.insert(m_out.end(), {df1::kDle, df1::kEnq});
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
    m_lastResponse = df1::kNak;
    m_lastMessage.clear();
    m_out.clear();
    m_awaited.reset();
    m_waiting.clear();
    m_counters = LinkCounters();
}

} // namespace micro850::sim
