#include "fixed_time_of_day.h"

#include <dlfcn.h>

#include <cstdlib>

namespace {

bool stopped = false;
QTime shown;

} // namespace

QTime QTime::currentTime()
{
    typedef QTime (*Clock)();
    static const Clock real = reinterpret_cast<Clock>(dlsym(RTLD_NEXT, "_ZN5QTime11currentTimeEv"));
    if (stopped)
        return shown;
    if (!real)
        std::abort();
    return real();
}

FixedTimeOfDay::FixedTimeOfDay(const QTime& time)
{
    set(time);
}

FixedTimeOfDay::~FixedTimeOfDay()
{
    stopped = false;
}

void FixedTimeOfDay::set(const QTime& time)
{
    stopped = true;
    shown = time;
}

void FixedTimeOfDay::setSeconds(int secondsOfDay)
{
    set(QTime(0, 0, 0).addSecs(secondsOfDay));
}
