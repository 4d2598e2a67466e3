#ifndef MICRO850_SIMULATOR_CIPBYTES_H
#define MICRO850_SIMULATOR_CIPBYTES_H

#include "CipType.h"

#include <algorithm>

namespace micro850::sim {

/// Reads numbers, low byte first; beyond the end they are missing.
class Reader
{
public:
    explicit Reader(const Bytes& bytes) : m_bytes(bytes) {}

    bool has(std::size_t count) const { return m_bytes.size() - m_at >= count; }
    std::size_t left() const { return m_bytes.size() - m_at; }

    std::uint64_t number(std::size_t size)
    {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size && has(1); ++i)
            value |= std::uint64_t{m_bytes[m_at++]} << (8 * i);
        return value;
    }

    Bytes bytes(std::size_t count)
    {
        const auto first = m_bytes.begin() + static_cast<std::ptrdiff_t>(m_at);
        m_at += std::min(count, left());
        return {first, m_bytes.begin() + static_cast<std::ptrdiff_t>(m_at)};
    }

private:
    const Bytes& m_bytes;
    std::size_t m_at = 0;
};

/// Appends a number, low byte first.
inline void put(Bytes& bytes, std::uint64_t value, int size)
{
    for (int i = 0; i < size; ++i)
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

inline void append(Bytes& bytes, const Bytes& more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

} // namespace micro850::sim

#endif
