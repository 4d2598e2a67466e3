#include "Df1.h"

namespace micro850::sim::df1 {

std::uint16_t crc(const Bytes& bytes)
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

std::uint16_t crcOfData(const Bytes& data)
{
    Bytes covered = data;
    covered.push_back(kEtx);
    return crc(covered);
}

Bytes frame(const Bytes& data)
{
    Bytes bytes = {kDle, kStx};
    for (std::uint8_t byte : data) {
        bytes.push_back(byte);
        if (byte == kDle)
            bytes.push_back(kDle);
    }
    const std::uint16_t sum = crcOfData(data);
    bytes.insert(bytes.end(), {kDle, kEtx, static_cast<std::uint8_t>(sum & 0xFF),
                               static_cast<std::uint8_t>(sum >> 8)});
    return bytes;
}

} // namespace micro850::sim::df1
