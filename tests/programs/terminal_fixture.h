#ifndef MICRO850_TESTS_TERMINAL_FIXTURE_H
#define MICRO850_TESTS_TERMINAL_FIXTURE_H

#include "program_fixture.h"

#include <QtCore/QRegularExpression>
#include <QtCore/QThread>

#include <functional>

/// A program in a terminal of tmux: the test types keys and reads the screen.
class TerminalTest : public ProgramTest
{
protected:
    ~TerminalTest() override;

    /// Runs a command line of the shell in the test's directory, in a window of this size. `$HOST`
    /// and `$PORT` are the program and the simulator's port. The exit status follows as
    /// "[status N]". A terminal that was open before is closed.
    void open(const QString& command, int width, int rows);
    void type(const QStringList& keys);
    /// The terminal goes away, as when a window is closed.
    void closeTerminal();
    /// Types all of these bytes at once.
    void typeBytes(const QString& bytes);
    void resize(int width, int rows);
    QStringList screen() const;
    /// The screen with the escape sequences of its styles.
    QString styledScreen() const;
    /// Waits until the screen contains the text; false after a limit that only a fault reaches.
    bool sees(const QString& text) const;
    bool seesNo(const QString& text) const;
    /// Waits until the condition holds; false after the same limit.
    static bool holds(const std::function<bool()>& condition);
    /// Waits until styledScreen() matches.
    bool seesStyle(const QRegularExpression& pattern) const;

private:
    Result tmux(const QStringList& arguments) const;

    int m_opened = 0; ///< terminals
};

#endif
