#ifndef MICRO850_HOST_TERMINAL_STOPKEY_H
#define MICRO850_HOST_TERMINAL_STOPKEY_H

#include <csignal>

namespace micro850::host {

/// Catches Ctrl-Z while it lives, so that the terminal is given back as it was before the program
/// stops. A press that nobody has asked for counts when the object dies. A program that was started
/// to ignore Ctrl-Z goes on ignoring it. Only one at a time.
class StopKey
{
public:
    StopKey();
    ~StopKey();
    StopKey(const StopKey&) = delete;
    StopKey& operator=(const StopKey&) = delete;

    bool isPressed() const;
    /// Stops the program. Returns once it goes on.
    void stop();

private:
    struct sigaction m_before = {};
};

} // namespace micro850::host

#endif
