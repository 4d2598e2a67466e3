#ifndef MICRO850_COMMON_BYTES_H
#define MICRO850_COMMON_BYTES_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace micro850 {

using Bytes = std::vector<std::uint8_t>;

/// Reads numbers and bytes one after the other. Beyond the end there are none. The bytes must live
/// longer than the reader.
class ByteReader
{
public:
    explicit ByteReader(const Bytes& bytes) : m_bytes(bytes) {}

    bool has(std::size_t count) const { return left() >= count; }
    std::size_t left() const { return m_bytes.size() - m_at; }

    /// A number of `size` bytes, low byte first; bytes that are missing count as 00.
    std::uint64_t number(std::size_t size)
    {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size && has(1); ++i)
            value |= std::uint64_t{m_bytes[m_at++]} << (8 * i);
        return value;
    }

    void skip(std::size_t count) { m_at += std::min(count, left()); }

    /// The next bytes, at most `count`.
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

/// Appends a number of `size` bytes, low byte first.
inline void appendNumber(Bytes& bytes, std::uint64_t value, int size)
{
    for (int i = 0; i < size; ++i)
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

inline void append(Bytes& bytes, const Bytes& more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

} // namespace micro850

#endif
