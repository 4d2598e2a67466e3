#ifndef MICRO850_TESTS_PROGRAM_FIXTURE_H
#define MICRO850_TESTS_PROGRAM_FIXTURE_H

#include "device_server.h"

#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

/// The output of a program and its exit status.
struct Result
{
    int status;
    std::string out;
    std::string err;
};

/// Runs a program until it ends. A program that hangs is killed; its status is -1.
Result runProgram(const QString& program, const QStringList& arguments,
                  const QStringList& environment = QStringList(),
                  const QString& directory = QString());

/// What a simulator answers to a command `status`.
QString statusOf(QProcess& simulator, const QByteArray& command);

/// Runs the programs in a temporary directory, with a simulated controller when a test starts one.
/// In a run with MICRO850_TEST_LINE, a device server is between host and controller.
class ProgramTest : public ::testing::Test
{
protected:
    ProgramTest();
    ~ProgramTest() override;

    /// Starts micro850-sim with these tags (the inside of a JSON array) and waits for its port.
    void simulate(const std::string& tags, const QStringList& options = QStringList());
    /// The same with the tags that most tests use: numbers, an array, a text, a real.
    void simulate();
    /// The example plant.
    void simulatePlant();
    /// Starts micro850-sim to answer from a trace.
    void simulateFrom(const QString& trace);
    /// Starts micro850-sim with one station, 1 and up, for each list of tags (the inside of a JSON
    /// array). Station N is at port(N).
    void simulateStations(const std::vector<std::string>& tags);
    void stopSimulator();
    void signalSimulator(int signal) const;
    /// Gives the simulator a command that it does not answer.
    void commandSimulator(const QByteArray& command) const;
    /// What the simulator answers to the command `status`. Without a station: that of the only
    /// controller.
    QString simulatorStatus(int station = 0);

    /// Runs micro850-host in the directory; hostOnPort() appends the simulator's port.
    Result host(const QStringList& arguments) const;
    Result hostOnPort(QStringList arguments) const;
    /// Writes a file into the directory and returns its path.
    QString file(const QString& name, const std::string& text) const;
    QString path(const QString& name) const { return m_dir.filePath(name); }
    /// What a host gives as its port, and how its messages name the line. Without a station: that
    /// of the only controller.
    QString port(int station = 0) const;
    QString lineText() const;
    /// The path of the pseudo-terminal.
    QString device(int station = 0) const;
    /// The device server of the only controller; null for a line without one.
    DeviceServer* server() const;
    std::string textOf(const QString& name) const;

private:
    void startSimulator(const QStringList& arguments);
    bool waitForDevice(int station);
    void serve(int station);

    QTemporaryDir m_dir;
    std::map<int, std::unique_ptr<DeviceServer>> m_servers; ///< by station
    std::unique_ptr<QProcess> m_simulator;
};

/// A terminal without anyone at its other end, raw as a serial line is.
class SilentPort
{
public:
    SilentPort();
    ~SilentPort();
    SilentPort(const SilentPort&) = delete;
    SilentPort& operator=(const SilentPort&) = delete;
    QString path() const { return m_path; }

private:
    int m_master;
    QString m_path;
};

/// The lines of a text; the line end at the end of the text is ignored.
QStringList linesOf(const std::string& text);

#endif
