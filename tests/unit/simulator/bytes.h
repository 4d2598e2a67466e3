#ifndef MICRO850_TESTS_SIMULATOR_BYTES_H
#define MICRO850_TESTS_SIMULATOR_BYTES_H

#include "CipType.h"

#include <sstream>
#include <string>

namespace micro850::sim {

/// Bytes of a text like "10 06 10 02".
inline Bytes hex(const std::string& text)
{
    Bytes bytes;
    std::istringstream in(text);
    for (unsigned value; in >> std::hex >> value;)
        bytes.push_back(static_cast<std::uint8_t>(value));
    return bytes;
}

/// The text of bytes, so that a failed comparison can be read.
inline std::string text(const Bytes& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (std::uint8_t byte : bytes) {
        out += out.empty() ? "" : " ";
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace micro850::sim

#endif
