#ifndef MICRO850_SIMULATOR_TRANSMISSIONSPLITTER_H
#define MICRO850_SIMULATOR_TRANSMISSIONSPLITTER_H

#include "Bytes.h"

#include <optional>
#include <vector>

namespace micro850::sim {

/// Cuts a stream of bytes into transmissions: a message with the link controls in front of it, or
/// controls and noise alone.
class TransmissionSplitter
{
public:
    struct Transmission
    {
        Bytes bytes;
        std::size_t message = 0; ///< where DLE STX is; the size of `bytes` if there is no message
        bool hasMessage() const { return message < bytes.size(); }
    };

    /// Takes bytes; gives what they complete.
    std::vector<Transmission> feed(const Bytes& bytes);
    /// Gives what has begun, as nothing more comes.
    std::optional<Transmission> flush();

    /// True while no message and no control has begun that is not whole.
    bool isBetweenMessages() const { return m_state == State::Outside; }

private:
    enum class State { Outside, Control, Message, Escape, CrcLow, CrcHigh };

    bool take(std::uint8_t byte);

    State m_state = State::Outside;
    Transmission m_open;
};

} // namespace micro850::sim

#endif
