#ifndef MICRO850_SIMULATOR_TRANSMISSIONSPLITTER_H
#define MICRO850_SIMULATOR_TRANSMISSIONSPLITTER_H

#include "Bytes.h"

#include <optional>
#include <vector>

namespace micro850::sim {

/// Splits a stream of bytes into transmissions: a message with the link controls before it, or
/// controls and noise alone.
class TransmissionSplitter
{
public:
    struct Transmission
    {
        Bytes bytes;
        std::size_t message = 0; ///< position of DLE STX; the size of `bytes` without a message
        bool hasMessage() const { return message < bytes.size(); }
    };

    /// Appends bytes and returns the transmissions that they complete.
    std::vector<Transmission> feed(const Bytes& bytes);
    /// Returns the unfinished transmission, if any. Call it when no more bytes are expected.
    std::optional<Transmission> flush();

    /// True unless a message or a control has begun and is not complete.
    bool isBetweenMessages() const { return m_state == State::Outside; }

private:
    enum class State { Outside, Control, Message, Escape, CrcLow, CrcHigh };

    bool completes(std::uint8_t byte);

    State m_state = State::Outside;
    Transmission m_open;
};

} // namespace micro850::sim

#endif
