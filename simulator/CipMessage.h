#ifndef MICRO850_SIMULATOR_CIPMESSAGE_H
#define MICRO850_SIMULATOR_CIPMESSAGE_H

#include <cstddef>
#include <cstdint>

namespace micro850::sim {

// CIP requests come as the data of two DF1 commands, after the DF1 header. A connected message has
// the connection's low half and a sequence number before the CIP part.
constexpr std::uint8_t kConnectedCommand = 0x0A;
constexpr std::uint8_t kUnconnectedCommand = 0x0B;
constexpr std::size_t kConnection = 8;
constexpr std::size_t kSequence = 10;
constexpr std::size_t kConnectedHeaderSize = 12;

// Services.
constexpr std::uint8_t kGetAttributesAll = 0x01;
constexpr std::uint8_t kForwardClose = 0x4E;
constexpr std::uint8_t kReadTagFragmented = 0x52;
constexpr std::uint8_t kWriteTagFragmented = 0x53;
constexpr std::uint8_t kForwardOpen = 0x54;
constexpr std::uint8_t kServiceReply = 0x80; ///< set in the service code of a reply

} // namespace micro850::sim

#endif
