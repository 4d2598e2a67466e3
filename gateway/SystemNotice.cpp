#include "SystemNotice.h"

#include <systemd/sd-daemon.h>

#include <ctime>

namespace micro850::gateway {

namespace {

// As the manager counts: it compares them with its own.
long long monotonicUs()
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

} // namespace

SystemNotice::SystemNotice()
{
    uint64_t limit = 0;
    if (::sd_watchdog_enabled(0, &limit) > 0)
        m_patEveryUs = static_cast<long long>(limit / 3);
}

void SystemNotice::ready()
{
    ::sd_notify(0, "READY=1");
}

void SystemNotice::reloading()
{
    ::sd_notifyf(0, "RELOADING=1\nMONOTONIC_USEC=%lld", monotonicUs());
}

void SystemNotice::stopping()
{
    ::sd_notify(0, "STOPPING=1");
}

void SystemNotice::tellStatus(const QString& status)
{
    if (status == m_status)
        return;
    m_status = status;
    ::sd_notifyf(0, "STATUS=%s", status.toUtf8().constData());
}

void SystemNotice::pat()
{
    const long long now = monotonicUs();
    if (m_patEveryUs == 0 || now - m_lastPatUs < m_patEveryUs)
        return;
    m_lastPatUs = now;
    ::sd_notify(0, "WATCHDOG=1");
}

} // namespace micro850::gateway
