#ifndef MICRO850_TESTS_GATEWAY_PROCESS_H
#define MICRO850_TESTS_GATEWAY_PROCESS_H

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

/// What a process uses.
struct Usage
{
    double seconds = 0;      ///< of a processor, so far
    double resident = 0;     ///< bytes
    double proportional = 0; ///< bytes; those that several processes share are divided among them
};
/// Of a process that runs.
Usage usageOf(pid_t process);

/// A gateway in a temporary folder, for programs that are no tests of the unit framework. They end
/// with a message when it does not start. Its end ends the gateway and removes the folder.
class GatewayProcess
{
public:
    /// The lines' names and projects.
    using Lines = std::vector<std::pair<std::string, nlohmann::json>>;

    /// `more` has further keys of the configuration. "FOLDER/" at the begin of a text in it is the
    /// temporary folder.
    GatewayProcess(const std::string& program, const Lines& lines,
                   nlohmann::json more = nlohmann::json::object());
    ~GatewayProcess();
    GatewayProcess(const GatewayProcess&) = delete;
    GatewayProcess& operator=(const GatewayProcess&) = delete;

    const std::string& folder() const { return m_folder; }
    std::string socket() const { return m_folder + "/gateway.sock"; }
    /// Of the gateway, then of each of its workers.
    std::vector<Usage> usages() const;

private:
    void write(const std::string& name, const nlohmann::json& content) const;
    void start(const std::string& program);

    std::string m_folder;
    pid_t m_process = -1;
};

/// A client of a gateway. It never blocks but to connect.
class GatewayReader
{
public:
    explicit GatewayReader(const std::string& socket);
    ~GatewayReader();
    GatewayReader(const GatewayReader&) = delete;
    GatewayReader& operator=(const GatewayReader&) = delete;

    int descriptor() const { return m_socket; }
    void send(const std::string& request);
    /// Calls `handle` with each whole line that has come. False once the gateway has let it go.
    bool receive(const std::function<void(const std::string&)>& handle);

private:
    int m_socket;
    std::string m_text;
};

#endif
