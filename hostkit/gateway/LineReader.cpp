#include "LineReader.h"

#include <cstring>

namespace micro850::host {

void LineReader::add(const char* bytes, int size)
{
    if (m_dropping) {
        const void* const feed = std::memchr(bytes, '\n', static_cast<std::size_t>(size));
        if (!feed)
            return;
        m_dropping = false;
        const int dropped = static_cast<int>(static_cast<const char*>(feed) - bytes) + 1;
        bytes += dropped;
        size -= dropped;
    }
    m_bytes.remove(0, m_start);
    m_searched -= m_start;
    m_start = 0;
    m_bytes.append(bytes, size);
}

std::optional<LineReader::Line> LineReader::next()
{
    const int end = m_bytes.indexOf('\n', m_searched);
    if (end < 0) {
        m_searched = m_bytes.size();
        if (m_bytes.size() - m_start < m_longest)
            return std::nullopt;
        m_dropping = true;
        m_bytes.clear();
        m_start = m_searched = 0;
        return Line{QByteArray(), true};
    }
    const int begin = m_start;
    m_start = m_searched = end + 1;
    if (end + 1 - begin > m_longest)
        return Line{QByteArray(), true};
    return Line{m_bytes.mid(begin, end - begin), false};
}

} // namespace micro850::host
