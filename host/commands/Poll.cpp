#include "Connection.h"
#include "LiveTable.h"
#include "Output.h"
#include "Terminal.h"
#include "TraceFile.h"
#include "UserError.h"

#include <QtCore/QTime>

#include <memory>

namespace host {

namespace {

struct PollOptions
{
    LineOptions line;
    OutputOptions output;
    double seconds = 0;
    double interval = 0;
};

/// Shows the poll loop: a table that is drawn anew on a terminal, a line a change elsewhere.
class Display
{
public:
    Display(PollLoop& loop, const Project& project, const Clock& clock, double interval,
            const Output& output)
        : m_loop(loop), m_table(loop, project), m_clock(clock), m_output(output),
          m_terminal(stdout),
          m_intervalMs(m_terminal.isTerminal() ? 100 : static_cast<int>(interval * 1000))
    {
    }

    void update()
    {
        const qint64 now = m_clock.now();
        if (now < m_next)
            return;
        m_next = now + m_intervalMs;
        if (m_terminal.isTerminal()) {
            m_terminal.draw(m_table.lines(m_terminal.width(), m_terminal.rows(), now));
        } else {
            printChanges();
            tellStates();
        }
    }

    const LiveTable& table() const { return m_table; }

    /// Shows what has changed since the last update and gives the terminal back.
    void close()
    {
        m_next = 0;
        update();
        m_terminal.restore();
    }

private:
    // Values that become stale, or good again, change too.
    void printChanges()
    {
        QSet<int> changed = m_loop.values().takeChanged();
        m_qualities.resize(m_loop.values().size());
        for (int i = 0; i < m_qualities.size(); ++i) {
            const Quality quality = m_loop.quality(i);
            if (quality != m_qualities.at(i))
                changed.insert(i);
            m_qualities[i] = quality;
        }
        QList<int> sorted = changed.values();
        std::sort(sorted.begin(), sorted.end());
        const QString time = QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz "));
        for (const int variable : sorted) {
            if (m_loop.values().wasRead(variable) || !m_loop.values().error(variable).isEmpty())
                m_output.data(Json(), time + m_table.changeLine(variable));
        }
    }

    // The state of the line and of the stations, which the table shows.
    void tellStates()
    {
        QStringList states(m_table.lineState());
        for (const Station& station : m_loop.stations())
            states +=
                QStringLiteral("station %1: %2").arg(station.number).arg(stateText(station.state));
        for (int i = 0; i < states.size(); ++i) {
            if (states.at(i) != m_states.value(i))
                m_output.note(states.at(i));
        }
        m_states = states;
    }

    PollLoop& m_loop;
    LiveTable m_table;
    const Clock& m_clock;
    const Output& m_output;
    Terminal m_terminal;
    QVector<Quality> m_qualities;
    QStringList m_states;
    int m_intervalMs;
    qint64 m_next = 0;
};

int run(const PollOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    const Project project = projectOf(options.line);
    requirePort(project, options.line);
    TraceFile trace(textOf(options.line.trace));
    Connection connection(options.line, project);
    PollLoop loop(connection.api(), connection.line(), connection.clock(), project);
    loop.exchange().setObserver(trace.observer());
    Display display(loop, project, connection.clock(), options.interval, output);
    Interrupt interrupt;
    const auto end = static_cast<qint64>(options.seconds * 1000);
    while (!interrupt.requested() && (end == 0 || connection.clock().now() < end)) {
        loop.step();
        display.update();
    }
    loop.finish();
    display.close();
    for (const QString& line : display.table().stationLines(connection.clock().now()))
        output.note(line);
    if (display.table().complete())
        return micro850::kExitDone;
    output.error(QStringLiteral("some variables were never read"));
    return micro850::kExitRefused;
}

} // namespace

Subcommand addPoll(CLI::App& app)
{
    const auto options = std::make_shared<PollOptions>();
    options->line.project = "project.json";
    CLI::App* poll = app.add_subcommand("poll", "Show the values of a project's variables live");
    poll->add_option("PROJECT", options->line.project, "Project file (default project.json)");
    poll->add_option("--seconds", options->seconds, "End after so many seconds")
        ->check(CLI::Range(0.1, 1e9));
    poll->add_option("--interval", options->interval,
                     "Without a terminal: print changes once in so many seconds")
        ->check(CLI::Range(0.0, 1e9));
    options->line.addTo(*poll);
    options->output.addTo(*poll);
    poll->footer("On a terminal a table, elsewhere one line a change.\n"
                 "Example:\n  micro850-host poll examples/plant.project.json --port /tmp/plc\n"
                 "Exit status: 0 every variable was read, 1 some never was, 2 usage or "
                 "configuration.");
    return {poll, [options] { return run(*options); }};
}

} // namespace host
