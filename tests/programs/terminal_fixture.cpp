#include "terminal_fixture.h"

#include <QtCore/QElapsedTimer>

namespace {

const int kLimitMs = 60000;

} // namespace

bool TerminalTest::holds(const std::function<bool()>& condition)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > kLimitMs)
            return false;
        QThread::msleep(20);
    }
    return true;
}

TerminalTest::~TerminalTest()
{
    closeTerminal();
}

void TerminalTest::closeTerminal()
{
    tmux({"kill-server"});
}

// The test has its own server; the socket is in the test's directory. Each terminal has its own,
// since one that ends takes no new terminal.
Result TerminalTest::tmux(const QStringList& arguments) const
{
    return runProgram("tmux", QStringList{"-S", path("tmux" + QString::number(m_opened)), "-f", "/dev/null"} + arguments,
                      {"LC_ALL=C.UTF-8"});
}

void TerminalTest::open(const QString& command, int width, int rows)
{
    closeTerminal();
    ++m_opened;
    QString line = command;
    line.replace("$HOST", QStringLiteral(MICRO850_HOST));
    line.replace("$PORT", port());
    const QString script = file(
        "run", (line + "\nstatus=$?\nstty -a | grep -o -- '-\\?icanon'\necho \"[status $status]\"\n"
                       "sleep 600\n")
                   .toStdString());
    const Result result = tmux({"new-session", "-d", "-c", path("."), "-x", QString::number(width),
                                "-y", QString::number(rows), "bash " + script});
    ASSERT_EQ(result.status, 0) << result.err;
}

void TerminalTest::type(const QStringList& keys)
{
    EXPECT_EQ(tmux(QStringList{"send-keys"} + keys).status, 0);
}

void TerminalTest::typeBytes(const QString& bytes)
{
    EXPECT_EQ(tmux({"send-keys", "-l", bytes}).status, 0);
}

void TerminalTest::resize(int width, int rows)
{
    const Result result =
        tmux({"resize-window", "-x", QString::number(width), "-y", QString::number(rows)});
    EXPECT_EQ(result.status, 0) << result.err;
}

QStringList TerminalTest::screen() const
{
    return linesOf(tmux({"capture-pane", "-p"}).out);
}

QString TerminalTest::styledScreen() const
{
    return QString::fromStdString(tmux({"capture-pane", "-p", "-e"}).out);
}

bool TerminalTest::sees(const QString& text) const
{
    const bool seen = holds([&] { return screen().join('\n').contains(text); });
    EXPECT_TRUE(seen) << text.toStdString() << " is not on the screen:\n"
                      << screen().join('\n').toStdString();
    return seen;
}

bool TerminalTest::seesNo(const QString& text) const
{
    const bool gone = holds([&] { return !screen().join('\n').contains(text); });
    EXPECT_TRUE(gone) << text.toStdString() << " stays on the screen:\n"
                      << screen().join('\n').toStdString();
    return gone;
}

bool TerminalTest::seesStyle(const QRegularExpression& pattern) const
{
    const bool seen = holds([&] { return pattern.match(styledScreen()).hasMatch(); });
    EXPECT_TRUE(seen) << pattern.pattern().toStdString() << " is not on the screen:\n"
                      << styledScreen().toStdString();
    return seen;
}
