#ifndef MICRO850_HOST_REPLYSIZES_H
#define MICRO850_HOST_REPLYSIZES_H

#include <algorithm>
#include <array>

namespace micro850::host {

/// Remembers how many bytes the replies to reads of so many elements have, because the width of the
/// elements is not in the request. The largest of the last ones counts, so that a reply of wide
/// elements is not missed too early beside those of narrow ones.
class ReplySizes
{
public:
    /// Bytes of the reply to a read of `elements`; `unknown` when none came yet.
    int expected(int elements, int unknown) const
    {
        const Entry& entry = m_entries[slot(elements)];
        return entry.elements == elements && entry.bytes > 0 ? entry.bytes : unknown;
    }
    void note(int elements, int bytes)
    {
        Entry& entry = m_entries[slot(elements)];
        if (entry.elements == elements && entry.bytes == bytes)
            return;
        const int kept = entry.elements == elements ? entry.bytes - (entry.bytes + 7) / 8 : 0;
        entry = {elements, std::max(bytes, kept)};
    }

private:
    struct Entry
    {
        int elements = 0;
        int bytes = 0;
    };
    static constexpr unsigned kSlots = 64;
    static unsigned slot(int elements) { return static_cast<unsigned>(elements) % kSlots; }

    std::array<Entry, kSlots> m_entries{};
};

} // namespace micro850::host

#endif
