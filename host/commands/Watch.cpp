#include "ChangePrinter.h"
#include "PlainText.h"
#include "PlotDisplay.h"
#include "Rates.h"
#include "SharedLine.h"
#include "Targets.h"
#include "UserError.h"

#include <memory>
#include <unistd.h>

namespace micro850::host {

namespace {

struct WatchOptions
{
    LineOptions line;
    OutputOptions output;
    TargetOptions target;
    double seconds = 0;
    RateOptions rates;
    double span = 60;
    bool plot = false;
    bool fromZero = false;
    std::vector<std::string> tags;
};

// The project with only the variables that are watched.
Project watchProject(const WatchOptions& options, const Project& project)
{
    QVector<Variable> watched;
    QVector<Target> targets;
    for (const std::string& text : options.tags) {
        const Target target = targetOf(addressOf(textOf(text), project), project, options.target);
        target.requireWholeElements();
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

// For each tag, what stands behind the reason when the controller does not know it.
QStringList hintsFor(const WatchOptions& options, const Project& project)
{
    QStringList hints;
    for (const std::string& tag : options.tags)
        hints +=
            hintFor(targetOf(addressOf(textOf(tag), project), project, options.target), project);
    return hints;
}

void requirePlottable(const WatchOptions& options)
{
    if (!options.plot)
        return;
    if (isatty(STDOUT_FILENO) != 1 || options.output.json)
        throw UserError("--plot needs a terminal (without it, each change is one line)");
}

// Each element that is drawn, in the order of the tags.
QVector<PlotElement> plotElements(const WatchOptions& options, const Project& project)
{
    QVector<PlotElement> elements;
    for (std::size_t i = 0; i < options.tags.size(); ++i) {
        const TagAddress address =
            targetOf(addressOf(textOf(options.tags.at(i)), project), project, options.target)
                .address;
        for (int index = 0; index < address.elements; ++index) {
            if (elements.size() == kMostSeries) {
                throw UserError(
                    "--plot shows at most " + std::to_string(kMostSeries) + " elements, and with " +
                    options.tags.at(i) +
                    " there are more (leave some out, or name a part of an array: " + "TAG[0..3])");
            }
            elements.append({static_cast<int>(i), index, address.elementName(index)});
        }
    }
    return elements;
}

// A terminal that cannot show charts gets lines, as a file does.
bool showsPlot(const WatchOptions& options, const Output& output)
{
    if (!options.plot)
        return false;
    const QString problem = Screen::problem();
    if (!problem.isEmpty())
        output.note(QStringLiteral("no charts, a line for each change: ") + problem);
    return problem.isEmpty();
}

std::unique_ptr<LoopView> printer(RunLoop& loop, const Project& project, const Output& output,
                                  const QStringList& hints)
{
    auto printer = std::make_unique<ChangePrinter>(loop, project, output);
    printer->setHints(hints);
    return printer;
}

int run(WatchOptions options)
{
    const Output output(options.output.json, options.output.quiet);
    findProjectForPort(options.line);
    requirePlottable(options);
    const auto names = [&options](const Project& all) { return variablesNamed(options.tags, all); };
    Route route = routeOf(options.line, "watch", output, {names, options.tags});
    const QVector<PlotElement> elements =
        options.plot ? plotElements(options, route.project) : QVector<PlotElement>();
    const QStringList hints = hintsFor(options, route.project);
    route.project = watchProject(options, route.project);
    options.rates.applyTo(route.project);
    if (route.gateway)
        options.rates.noteGateway(output);
    const Project& project = route.project;
    requirePort(project, options.line);
    if (SharedLine* const shared = SharedLine::current();
        shared && !options.plot &&
        shared->watchInBackground(
            {project, route.gateway, options.tags, hints, output.json(), options.seconds}))
        return kExitDone;
    RunLoop loop(options.line, route);
    std::unique_ptr<LoopView> view;
    const PlotStyle style = {fromSeconds(options.span), options.fromZero, localeHasUnicode()};
    if (showsPlot(options, output))
        view = std::make_unique<PlotDisplay>(loop, project, elements, style);
    else
        view = printer(loop, project, output, hints);
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
    watch.flag("--plot", options->plot,
               "Draw rolling charts of up to eight numbers instead, one for each unit");
    watch.flag("--from-zero", options->fromZero, "Let the value axis of charts include 0");
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
