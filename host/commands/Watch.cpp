#include "ChangePrinter.h"
#include "Plot.h"
#include "Rates.h"
#include "Targets.h"
#include "Terminal.h"
#include "UserError.h"
#include "Visible.h"

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
    TargetOptions target;
    double seconds = 0;
    RateOptions rates;
    double span = 60;
    bool plot = false;
    std::vector<std::string> tags;
};

// The project with only the variables that are watched.
Project watchProject(const WatchOptions& options, const Project& project)
{
    QVector<Variable> watched;
    QVector<Target> targets;
    for (const std::string& text : options.tags) {
        const Target target = targetOf(addressOf(textOf(text), project), project, options.target);
        Variable variable;
        if (target.variable)
            variable = *target.variable;
        variable.poll = PollMode::Cyclic;
        variable.name = target.address.exactText();
        variable.label = target.address.text();
        variable.tag = target.tag.name;
        variable.station = target.tag.station;
        variable.element = target.element;
        variable.length = target.elements();
        watched.append(variable);
        targets.append(target);
    }
    Project watching = withoutVariables(project, targets);
    watching.variables = watched;
    if (options.target.raw)
        watching.showRaw();
    return watching;
}

void requirePlottable(const WatchOptions& options)
{
    if (!options.plot)
        return;
    if (isatty(STDOUT_FILENO) != 1 || options.output.json)
        throw UserError("--plot needs a terminal (without it, each change is one line)");
    if (options.tags.size() > kMostPlots) {
        throw UserError("--plot shows at most " + std::to_string(kMostPlots) +
                        " variables (leave some out)");
    }
}

/// The charts of the variables, one above the other.
class Charts
{
public:
    Charts(const Plant& plant, const Project& project, Duration span)
        : m_plant(plant), m_project(project), m_plots(project.variables.size(), Plot(span)),
          m_span(span)
    {
    }

    void sample(Duration now)
    {
        for (int i = 0; i < m_plots.size(); ++i) {
            const bool good = m_plant.quality(i) == Quality::Good;
            m_plots[i].add(now, good ? m_plant.values().number(i)
                                     : std::numeric_limits<double>::quiet_NaN());
        }
    }

    Page page(int width, int rows, Duration now, const QString& line) const
    {
        const int height = std::max(1, (rows - 1) / m_plots.size() - 1);
        Page page;
        for (int i = 0; i < m_plots.size(); ++i) {
            page.append({cut(visible(title(i, now)), width), Style::Heading});
            for (const QString& text : m_plots.at(i).lines(width, height, now))
                page.append({text, Style::Plain});
        }
        const QString footer =
            QStringLiteral("%1 s   q quit   %2").arg(m_span / std::chrono::seconds(1)).arg(line);
        page.append({cut(visible(footer), width), Style::Faint});
        while (page.size() > std::max(1, rows))
            page.removeFirst();
        return page;
    }

private:
    QString title(int variable, Duration now) const
    {
        const ValueStore& values = m_plant.values();
        QString title = m_project.variables.at(variable).shownName();
        if (values.wasRead(variable))
            title += QStringLiteral(" = ") + values.text(variable);
        if (m_plant.quality(variable) != Quality::Good)
            title += QStringLiteral(" (%1)").arg(qualityText(m_plant.quality(variable)));
        if (!values.error(variable).isEmpty())
            return title + QStringLiteral(": ") + values.error(variable);
        if (values.wasRead(variable) && std::isnan(values.number(variable)))
            return title + QStringLiteral(": not a number");
        return title + QStringLiteral("   ") + m_plots.at(variable).range(now);
    }

    const Plant& m_plant;
    const Project& m_project;
    QVector<Plot> m_plots;
    Duration m_span;
};

/// Shows the charts on a terminal.
class PlotDisplay : public LoopView
{
public:
    PlotDisplay(RunLoop& run, const Project& project, double span)
        : m_table(run.table()), m_charts(run.plant(), project, fromSeconds(span)),
          m_terminal(stdout)
    {
    }

    bool usesKeys() const override { return true; }
    void handle(const Key& key) override
    {
        const bool isCharacter = key.code == Key::Code::Character;
        m_quits = m_quits || (isCharacter && (key.character == 'q' || key.character == 'Q'));
    }
    bool quits() const override { return m_quits; }
    void update(Duration now) override
    {
        m_charts.sample(now);
        if (now < m_next)
            return;
        m_next = now + kPlotInterval;
        m_terminal.draw(
            m_charts.page(m_terminal.width(), m_terminal.rows(), now, m_table.lineState()));
    }
    void close(Duration) override { m_terminal.restore(); }

private:
    const LiveTable& m_table;
    Charts m_charts;
    Terminal m_terminal;
    Duration m_next{0};
    bool m_quits = false;
};

int run(const WatchOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    requirePlottable(options);
    const auto names = [&options](const Project& all) { return variablesNamed(options.tags, all); };
    Route route = routeOf(options.line, "watch", output, {names, options.tags});
    route.project = watchProject(options, route.project);
    options.rates.applyTo(route.project);
    if (route.gateway)
        options.rates.noteGateway(output);
    const Project& project = route.project;
    requirePort(project, options.line);
    RunLoop loop(options.line, route);
    std::unique_ptr<LoopView> view;
    if (options.plot)
        view = std::make_unique<PlotDisplay>(loop, project, options.span);
    else
        view = std::make_unique<ChangePrinter>(loop, project, output);
    loop.run(*view, options.seconds, output);
    loop.summarise(output);
    return loop.exitStatus();
}

} // namespace

void addWatch(CommandLine& line)
{
    const auto options = std::make_shared<WatchOptions>();
    CommandOptions watch =
        line.addCommand("watch", "Print a line for each change of the given tags",
                        [options] { return run(*options); });
    watch.requiredTexts("TAG", options->tags, "TAG, TAG[INDEX] or TAG[FIRST..LAST]");
    watch.flag("--plot", options->plot, "Draw rolling charts of up to four numbers instead");
    watch.number("--span", options->span, 1.0, 86400.0, "Seconds that a chart shows (default 60)");
    watch.number("--seconds", options->seconds, 0.1, 1e9, "End after this many seconds");
    options->rates.addTo(watch, kReadIntervalHelp);
    options->target.addTo(watch, options->line);
    options->line.addTo(watch);
    options->output.addTo(watch);
    watch.footer(
        std::string(kNamesHelp) +
        "Example:\n  micro850-host watch Temperature 'Level[3]' --plot --port /tmp/plc\n"
        "Exit status: 0 every tag was read, 1 at least one was not, 2 usage or configuration.");
}

} // namespace micro850::host
