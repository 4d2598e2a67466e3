#include "StopKey.h"

#include <unistd.h>
#include <utility>

namespace micro850::host {

namespace {

volatile std::sig_atomic_t stopAsked = 0;

void noteStop(int)
{
    stopAsked = 1;
}

} // namespace

StopKey::StopKey()
{
    struct sigaction action = {};
    action.sa_handler = noteStop;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTSTP, nullptr, &m_before);
    if (m_before.sa_handler != SIG_IGN)
        ::sigaction(SIGTSTP, &action, nullptr);
}

StopKey::~StopKey()
{
    ::sigaction(SIGTSTP, &m_before, nullptr);
    if (std::exchange(stopAsked, 0) != 0)
        ::kill(::getpid(), SIGTSTP);
}

bool StopKey::isPressed() const
{
    return stopAsked != 0;
}

void StopKey::stop()
{
    struct sigaction caught = {};
    stopAsked = 0;
    ::sigaction(SIGTSTP, &m_before, &caught);
    ::kill(::getpid(), SIGTSTP);
    ::sigaction(SIGTSTP, &caught, nullptr);
}

} // namespace micro850::host
