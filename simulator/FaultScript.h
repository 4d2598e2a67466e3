#ifndef MICRO850_SIMULATOR_FAULTSCRIPT_H
#define MICRO850_SIMULATOR_FAULTSCRIPT_H

#include "CipServer.h"

#include <cstdint>
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
    Noise,       ///< a burst of random bytes is inserted
    Delay,       ///< it arrives after a time, or after so many later messages
    Duplicate,   ///< it is sent twice
    Split,       ///< it is sent in single bytes with gaps
    Withhold,    ///< the message is lost; the acknowledgement before it is not
    WithholdAck, ///< the acknowledgement before it is lost
    Nak,         ///< a request is refused with DLE NAK; a reply has DLE NAK instead of DLE ACK
    HangUp,      ///< the line is dead for a time, starting with this message
    Previous,    ///< the reply to the previous request is sent instead of this one
    CipError     ///< the request is answered with an error status and not executed
};

/// Every name in a fault script, in the order of FaultKind.
const std::vector<std::string>& faultNames();

/// The two directions of the line: Requests come from the host, Replies from the controller.
enum class Side { Requests, Replies };

/// One rule: a fault, and the messages that it strikes.
struct Fault
{
    FaultKind kind = FaultKind::LoseByte;
    Side side = Side::Replies;
    /// Share of the messages that it strikes at random; used when `messages` is empty.
    double rate = 0;
    /// Numbers of the messages that it strikes; the first message of a side is 1.
    std::vector<unsigned> messages;
    /// The byte that it strikes, or before which it inserts. Byte 1 is the first byte of the
    /// acknowledgement before the message; 0 means a random byte.
    unsigned byte = 0;
    int bit = -1;         ///< FlipBit: 0 to 7; below 0 a random bit
    Bytes bytes;          ///< InsertBytes: what to insert; empty for one random byte
    unsigned length = 16; ///< Noise: number of bytes
    Duration time{0};     ///< Delay: how long; Split: the gaps; HangUp: how long
    unsigned later = 0;   ///< Delay: number of later messages of its side that overtake it
    CipFailure failure;   ///< CipError
};

/// The rules of a fault script, in the order in which they are applied to a message.
using FaultScript = std::vector<Fault>;

/// Parses a fault script. Throws UserError that names file, key and remedy.
FaultScript faultsFromFile(const std::string& path);
FaultScript faultsFromText(const std::string& text, const std::string& name);

} // namespace micro850::sim

#endif
