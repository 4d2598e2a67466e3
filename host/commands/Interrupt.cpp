#include "Interrupt.h"

#include "UserError.h"

#include <csignal>

namespace micro850::host {

namespace {

volatile std::sig_atomic_t stopRequested = 0;

void requestStop(int)
{
    stopRequested = 1;
}

} // namespace

Interrupt::Interrupt()
{
    stopRequested = 0;
    std::signal(SIGINT, requestStop);
    std::signal(SIGTERM, requestStop);
    std::signal(SIGHUP, requestStop);
}

Interrupt::~Interrupt()
{
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGHUP, SIG_DFL);
}

bool Interrupt::requested() const
{
    return stopRequested != 0;
}

void Interrupt::throwIfRequested() const
{
    if (requested())
        throw UserError("interrupted", kExitRefused);
}

} // namespace micro850::host
