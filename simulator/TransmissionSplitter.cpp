#include "TransmissionSplitter.h"

#include <utility>

namespace micro850::sim {

namespace {

constexpr std::uint8_t kDle = 0x10;
constexpr std::uint8_t kStx = 0x02;
constexpr std::uint8_t kEtx = 0x03;
constexpr std::uint8_t kEnq = 0x05;
constexpr std::uint8_t kNak = 0x15;
// Noise that never becomes a message is passed on in pieces of this size.
constexpr std::size_t kLongestTransmission = 8192;

} // namespace

std::vector<TransmissionSplitter::Transmission> TransmissionSplitter::feed(const Bytes& bytes)
{
    std::vector<Transmission> complete;
    for (const std::uint8_t byte : bytes) {
        m_open.bytes.push_back(byte);
        if (!take(byte) && m_open.bytes.size() < kLongestTransmission)
            continue;
        if (std::optional<Transmission> done = flush())
            complete.push_back(std::move(*done));
    }
    return complete;
}

std::optional<TransmissionSplitter::Transmission> TransmissionSplitter::flush()
{
    if (m_state == State::Outside || m_state == State::Control)
        m_open.message = m_open.bytes.size();
    m_state = State::Outside;
    Transmission done = std::exchange(m_open, Transmission());
    return done.bytes.empty() ? std::nullopt : std::optional(std::move(done));
}

// True when a transmission is complete with this byte. DLE ENQ and DLE NAK want an answer at once
// and stand for themselves.
bool TransmissionSplitter::take(std::uint8_t byte)
{
    switch (m_state) {
    case State::Outside:
        m_state = byte == kDle ? State::Control : State::Outside;
        return false;
    case State::Control:
        if (byte == kStx)
            m_open.message = m_open.bytes.size() - 2;
        m_state = byte == kStx ? State::Message : byte == kDle ? State::Control : State::Outside;
        return byte == kEnq || byte == kNak;
    case State::Message:
        m_state = byte == kDle ? State::Escape : State::Message;
        return false;
    case State::Escape:
        m_state = byte == kEtx ? State::CrcLow : State::Message;
        return false;
    case State::CrcLow:
        m_state = State::CrcHigh;
        return false;
    case State::CrcHigh:
        return true;
    }
    return false;
}

} // namespace micro850::sim
