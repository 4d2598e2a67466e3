#include "OutputQueue.h"

#include <cerrno>

namespace micro850::sim {

void OutputQueue::add(const Bytes& bytes)
{
    if (m_bytes.empty())
        m_lastProgress = m_clock.now();
    const std::size_t count = std::min(bytes.size(), kCapacity - m_bytes.size());
    m_bytes.insert(m_bytes.end(), bytes.begin(),
                   bytes.begin() + static_cast<std::ptrdiff_t>(count));
}

void OutputQueue::flush(const Write& write)
{
    std::size_t sent = 0;
    while (sent < m_bytes.size()) {
        const ssize_t count = write(m_bytes.data() + sent, m_bytes.size() - sent);
        if (count > 0) {
            sent += static_cast<std::size_t>(count);
            m_lastProgress = m_clock.now();
        } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
            clear();
            return;
        } else if (errno == EAGAIN) {
            break;
        }
    }
    m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(sent));
    if (m_clock.now() - m_lastProgress >= kPatience)
        clear();
}

} // namespace micro850::sim
