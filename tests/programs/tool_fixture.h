#ifndef MICRO850_TESTS_TOOL_FIXTURE_H
#define MICRO850_TESTS_TOOL_FIXTURE_H

#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

/// What a program said, and its exit status.
struct Result
{
    int status;
    std::string out;
    std::string err;
};

/// Runs a program to its end. A program that hangs is killed and gives status -1.
Result runProgram(const QString& program, const QStringList& arguments,
                  const QStringList& environment = QStringList(),
                  const QString& directory = QString());

/// The programs in a directory of their own, with a simulated controller once one is started.
class ToolTest : public ::testing::Test
{
protected:
    ToolTest();
    ~ToolTest() override;

    /// Starts micro850-sim with these tags (the inside of a JSON array) and waits for its port.
    void simulate(const std::string& tags, const QStringList& options = QStringList());
    /// The same that most tests use: numbers, an array, a text, a real.
    void simulate();
    /// The example plant.
    void simulatePlant();
    /// Starts micro850-sim to answer from a trace.
    void simulateFrom(const QString& trace);
    /// Starts micro850-sim with so many stations, 1 and up; the tags (the inside of a JSON array)
    /// of each are its own. Station N is at port() + ".N".
    void simulateStations(const std::vector<std::string>& tags);
    void stopSimulator();

    /// Runs micro850-host in the directory; `port` appends the simulator's.
    Result host(const QStringList& arguments) const;
    Result hostOnPort(QStringList arguments) const;
    /// Puts a file into the directory and gives its path.
    QString file(const QString& name, const std::string& text) const;
    QString path(const QString& name) const { return m_dir.filePath(name); }
    QString port() const { return path(QStringLiteral("plc")); }
    std::string textOf(const QString& name) const;

private:
    void startSimulator(const QStringList& arguments);
    bool waitForPort(const QString& link);

    QTemporaryDir m_dir;
    std::unique_ptr<QProcess> m_simulator;
};

/// A terminal at whose other end nobody answers, raw as a serial line is.
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

/// The lines of a text, without the last line's end.
QStringList linesOf(const std::string& text);

#endif
