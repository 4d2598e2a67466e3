#ifndef MICRO850_GATEWAY_LOOP_DESCRIPTOR_H
#define MICRO850_GATEWAY_LOOP_DESCRIPTOR_H

#include <unistd.h>

namespace micro850::gateway {

/// Closes the descriptor of a file or a socket when it goes. Below 0: there is none.
class Descriptor
{
public:
    explicit Descriptor(int number) : m_number(number) {}
    ~Descriptor()
    {
        if (m_number >= 0)
            ::close(m_number);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int number() const { return m_number; }

private:
    int m_number;
};

} // namespace micro850::gateway

#endif
