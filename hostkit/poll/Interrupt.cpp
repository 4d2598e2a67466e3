#include "Interrupt.h"

#include "UserError.h"

#include <csignal>

namespace micro850::host {

namespace {

const std::array<int, 3> kSignals = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t stopRequested = 0;

void requestStop(int signal)
{
    stopRequested = signal;
}

} // namespace

// A program that was started to ignore a signal, as nohup does, goes on ignoring it.
Interrupt::Interrupt()
{
    stopRequested = 0;
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
        ::sigaction(kSignals[i], nullptr, &m_before[i]);
        if (m_before[i].sa_handler == SIG_IGN)
            continue;
        struct sigaction action = {};
        action.sa_handler = requestStop;
        action.sa_flags = SA_RESTART;
        ::sigaction(kSignals[i], &action, nullptr);
    }
}

Interrupt::~Interrupt()
{
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
