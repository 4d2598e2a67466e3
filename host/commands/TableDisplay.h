#ifndef MICRO850_HOST_COMMANDS_TABLEDISPLAY_H
#define MICRO850_HOST_COMMANDS_TABLEDISPLAY_H

#include "Output.h"
#include "RunLoop.h"
#include "Screen.h"
#include "TableView.h"

namespace micro850::host {

/// Shows the values as a table on the whole terminal, and writes what the user confirms there.
class TableDisplay : public LoopView
{
public:
    /// The arguments must live longer than this object.
    TableDisplay(RunLoop& run, const Project& project, const Output& output, const QString& match,
                 SortOrder order);

    bool ownsTerminal() const override { return true; }
    bool quits() const override { return m_view.quits(); }
    void update(Duration now) override;
    /// Restores the terminal and prints the whole table: the summary reports how the line did.
    void close(Duration now) override;

private:
    bool handleKeys();
    void draw(Duration now);
    void write(const WriteRequest& request, Duration now);

    RunLoop& m_run;
    const Project& m_project;
    const Output& m_output;
    TableRows m_rows;
    TableView m_view;
    Screen m_screen;
    Duration m_next{0};
};

} // namespace micro850::host

#endif
