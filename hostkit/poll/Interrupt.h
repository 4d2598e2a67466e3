#ifndef MICRO850_HOST_INTERRUPT_H
#define MICRO850_HOST_INTERRUPT_H

#include <array>
#include <csignal>

namespace micro850::host {

/// Catches Ctrl-C, Ctrl-\ and termination while it lives, so that the caller can end in order. A
/// signal that the program was started to ignore stays ignored.
class Interrupt
{
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    bool requested() const;
    /// True when it was Ctrl-C: a program that takes commands ends the command only.
    bool isFromKeyboard() const;
    /// Waits for the next one.
    void forget() const;
    /// Ends a command that has not done its work.
    void throwIfRequested() const;

private:
    std::array<struct sigaction, 4> m_before = {}; ///< how each signal was handled
};

} // namespace micro850::host

#endif
