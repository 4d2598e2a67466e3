#include "ChildProcess.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <initializer_list>

namespace micro850::gateway {

namespace {

const unsigned kMostSecondsToEnd = 10;

volatile std::sig_atomic_t isGone = 0;

void noteServiceIsGone(int)
{
    isGone = 1;
    limitTimeToEnd();
}

void handle(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    ::sigaction(signal, &action, nullptr);
}

} // namespace

void setChildSignals()
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
        handle(signal, SIG_IGN);
    handle(kEndSignal, noteServiceIsGone);
    ::prctl(PR_SET_PDEATHSIG, kEndSignal);
}

bool serviceIsGone()
{
    return isGone != 0;
}

void limitTimeToEnd()
{
    ::alarm(kMostSecondsToEnd);
}

} // namespace micro850::gateway
