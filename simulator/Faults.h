#ifndef MICRO850_SIMULATOR_FAULTS_H
#define MICRO850_SIMULATOR_FAULTS_H

#include "CipServer.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace micro850 {
class JsonNode;
}

namespace micro850::sim {

/// What can go wrong with one message on the line.
enum class FaultKind {
    LoseByte,
    FlipBit,
    DoubleByte,
    InsertBytes,
    Noise,       ///< a burst of random bytes in between
    Delay,       ///< by a time, or until so many later messages have come
    Duplicate,   ///< sent twice
    Split,       ///< in single bytes with gaps
    Withhold,    ///< the message is lost, the acknowledgement in front of it is not
    WithholdAck, ///< the acknowledgement in front of it is lost
    Nak,         ///< a request is refused with DLE NAK; a reply has DLE NAK instead of DLE ACK
    HangUp,      ///< the line is dead from this message on for a time
    Previous,    ///< the reply of the previous request is sent in place of this one
    CipError     ///< the request is not executed but answered with an error status
};

/// Every name in a fault script, in the order of FaultKind.
const std::vector<std::string>& faultNames();

/// What the host sends, and what the controller sends.
enum class Side { Requests, Replies };

/// One rule: a fault, and the messages that it strikes.
struct Fault
{
    FaultKind kind = FaultKind::LoseByte;
    Side side = Side::Replies;
    /// The share of messages that are struck at random, where `messages` is empty.
    double rate = 0;
    /// The messages that are struck; the first on its side is 1.
    std::vector<unsigned> messages;
    /// The byte that is struck, or in front of which something is inserted; the first of the
    /// acknowledgement in front of the message is 1. 0: any.
    unsigned byte = 0;
    int bit = -1;         ///< FlipBit: 0 to 7, below 0 any
    Bytes bytes;          ///< InsertBytes: these; none: one at random
    unsigned length = 16; ///< Noise: so many bytes
    Duration time{0};     ///< Delay, the gaps of Split, HangUp
    unsigned later = 0;   ///< Delay: so many messages of its side overtake it
    CipFailure failure;   ///< CipError
};

/// The rules of a fault script, in the order in which they are applied to a message.
using FaultScript = std::vector<Fault>;

/// Reads a fault script. Throws UserError naming file, key and remedy.
FaultScript faultsFromFile(const std::string& path);
FaultScript faultsFromText(const std::string& text, const std::string& name);

/// The dice: the same numbers from the same seed on every machine.
class Dice
{
public:
    explicit Dice(std::uint64_t seed) : m_numbers(seed) {}

    /// True in `rate` of all throws, 0 to 1.
    bool hits(double rate) { return static_cast<double>(m_numbers() >> 11) * 0x1p-53 < rate; }
    /// A number from 0 up to but without `end`; 0 where that is 0.
    std::uint64_t below(std::uint64_t end) { return end == 0 ? 0 : m_numbers() % end; }

private:
    std::mt19937_64 m_numbers;
};

} // namespace micro850::sim

#endif
