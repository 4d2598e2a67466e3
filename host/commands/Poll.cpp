#include "ChangePrinter.h"
#include "Rates.h"
#include "TableView.h"
#include "Terminal.h"
#include "UserError.h"

#include <memory>
#include <unistd.h>

namespace micro850::host {

namespace {

// The table is drawn at least so often, and when values changed, but not more often.
const std::chrono::milliseconds kTableInterval(500);
const std::chrono::milliseconds kShortestTableInterval(100);

struct PollOptions
{
    LineOptions line;
    OutputOptions output;
    double seconds = 0;
    RateOptions rates;
    double staleAfter = 0;
    bool raw = false;
    std::string match;
    std::string sort = "project";
};

SortOrder orderOf(const std::string& name)
{
    if (name == "name")
        return SortOrder::Name;
    return name == "age" ? SortOrder::Age : SortOrder::Project;
}

Route pollRoute(const PollOptions& options, const Output& output)
{
    Route route = routeOf(options.line, "poll", output);
    requirePort(route.project, options.line);
    if (options.staleAfter > 0)
        route.project.staleAfterMs = static_cast<int>(options.staleAfter * 1000);
    if (options.raw)
        route.project.showRaw();
    options.rates.applyTo(route.project);
    if (route.gateway)
        options.rates.noteGateway(output);
    route.project = withMatching(route.project, options.match, route.source);
    return route;
}

/// Shows the values as a table on a terminal.
class TableDisplay : public LoopView
{
public:
    TableDisplay(RunLoop& run, const QString& match, SortOrder order)
        : m_values(run.plant().values()), m_view(run.table(), match, order), m_terminal(stdout)
    {
    }

    bool usesKeys() const override { return true; }
    void handle(const Key& key) override
    {
        m_view.handle(key);
        m_next = Duration(0);
    }
    bool quits() const override { return m_view.quits(); }
    void update(Duration now) override
    {
        m_changed = m_changed || !m_values.popChanged().isEmpty();
        if (now < m_next && !(m_changed && now - m_drawn >= kShortestTableInterval))
            return;
        m_next = now + kTableInterval;
        m_drawn = now;
        m_changed = false;
        m_terminal.draw(m_view.page(m_terminal.width(), m_terminal.rows(), now));
    }
    /// Restores the terminal, with the values alone: the summary reports how the line did.
    void close(Duration now) override
    {
        const int kHeadingAndPrompt = 2;
        m_terminal.draw(
            m_view.values(m_terminal.width(), m_terminal.rows() - kHeadingAndPrompt, now));
        m_terminal.restore();
    }

private:
    ValueStore& m_values;
    TableView m_view;
    Terminal m_terminal;
    Duration m_next{0};
    Duration m_drawn{0};
    bool m_changed = false;
};

// What is read at the given interval is printed when it comes. What is read faster, or by a
// gateway, is printed at the interval.
Duration printInterval(const RateOptions& rates, const Route& route)
{
    return rates.fast || route.gateway ? rates.givenInterval() : Duration(0);
}

int run(PollOptions options)
{
    const Output output(options.output.json, options.output.quiet);
    setDefaultProject(options.line);
    const Route route = pollRoute(options, output);
    const Project& project = route.project;
    RunLoop loop(options.line, route);
    std::unique_ptr<LoopView> view;
    if (isatty(STDOUT_FILENO) == 1 && !output.json())
        view = std::make_unique<TableDisplay>(loop, textOf(options.match), orderOf(options.sort));
    else
        view = std::make_unique<ChangePrinter>(loop, project, output,
                                               printInterval(options.rates, route));
    loop.run(*view, options.seconds, output);
    loop.summarise(output);
    if (!loop.table().complete())
        output.error(QStringLiteral("some variables were never read"));
    return loop.exitStatus();
}

} // namespace

void addPoll(CommandLine& line)
{
    const auto options = std::make_shared<PollOptions>();
    CommandOptions poll = line.addCommand("poll", "Show the values of a project's variables live",
                                          [options] { return run(*options); });
    poll.text("PROJECT", options->line.project, "Project file (default project.json)");
    poll.text("--match", options->match,
              "Read only the variables whose names contain this, or match it with * and ?");
    poll.choice("--sort", options->sort, {"project", "name", "age"},
                "Order of the table: project, name or age");
    poll.number("--seconds", options->seconds, 0.1, 1e9, "End after this many seconds");
    options->rates.addTo(poll, kReadIntervalHelp);
    poll.number("--stale-after", options->staleAfter, 0.1, 86400.0,
                "Seconds without a good reply after which a value is stale (default: the "
                "project's, or 5)");
    poll.flag("--raw", options->raw, kRawHelp);
    options->line.addTo(poll);
    options->output.addTo(poll);
    poll.footer(
        "Shows a table on a terminal; elsewhere it prints one line per change.\n"
        "Keys: q quits, / filters by name, s changes the order, arrows and page keys scroll.\n"
        "Example:\n  micro850-host poll examples/plant.project.json --port /tmp/plc\n"
        "Exit status: 0 every variable was read, 1 at least one was not, 2 usage or "
        "configuration.");
}

} // namespace micro850::host
