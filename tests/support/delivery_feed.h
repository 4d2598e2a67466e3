#ifndef MICRO850_TESTS_DELIVERY_FEED_H
#define MICRO850_TESTS_DELIVERY_FEED_H

#include <cstdint>
#include <deque>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/types.h>
#include <utility>

/// Plays the service for one process that delivers values: starts the process, feeds it, and keeps
/// what the process has not committed, so that it can be killed and started again. It never blocks;
/// its owner waits for the descriptor.
class DeliveryFeed
{
public:
    /// What the process is told when it starts. `run` is different for every run of a service.
    struct Opening
    {
        std::string kind;
        nlohmann::json settings;
        nlohmann::json catalogue; ///< {"lines": [...], "variables": [...]}
        std::string run;
    };

    DeliveryFeed(std::string program, Opening opening);
    /// Closes the socket, which ends the process, and waits for it.
    ~DeliveryFeed();
    DeliveryFeed(const DeliveryFeed&) = delete;
    DeliveryFeed& operator=(const DeliveryFeed&) = delete;

    /// Starts the process. Ends the program with a message when that fails.
    void start();
    /// SIGKILL, and waits until it is gone.
    void kill();
    /// Closes the socket; the process says goodbye to the broker and ends.
    void close();
    bool isOpen() const { return m_isOpen; }
    bool hasEnded();
    pid_t process() const { return m_process; }
    int descriptor() const { return m_socket; }
    bool hasOutput() const { return m_sent < m_output.size(); }

    /// Gives a value the next number; flush() sends it. `value` is the text of an object.
    void feed(const std::string& value);
    void flush();
    /// Takes in what came. False when the process is gone.
    bool receive();

    std::int64_t fed() const { return m_fed; }
    std::int64_t kept() const { return m_kept; }
    /// What the process reported last, with "state" and counters.
    const nlohmann::json& status() const { return m_status; }
    /// What it logged, one line each.
    const std::string& log() const { return m_log; }

private:
    void sendLine(const std::string& line);
    void sendOutput();
    void handle(const std::string& line);
    void handleOpened(const nlohmann::json& message);

    const std::string m_program;
    const Opening m_opening;
    pid_t m_process = -1;
    int m_socket = -1;
    bool m_isOpen = false;
    std::string m_input;
    std::string m_output;
    std::size_t m_sent = 0;            ///< of the output
    std::deque<std::string> m_waiting; ///< values above m_kept, in order
    std::size_t m_flushed = 0;         ///< of them
    std::int64_t m_fed = 0;
    std::int64_t m_kept = 0;
    nlohmann::json m_status;
    std::string m_log;
};

#endif
