#ifndef MICRO850_TESTS_DEVICE_SERVER_H
#define MICRO850_TESTS_DEVICE_SERVER_H

#include "test_port.h"

#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>

#include <memory>
#include <ostream>

/// A device server, ser2net, that runs in front of a serial device on a port of the loopback
/// address. The port is one of its own for as long as the object lives, also while the server is
/// stopped.
class DeviceServer
{
public:
    enum class Protocol { Raw, Rfc2217 };

    struct Settings
    {
        Protocol protocol = Protocol::Raw;
        QString device; ///< opened for each client; it need not be there yet
        int baud = 38400;
        /// A client that comes while another one is served takes its place; else it is refused.
        bool newClientReplacesOld = false;
    };

    explicit DeviceServer(const Settings& settings);
    ~DeviceServer();
    DeviceServer(const DeviceServer&) = delete;
    DeviceServer& operator=(const DeviceServer&) = delete;

    /// What a host gives as its port: tcp://127.0.0.1:21000 or rfc2217://127.0.0.1:21000.
    QString address() const;
    int port() const { return m_port.number(); }
    bool isRunning() const { return m_process != nullptr; }
    /// Starts the server and waits until it listens. False with a failed check if it does not.
    bool start();
    /// Ends the server and its connections.
    void stop();
    /// Ends it with SIGKILL.
    void kill();
    /// Lets the server stand still, or go on.
    void stall();
    void resume();

private:
    void signal(int number);
    bool listens() const;

    Settings m_settings;
    QTemporaryDir m_dir;
    TestPort m_port;
    std::unique_ptr<QProcess> m_process;
};

/// For the names of tests.
void PrintTo(DeviceServer::Protocol protocol, std::ostream* out);

/// The protocol that the whole run of the tests is to use, from the environment variable
/// MICRO850_TEST_LINE (tcp or rfc2217); null for lines without a server.
std::unique_ptr<DeviceServer::Protocol> protocolOfTheRun();

#endif
