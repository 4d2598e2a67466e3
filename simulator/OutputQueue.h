#ifndef MICRO850_SIMULATOR_OUTPUTQUEUE_H
#define MICRO850_SIMULATOR_OUTPUTQUEUE_H

#include "Bytes.h"
#include "Clock.h"

#include <functional>
#include <sys/types.h>

namespace micro850::sim {

/// The bytes that wait until the other end of a line takes them. They never grow beyond a limit.
class OutputQueue
{
public:
    /// Bytes beyond this number are lost.
    static constexpr std::size_t kCapacity = 65536;
    /// All waiting bytes are lost when the other end has taken none for so long.
    static constexpr Duration kPatience{1000000};
    /// Writes some of the bytes and returns their number, as write() does.
    using Write = std::function<ssize_t(const std::uint8_t* bytes, std::size_t count)>;

    explicit OutputQueue(const Clock& clock) : m_clock(clock) {}

    bool isEmpty() const { return m_bytes.empty(); }
    void add(const Bytes& bytes);
    /// Writes as many bytes as the other end takes. An error other than EAGAIN and EINTR loses all.
    void flush(const Write& write);
    void clear() { m_bytes.clear(); }

private:
    const Clock& m_clock;
    Bytes m_bytes;
    Duration m_lastProgress{0};
};

} // namespace micro850::sim

#endif
