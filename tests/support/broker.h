#ifndef MICRO850_TESTS_BROKER_H
#define MICRO850_TESTS_BROKER_H

#include "test_port.h"

#include <string>
#include <sys/types.h>

/// Debian's mosquitto on a free port of the loop-back address, in a temporary folder. Its end kills
/// the broker and removes the folder. Functions throw std::runtime_error when it does not start.
class TestBroker
{
public:
    struct Settings
    {
        /// Lines of its configuration. "FOLDER" in them is the temporary folder.
        std::string more = "allow_anonymous true\n";
        /// It keeps sessions, retained messages and what waits for subscribers over a restart: what
        /// it had for a second when it is killed, everything when it is stopped.
        bool isPersistent = false;
        bool startsAtOnce = true;
    };

    TestBroker() : TestBroker(Settings()) {}
    explicit TestBroker(Settings settings);
    ~TestBroker();
    TestBroker(const TestBroker&) = delete;
    TestBroker& operator=(const TestBroker&) = delete;

    /// The same after a restart.
    int port() const { return m_port.number(); }
    const std::string& folder() const { return m_folder; }
    bool isRunning() const { return m_process > 0; }
    pid_t process() const { return m_process; }

    /// Starts it (again) and waits until it listens.
    void start();
    /// Ends it at once.
    void kill();
    /// Ends it in order.
    void stop();
    /// It stands still: its connections stay, nothing is answered.
    void freeze();
    void thaw();
    /// What it logged since the last start.
    std::string log() const;

private:
    void end(int signal);
    void writeConfiguration() const;
    bool isListening() const;

    Settings m_settings;
    std::string m_folder;
    TestPort m_port;
    pid_t m_process = -1;
};

#endif
