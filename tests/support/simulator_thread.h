#ifndef MICRO850_TESTS_SIMULATOR_THREAD_H
#define MICRO850_TESTS_SIMULATOR_THREAD_H

#include "FaultyLine.h"
#include "Port.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <termios.h>
#include <thread>

/// A simulated controller on a pseudo-terminal, served by its own thread, for tests in real time.
/// The host opens it through a symbolic link, which stays the same when the cable is pulled and put
/// back.
class SimulatorThread
{
public:
    SimulatorThread(const std::string& tagFile, std::string link);
    ~SimulatorThread();

    const std::string& path() const { return m_link; }

    /// Runs `action` while the thread does not touch the controller.
    void with(const std::function<void(micro850::sim::Controller&)>& action);
    /// The bytes of one element of a tag.
    micro850::Bytes element(const std::string& tag, std::size_t index = 0);
    /// From now on, the line has these faults: the inside of a fault script's list. Messages are
    /// counted from the beginning.
    void faults(const std::string& rules);
    /// How many faults have struck.
    unsigned strikes();
    /// While silent, the controller ignores everything, as if it had no power.
    void setSilent(bool silent) { m_silent = silent; }
    /// From now on, the controller understands only hosts that have set the terminal to this speed,
    /// like B9600.
    void listenOnlyAt(speed_t speed) { m_speed = speed; }
    void pullCable();
    void putCableBack();

private:
    void serve();
    bool isUnderstood() const;

    micro850::SystemClock m_clock;
    micro850::sim::Controller m_controller;
    micro850::sim::FaultyLine m_line;
    std::string m_link;
    std::mutex m_mutex;
    std::unique_ptr<micro850::sim::Port> m_port;
    std::atomic<bool> m_silent{false};
    std::atomic<speed_t> m_speed{B0}; ///< B0: whatever the speed
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

#endif
