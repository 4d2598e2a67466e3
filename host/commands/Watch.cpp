#include "ChangePrinter.h"
#include "Connection.h"
#include "Plot.h"
#include "TraceFile.h"
#include "UserError.h"

#include <cmath>
#include <limits>
#include <memory>
#include <unistd.h>

namespace micro850::host {

namespace {

const int kMostPlots = 4;
const std::chrono::milliseconds kPlotInterval(100);

struct WatchOptions
{
    LineOptions line;
    OutputOptions output;
    int station = -1;
    double seconds = 0;
    double span = 60;
    bool plot = false;
    std::vector<std::string> tags;
};

// The project with the variables that are watched, and no others.
Project watchProject(const WatchOptions& options)
{
    Project project = projectOf(options.line);
    QVector<Variable> watched;
    QVector<Target> targets;
    for (const std::string& text : options.tags) {
        const TagAddress address = TagAddress::fromText(textOf(text));
        const Target target = targetOf(address, project, options.station);
        Variable variable;
        if (const Variable* named = project.variable(address.tag))
            variable = *named;
        variable.poll = PollMode::Cyclic;
        variable.name = address.text();
        variable.tag = target.tag.name;
        variable.station = target.tag.station;
        variable.element = target.address.element;
        variable.length = target.address.elements;
        watched.append(variable);
        targets.append(target);
    }
    project = withoutVariables(project, targets);
    project.variables = watched;
    return project;
}

void requirePlottable(const WatchOptions& options)
{
    if (!options.plot)
        return;
    if (isatty(STDOUT_FILENO) != 1 || options.output.json)
        throw UserError("--plot needs a terminal (leave it out for a line a change)");
    if (options.tags.size() > kMostPlots) {
        throw UserError("--plot shows at most " + std::to_string(kMostPlots) +
                        " variables (leave some out)");
    }
}

/// The charts of the variables, one above the other.
class Charts
{
public:
    Charts(const PollLoop& loop, const Project& project, Duration span)
        : m_loop(loop), m_project(project), m_plots(project.variables.size(), Plot(span)),
          m_span(span)
    {
    }

    void sample(Duration now)
    {
        for (int i = 0; i < m_plots.size(); ++i) {
            const bool good = m_loop.quality(i) == Quality::Good;
            m_plots[i].add(now, good ? m_loop.values().number(i)
                                     : std::numeric_limits<double>::quiet_NaN());
        }
    }

    Page page(int width, int rows, Duration now, const QString& line) const
    {
        const int height = std::max(1, (rows - 1) / m_plots.size() - 1);
        Page page;
        for (int i = 0; i < m_plots.size(); ++i) {
            page.append({cut(title(i, now), width), Style::Heading});
            for (const QString& text : m_plots.at(i).lines(width, height, now))
                page.append({text, Style::Plain});
        }
        const QString footer =
            QStringLiteral("%1 s   q quit   %2").arg(m_span / std::chrono::seconds(1)).arg(line);
        page.append({cut(footer, width), Style::Faint});
        while (page.size() > std::max(1, rows))
            page.removeFirst();
        return page;
    }

private:
    QString title(int variable, Duration now) const
    {
        const ValueStore& values = m_loop.values();
        QString title = m_project.variables.at(variable).name;
        if (values.wasRead(variable))
            title += QStringLiteral(" = ") + values.text(variable);
        if (m_loop.quality(variable) != Quality::Good)
            title += QStringLiteral(" (%1)").arg(qualityText(m_loop.quality(variable)));
        if (!values.error(variable).isEmpty())
            return title + QStringLiteral(": ") + values.error(variable);
        if (values.wasRead(variable) && std::isnan(values.number(variable)))
            return title + QStringLiteral(": not a number");
        return title + QStringLiteral("   ") + m_plots.at(variable).range(now);
    }

    const PollLoop& m_loop;
    const Project& m_project;
    QVector<Plot> m_plots;
    Duration m_span;
};

/// Draws the charts until the person or the time ends it.
class PlotDisplay
{
public:
    PlotDisplay(const PollLoop& loop, const Project& project, const LiveTable& table, double span)
        : m_table(table), m_charts(loop, project, fromSeconds(span)), m_terminal(stdout),
          m_keyboard(STDIN_FILENO)
    {
    }
    ~PlotDisplay() { m_terminal.restore(); }

    /// False once the person has asked to end.
    bool update(Duration now)
    {
        m_charts.sample(now);
        for (const Key& key : m_keyboard.pressed()) {
            if (key.code == Key::Code::Character && (key.character == 'q' || key.character == 'Q'))
                return false;
        }
        if (now < m_next)
            return true;
        m_next = now + kPlotInterval;
        m_terminal.draw(
            m_charts.page(m_terminal.width(), m_terminal.rows(), now, m_table.lineState()));
        return true;
    }

private:
    const LiveTable& m_table;
    Charts m_charts;
    Terminal m_terminal;
    Keyboard m_keyboard;
    Duration m_next{0};
};

int run(const WatchOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    requirePlottable(options);
    const Project project = watchProject(options);
    requirePort(project, options.line);
    TraceFile trace(textOf(options.line.trace));
    Connection connection(options.line, project);
    PollLoop loop(connection.api(), connection.line(), connection.clock(), project);
    loop.exchange().setObserver(trace.observer());
    const LiveTable table(loop, project);
    ChangePrinter printer(loop, project, table, output);
    std::unique_ptr<PlotDisplay> plot;
    if (options.plot)
        plot = std::make_unique<PlotDisplay>(loop, project, table, options.span);
    Interrupt interrupt;
    const Duration end = fromSeconds(options.seconds);
    const auto over = [&] { return end != Duration(0) && connection.clock().now() >= end; };
    for (bool wanted = true; wanted && !interrupt.requested() && !over();) {
        loop.step();
        if (plot) {
            wanted = plot->update(connection.clock().now());
        } else {
            printer.print();
            printer.tellStates();
        }
    }
    loop.finish();
    plot.reset();
    summarise(loop, project, table, output, connection.clock().now());
    return table.complete() ? kExitDone : kExitRefused;
}

} // namespace

void addWatch(CommandLine& line)
{
    const auto options = std::make_shared<WatchOptions>();
    CommandOptions watch = line.addCommand("watch", "Print a line for each change of some tags",
                                           [options] { return run(*options); });
    watch.requiredTexts("TAG", options->tags, "TAG, TAG[INDEX] or TAG[FIRST..LAST]");
    watch.flag("--plot", options->plot, "Draw rolling charts of up to four numbers instead");
    watch.number("--span", options->span, 1.0, 86400.0, "Seconds that a chart shows (default 60)");
    watch.number("--seconds", options->seconds, 0.1, 1e9, "End after so many seconds");
    watch.text("--project", options->line.project,
               "Project file: its port, and its variables by their names");
    watch.integer("--station", options->station, 0, 65535, "Station number (default 1)");
    options->line.addTo(watch);
    options->output.addTo(watch);
    watch.footer("Example:\n  micro850-host watch Temperature 'Level[3]' --plot --port /tmp/plc\n"
                 "Exit status: 0 every tag was read, 1 some never was, 2 usage or configuration.");
}

} // namespace micro850::host
