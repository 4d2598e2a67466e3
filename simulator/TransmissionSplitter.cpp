#include "TransmissionSplitter.h"

#include "Df1.h"

#include <utility>

namespace micro850::sim {

namespace {

// Noise that never becomes a message is passed on in pieces of this size.
constexpr std::size_t kLongestTransmission = 8192;

} // namespace

std::vector<TransmissionSplitter::Transmission> TransmissionSplitter::feed(const Bytes& bytes)
{
    std::vector<Transmission> complete;
    for (const std::uint8_t byte : bytes) {
        m_open.bytes.push_back(byte);
        if (!completes(byte) && m_open.bytes.size() < kLongestTransmission)
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

// Advances by one byte. True when the byte completes a transmission. DLE ENQ and DLE NAK are each a
// transmission because the peer answers them at once.
bool TransmissionSplitter::completes(std::uint8_t byte)
{
    switch (m_state) {
    case State::Outside:
        m_state = byte == df1::kDle ? State::Control : State::Outside;
        return false;
    case State::Control:
        if (byte == df1::kStx)
            m_open.message = m_open.bytes.size() - 2;
        m_state = byte == df1::kStx   ? State::Message
                  : byte == df1::kDle ? State::Control
                                      : State::Outside;
        return byte == df1::kEnq || byte == df1::kNak;
    case State::Message:
        m_state = byte == df1::kDle ? State::Escape : State::Message;
        return false;
    case State::Escape:
        m_state = byte == df1::kEtx ? State::CrcLow : State::Message;
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
