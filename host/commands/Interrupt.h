#ifndef MICRO850_HOST_COMMANDS_INTERRUPT_H
#define MICRO850_HOST_COMMANDS_INTERRUPT_H

namespace micro850::host {

/// Catches Ctrl-C and termination while it lives, so that the caller can end in order.
class Interrupt
{
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    bool requested() const;
    /// Ends a command that has not done its work.
    void throwIfRequested() const;
};

} // namespace micro850::host

#endif
