#ifndef MICRO850_HOST_COMMANDS_BACKGROUNDWATCH_H
#define MICRO850_HOST_COMMANDS_BACKGROUNDWATCH_H

#include "ChangePrinter.h"
#include "ShellLine.h"

namespace micro850::host {

/// A watch that goes on while a shell takes commands.
class BackgroundWatch
{
public:
    /// `prepare` is called before each line that it prints.
    BackgroundWatch(int number, WatchOrder order, ShellLine& shell, std::function<void()> prepare);

    int number() const { return m_number; }
    /// The tags, as the user named them.
    QString title() const;
    /// What its options say that it lasts is over.
    bool isOver() const { return m_end > Duration(0) && m_shell.clock().now() >= m_end; }
    /// Lets something happen, unless the shell's line has done that for all watches.
    void step();
    /// Prints what changed.
    void print();
    /// Between these two it leaves the line alone. Without a pause, to resume does nothing.
    void pause();
    void resume();

private:
    const int m_number;
    const WatchOrder m_order;
    ShellLine& m_shell;
    const Output m_output;
    Duration m_end{0};
    std::unique_ptr<Plant> m_plant; ///< these three are null during a pause
    std::unique_ptr<LiveTable> m_table;
    std::unique_ptr<ChangePrinter> m_printer;
};

} // namespace micro850::host

#endif
