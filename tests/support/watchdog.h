#ifndef MICRO850_TESTS_WATCHDOG_H
#define MICRO850_TESTS_WATCHDOG_H

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

/// Aborts the program when the watchdog lives longer than the limit, so that a deadlock fails the
/// test.
class Watchdog
{
public:
    explicit Watchdog(std::chrono::seconds limit) : m_done(false), m_thread([=] { watch(limit); })
    {
    }

    ~Watchdog()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_done = true;
        }
        m_wake.notify_one();
        m_thread.join();
    }

    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void watch(std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_wake.wait_for(lock, limit, [this] { return m_done; }))
            return;
        std::fprintf(stderr, "watchdog: not finished within the limit (a deadlock?)\n");
        std::abort();
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_done;
    std::thread m_thread;
};

#endif
