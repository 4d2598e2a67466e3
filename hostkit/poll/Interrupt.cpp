#include "Interrupt.h"

#include "UserError.h"

#include <csignal>

namespace micro850::host {

namespace {

const std::array<int, 4> kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

volatile std::sig_atomic_t stopRequested = 0;
int depth = 0; ///< how many live

// Ctrl-C ends a command at most, so it does not replace a signal that ends the program.
void requestStop(int signal)
{
    if (signal != SIGINT || stopRequested == 0)
        stopRequested = signal;
}

} // namespace

// A program that was started to ignore a signal, as nohup does, goes on ignoring it. The second
// Ctrl-\ ends a program that does not end in order. What comes between the line of a shell and
// its command counts for both.
Interrupt::Interrupt()
{
    if (depth++ == 0)
        stopRequested = 0;
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
        ::sigaction(kSignals[i], nullptr, &m_before[i]);
        if (m_before[i].sa_handler == SIG_IGN)
            continue;
        struct sigaction action = {};
        action.sa_handler = requestStop;
        action.sa_flags = SA_RESTART;
        if (kSignals[i] == SIGQUIT)
            action.sa_flags |= static_cast<int>(SA_RESETHAND);
        ::sigaction(kSignals[i], &action, nullptr);
    }
}

Interrupt::~Interrupt()
{
    --depth;
    for (std::size_t i = 0; i < kSignals.size(); ++i)
        ::sigaction(kSignals[i], &m_before[i], nullptr);
}

bool Interrupt::requested() const
{
    return stopRequested != 0;
}

bool Interrupt::isFromKeyboard() const
{
    return stopRequested == SIGINT;
}

void Interrupt::forget() const
{
    stopRequested = 0;
}

void Interrupt::throwIfRequested() const
{
    if (requested())
        throw UserError("interrupted", kExitRefused);
}

} // namespace micro850::host
