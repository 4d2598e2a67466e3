#ifndef MICRO850_TESTS_GATEWAY_FIXTURE_H
#define MICRO850_TESTS_GATEWAY_FIXTURE_H

#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// No test waits longer for anything.
const int kGatewayLimitMs = 60000;

/// Waits until the condition holds, and looks many times a second. False after kGatewayLimitMs.
bool waitUntil(const std::function<bool()>& condition);

/// A client of the gateway that shares no code with it.
class GatewayClient
{
public:
    using Json = nlohmann::json;

    /// Connects, and takes the greeting.
    explicit GatewayClient(const QString& socket);
    ~GatewayClient();
    GatewayClient(const GatewayClient&) = delete;
    GatewayClient& operator=(const GatewayClient&) = delete;

    bool isConnected() const { return m_socket >= 0; }
    const Json& greeting() const { return m_greeting; }
    int descriptor() const { return m_socket; }

    void sendBytes(const std::string& bytes);
    /// Sends a request with an id of its own, and returns the id.
    int send(Json request);
    /// The reply to the request with this id; of one in several parts the last, with the lists of
    /// all. A null value when none comes.
    Json reply(int id);
    Json request(const Json& request) { return reply(send(request)); }
    /// The next message that is wanted; others that came before are kept. A null value when none
    /// comes.
    Json message(const std::function<bool(const Json&)>& wanted);
    /// Waits for an event with a value of this variable that is wanted, and takes the value.
    Json value(const std::string& name, const std::function<bool(const Json&)>& wanted);
    /// How many of the messages that came, and were not taken, are such.
    int waiting(const std::function<bool(const Json&)>& wanted) const
    {
        return static_cast<int>(std::count_if(m_messages.begin(), m_messages.end(), wanted));
    }
    /// True once the gateway has closed the connection.
    bool waitForClose();

private:
    bool receive(int limitMs);
    std::size_t find(const std::function<bool(const Json&)>& wanted);
    Json take(std::size_t at);

    int m_socket = -1;
    int m_lastId = 0;
    std::string m_bytes;
    std::deque<Json> m_messages;
    Json m_greeting;
};

/// Starts simulated controllers, each with a line, and a gateway that owns the lines, in a
/// temporary directory.
class GatewayTest : public ::testing::Test
{
protected:
    GatewayTest();
    ~GatewayTest() override;

    /// Adds a line to the configuration and starts its controller. `tags` and `variables` are the
    /// insides of the arrays in the tag file and the project file; `keys` are further keys of the
    /// project file, each with a comma at its end.
    void addLine(const QString& name, const std::string& tags, const std::string& variables,
                 const std::string& keys = std::string());
    /// Adds a line without a controller; see startSimulator().
    void addLineOnly(const QString& name, const std::string& tags, const std::string& variables,
                     const std::string& keys = std::string());
    /// Writes the project file of a line anew.
    void changeProject(const QString& name, const std::string& variables,
                       const std::string& keys = std::string());
    void removeLine(const QString& name);
    /// Keys of the configuration besides "lines" and "socket", each with a comma at its end.
    void setConfigurationKeys(const std::string& keys) { m_keys = keys; }

    void startSimulator(const QString& name, const QStringList& options = QStringList());
    void signalSimulator(const QString& name, int signal) const;
    /// Ends it with SIGKILL. Its device is gone then.
    void killSimulator(const QString& name);
    /// What it answers to the command `status`.
    QString simulatorStatus(const QString& name);
    /// The path of its pseudo-terminal.
    QString device(const QString& name) const;

    /// Writes the configuration and returns its path.
    QString configure();
    /// Writes the configuration, starts the gateway, and waits until it serves. `environment` are
    /// further variables, NAME=VALUE.
    void startGateway(const QStringList& environment = QStringList());
    bool gatewayRuns() const;
    void signalGateway(int signal) const;
    /// Ends it with SIGTERM and returns its exit status; -1 when a signal ended it.
    int stopGateway();
    /// Ends it with SIGKILL.
    void killGateway();
    /// SIGHUP, with the files as they are now; waits until the gateway has reported its end.
    void reloadGateway();
    /// What the gateway wrote to standard error so far.
    QString log();
    /// Waits until the log holds the text so many times.
    bool waitForLog(const QString& text, int times = 1);

    qint64 gatewayPid() const;
    /// The processes of its workers.
    std::vector<qint64> workers() const;
    /// The worker that has the line open; waits for it. 0 when there is none.
    qint64 workerOf(const QString& name) const;

    QString socketPath() const { return path(QStringLiteral("gateway.sock")); }
    std::unique_ptr<GatewayClient> connect() const;

    QString path(const QString& name) const { return m_dir.filePath(name); }
    /// Writes a file into the directory and returns its path.
    QString file(const QString& name, const std::string& text) const;

private:
    struct Line
    {
        QString name;
        std::unique_ptr<QProcess> simulator;
    };
    Line* lineNamed(const QString& name);
    void endSimulator(Line& line) const;

    QTemporaryDir m_dir;
    std::vector<std::unique_ptr<Line>> m_lines;
    std::string m_keys;
    std::unique_ptr<QProcess> m_gateway;
    QString m_log;
};

#endif
