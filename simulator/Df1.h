#ifndef MICRO850_SIMULATOR_DF1_H
#define MICRO850_SIMULATOR_DF1_H

#include "Bytes.h"

#include <cstdint>

/// DF1 full duplex as bytes: the control characters, the header of a message's data, the frame.
namespace micro850::sim::df1 {

// Each control is DLE and one of these. A DLE within a message's data is sent twice.
constexpr std::uint8_t kDle = 0x10;
constexpr std::uint8_t kStx = 0x02; ///< a message begins
constexpr std::uint8_t kEtx = 0x03; ///< its data end; the CRC follows, low byte first
constexpr std::uint8_t kEnq = 0x05; ///< asks for the last response again
constexpr std::uint8_t kAck = 0x06; ///< the message is accepted
constexpr std::uint8_t kNak = 0x15; ///< the message is refused

// Positions in a message's data: destination, source, command, status, transaction number, 00 00.
constexpr std::size_t kDestination = 0;
constexpr std::size_t kSource = 1;
constexpr std::size_t kCommand = 2;
constexpr std::size_t kTransactionLow = 4;
constexpr std::size_t kTransactionHigh = 5;
constexpr std::size_t kHeaderSize = 8;

constexpr std::uint8_t kReplyFlag = 0x40; ///< set in the command of a reply

/// CRC-16/ARC: polynomial x^16 + x^15 + x^2 + 1 sent low bit first, start 0.
std::uint16_t crc(const Bytes& bytes);
/// The CRC that follows a message's data on the line: it covers the data and ETX.
std::uint16_t crcOfData(const Bytes& data);
/// The message on the line, from DLE STX to its CRC.
Bytes frame(const Bytes& data);

} // namespace micro850::sim::df1

#endif
