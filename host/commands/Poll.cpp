#include "ChangePrinter.h"
#include "Connection.h"
#include "TableView.h"
#include "TraceFile.h"
#include "UserError.h"

#include <memory>
#include <unistd.h>

namespace micro850::host {

namespace {

const std::chrono::milliseconds kTableInterval(100);

struct PollOptions
{
    LineOptions line;
    OutputOptions output;
    double seconds = 0;
    double interval = 0;
    double staleAfter = 0;
    std::string match;
    std::string sort = "project";
};

SortOrder orderOf(const std::string& name)
{
    if (name == "name")
        return SortOrder::Name;
    return name == "age" ? SortOrder::Age : SortOrder::Project;
}

Project pollProject(const PollOptions& options)
{
    Project project = projectOf(options.line);
    requirePort(project, options.line);
    if (options.staleAfter > 0)
        project.staleAfterMs = static_cast<int>(options.staleAfter * 1000);
    QVector<Variable> matching;
    for (const Variable& variable : project.variables) {
        if (matches(variable.name, textOf(options.match)))
            matching.append(variable);
    }
    if (matching.isEmpty()) {
        throw UserError("--match: no variable of " + options.line.project + " matches \"" +
                        options.match + "\" (a part of a name, or a pattern with * and ?)");
    }
    // On a terminal the table shows those that match, and others when the person asks for them.
    return project;
}

/// Shows the poll loop: a table that is drawn anew on a terminal, a line a change elsewhere.
class Display
{
public:
    Display(PollLoop& loop, const Project& project, const Clock& clock, const PollOptions& options,
            const Output& output)
        : m_clock(clock), m_table(loop, project), m_printer(loop, project, m_table, output),
          m_view(m_table, textOf(options.match), orderOf(options.sort)), m_terminal(stdout),
          m_live(m_terminal.isTerminal() && !output.json()),
          m_interval(m_live ? kTableInterval : fromSeconds(options.interval))
    {
        if (m_live)
            m_keyboard = std::make_unique<Keyboard>(STDIN_FILENO);
        else
            m_printer.setMatch(textOf(options.match));
    }

    void update()
    {
        const QList<Key> keys = m_keyboard ? m_keyboard->pressed() : QList<Key>();
        for (const Key& key : keys)
            m_view.handle(key);
        const Duration now = m_clock.now();
        if (now < m_next && keys.isEmpty())
            return;
        m_next = now + m_interval;
        if (m_live) {
            m_terminal.draw(m_view.page(m_terminal.width(), m_terminal.rows(), now));
        } else {
            m_printer.print();
            m_printer.tellStates();
        }
    }

    const LiveTable& table() const { return m_table; }
    bool quits() const { return m_view.quits(); }

    /// Shows what has changed since the last update, or gives the terminal back with the values;
    /// how the line did is the summary's.
    void close()
    {
        m_next = Duration(0);
        if (m_live) {
            const int kHeadingAndPrompt = 2;
            m_terminal.draw(m_view.values(m_terminal.width(), m_terminal.rows() - kHeadingAndPrompt,
                                          m_clock.now()));
        } else {
            update();
        }
        m_terminal.restore();
        m_keyboard.reset();
    }

private:
    const Clock& m_clock;
    LiveTable m_table;
    ChangePrinter m_printer;
    TableView m_view;
    Terminal m_terminal;
    std::unique_ptr<Keyboard> m_keyboard;
    bool m_live;
    Duration m_interval;
    Duration m_next{0};
};

int run(const PollOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    const Project project = pollProject(options);
    TraceFile trace(textOf(options.line.trace));
    Connection connection(options.line, project);
    PollLoop loop(connection.api(), connection.line(), connection.clock(), project);
    loop.exchange().setObserver(trace.observer());
    Display display(loop, project, connection.clock(), options, output);
    Interrupt interrupt;
    const Duration end = fromSeconds(options.seconds);
    const auto over = [&] { return end != Duration(0) && connection.clock().now() >= end; };
    while (!interrupt.requested() && !display.quits() && !over()) {
        loop.step();
        display.update();
    }
    loop.finish();
    display.close();
    summarise(loop, project, display.table(), output, connection.clock().now());
    if (display.table().complete())
        return kExitDone;
    output.error(QStringLiteral("some variables were never read"));
    return kExitRefused;
}

} // namespace

void addPoll(CommandLine& line)
{
    const auto options = std::make_shared<PollOptions>();
    options->line.project = "project.json";
    CommandOptions poll = line.addCommand("poll", "Show the values of a project's variables live",
                                          [options] { return run(*options); });
    poll.text("PROJECT", options->line.project, "Project file (default project.json)");
    poll.text("--match", options->match,
              "Show the variables whose names contain this, or match it with * and ?");
    poll.choice("--sort", options->sort, {"project", "name", "age"},
                "Order of the table: project, name or age");
    poll.number("--seconds", options->seconds, 0.1, 1e9, "End after so many seconds");
    poll.number("--interval", options->interval, 0.0, 1e9,
                "Without a terminal: print changes once in so many seconds");
    poll.number("--stale-after", options->staleAfter, 0.1, 86400.0,
                "Seconds without a good reply that make a value stale (5 unless the project "
                "says)");
    options->line.addTo(poll);
    options->output.addTo(poll);
    poll.footer("On a terminal a table, elsewhere one line a change.\n"
                "Keys: q ends, / types a match, s changes the order, arrows and pages scroll.\n"
                "Example:\n  micro850-host poll examples/plant.project.json --port /tmp/plc\n"
                "Exit status: 0 every variable was read, 1 some never was, 2 usage or "
                "configuration.");
}

} // namespace micro850::host
