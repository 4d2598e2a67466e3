#include "ChangePrinter.h"
#include "PlainText.h"
#include "Rates.h"
#include "TableDisplay.h"
#include "UserError.h"

#include <memory>
#include <unistd.h>

namespace micro850::host {

namespace {

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

// What is read at the given interval is printed when it comes. What is read faster, or by a
// gateway, is printed at the interval.
Duration printInterval(const RateOptions& rates, const Route& route)
{
    return rates.fast || route.gateway ? rates.givenInterval() : Duration(0);
}

// A terminal that cannot show the table gets lines, as a file does.
bool showsTable(const Output& output)
{
    if (output.json() || isatty(STDOUT_FILENO) != 1)
        return false;
    const QString problem = localeHasUnicode()
                                ? Screen::problem()
                                : QStringLiteral("the locale has no UTF-8 (set LC_ALL=C.UTF-8 if "
                                                 "the terminal shows it)");
    if (!problem.isEmpty())
        output.note(QStringLiteral("no table, a line for each change: ") + problem);
    return problem.isEmpty();
}

int run(PollOptions options)
{
    const Output output(options.output.json, options.output.quiet);
    findProject(options.line);
    const Route route = pollRoute(options, output);
    const Project& project = route.project;
    RunLoop loop(options.line, route);
    std::unique_ptr<LoopView> view;
    if (showsTable(output))
        view = std::make_unique<TableDisplay>(loop, project, output, textOf(options.match),
                                              orderOf(options.sort));
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
    poll.text("PROJECT", options->line.project,
              "Project file (default project.json, or plant.json, in the folder)");
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
        "Keys: h help, Enter looks into an array or a long text, w writes, p pauses, e errors "
        "only,\n/ filters by name, s changes the order, q quits and prints the whole table.\n"
        "Example:\n  micro850-host poll examples/plant.project.json --port /tmp/plc\n"
        "Exit status: 0 every variable was read, 1 at least one was not, 2 usage or "
        "configuration.");
}

} // namespace micro850::host
