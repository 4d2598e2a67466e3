#include "Access.h"
#include "Targets.h"
#include "UserError.h"
#include "ValueStore.h"

#include <memory>

namespace micro850::host {

namespace {

struct CheckOptions
{
    LineOptions line;
    OutputOptions output;
    bool offline = false;
};

enum class Verdict { Good, Problem, NotChecked };

/// What the controller answers about one variable.
struct Finding
{
    const CipType* type = nullptr;
    Verdict verdict = Verdict::Good;
    QString problem;
};

QString problemOf(const Variable& variable, const CipType& type)
{
    const QString problem = typeProblem(variable, type);
    if (!problem.isEmpty())
        return problem;
    if (variable.isScaled() && !isNumber(type))
        return QStringLiteral("is %1 in the controller, and gain and offset are for numbers")
            .arg(QLatin1String(type.name));
    return QString();
}

Finding findingOf(const Variable& variable, TagAccess& access)
{
    Finding finding;
    const TagKey key = {variable.station, variable.tag};
    try {
        finding.type = &access.typeOf(key);
        finding.problem = problemOf(variable, *finding.type);
        if (finding.problem.isEmpty())
            access.requireElements(key, variable.element, variable.length);
    } catch (const TagRefused& refused) {
        finding.problem = QString::fromStdString(refused.why());
        if (refused.element() >= 0)
            finding.problem =
                QStringLiteral("element %1: ").arg(refused.element()) + finding.problem;
    }
    finding.verdict = finding.problem.isEmpty() ? Verdict::Good : Verdict::Problem;
    return finding;
}

void print(const Output& output, const Variable& variable, const Finding& finding)
{
    const bool good = finding.verdict == Verdict::Good;
    Json object = {{"name", variable.name.toStdString()},
                   {"station", variable.station},
                   {"tag", variable.tag.toStdString()},
                   {"element", variable.element},
                   {"length", variable.length},
                   {"type", finding.type ? Json(finding.type->name) : Json()},
                   {"ok", finding.verdict == Verdict::NotChecked ? Json() : Json(good)}};
    if (!good)
        object["problem"] = finding.problem.toStdString();
    if (!variable.comment.isEmpty())
        object["comment"] = variable.comment.toStdString();
    output.data(object, variable.shownName() + QStringLiteral(": ") +
                            (good ? QStringLiteral("ok, ") + QLatin1String(finding.type->name)
                                  : finding.problem));
}

// Why a variable cannot be checked; empty when it can. A disabled station is not asked.
QString obstacleOf(const Project& project, const Variable& variable)
{
    for (const StationSettings& station : project.stations) {
        if (station.number == variable.station && !station.enabled)
            return QStringLiteral("station %1 is disabled in the project").arg(station.number);
    }
    return QString();
}

Finding notChecked(const QString& why)
{
    return {nullptr, Verdict::NotChecked, QStringLiteral("not checked: ") + why};
}

// "1 and 2", "1, 2 and 3"; empty unless several stations are enabled.
QString severalStations(const Project& project)
{
    QStringList numbers;
    for (const StationSettings& station : project.stations) {
        if (station.enabled)
            numbers += QString::number(station.number);
    }
    if (numbers.size() < 2)
        return QString();
    const QString last = numbers.takeLast();
    return numbers.join(QStringLiteral(", ")) + QStringLiteral(" and ") + last;
}

// A line has one controller at its other end, whatever the stations are called.
void warnOfSharedLine(const Route& route, const Output& output)
{
    const QString stations = severalStations(route.project);
    if (stations.isEmpty())
        return;
    output.note(QStringLiteral("%1: stations: warning: %2 are on one line, but the number of a "
                               "station is not sent: all of them are the one controller at its "
                               "other end (make a project with its own port for each controller)")
                    .arg(QString::fromStdString(route.source), stations));
}

QString counted(int count, const QString& noun)
{
    return QString::number(count) + ' ' + noun + (count == 1 ? "" : "s");
}

/// Checks all variables of a project, in its order.
class ProjectCheck
{
public:
    ProjectCheck(const CheckOptions& options, const Route& route, const Output& output)
        : m_options(options), m_route(route), m_project(route.project), m_output(output)
    {
    }

    void run();
    /// Reports the variables that are left as not checked.
    void abandon(const QString& why);
    int problems() const { return m_problems; }

private:
    void summarise() const;

    const CheckOptions& m_options;
    const Route& m_route;
    const Project& m_project;
    const Output& m_output;
    int m_next = 0;
    int m_checked = 0;
    int m_problems = 0;
};

void ProjectCheck::run()
{
    const Project bare = withoutVariables(m_project, {});
    Access access(m_options.line, m_route, bare);
    Progress progress(m_output, QStringLiteral("checking"), m_project.variables.size());
    for (; m_next < m_project.variables.size(); ++m_next) {
        access.interrupt().throwIfRequested();
        const Variable& variable = m_project.variables.at(m_next);
        progress.show(m_next);
        const QString obstacle = obstacleOf(m_project, variable);
        const Finding finding =
            obstacle.isEmpty() ? findingOf(variable, access.tags()) : notChecked(obstacle);
        progress.clear();
        m_checked += finding.verdict == Verdict::NotChecked ? 0 : 1;
        m_problems += finding.verdict == Verdict::Problem ? 1 : 0;
        print(m_output, variable, finding);
    }
    summarise();
    access.finish();
}

// Without --json the variables that were checked are listed, and the others counted.
void ProjectCheck::abandon(const QString& why)
{
    for (int i = m_next; m_output.json() && i < m_project.variables.size(); ++i)
        print(m_output, m_project.variables.at(i), notChecked(why));
    if (m_next > 0)
        summarise();
}

void ProjectCheck::summarise() const
{
    const int left = m_project.variables.size() - m_checked;
    QString text =
        QStringLiteral("%1: %2 checked, %3 with a problem")
            .arg(QString::fromStdString(m_route.source),
                 counted(m_checked, QStringLiteral("variable")), QString::number(m_problems));
    if (left > 0)
        text += QStringLiteral(", %1 not checked").arg(left);
    m_output.note(text);
}

int checkOnLine(const CheckOptions& options, const Route& route, const Output& output)
{
    ProjectCheck check(options, route, output);
    try {
        check.run();
    } catch (const UserError& error) {
        check.abandon(QString::fromUtf8(error.what()));
        throw;
    }
    return check.problems() == 0 ? kExitDone : kExitRefused;
}

Route routeOfFile(const LineOptions& options)
{
    Route route;
    route.project = projectOf(options);
    route.source = options.project;
    return route;
}

std::vector<ProjectMistake> mistakesIn(const std::string& file)
{
    try {
        return Project::mistakesIn(textOf(file));
    } catch (const UserError&) {
        return {}; // it cannot be read
    }
}

// Tells every mistake of the file. False when it is not the file that is wrong.
bool tellMistakes(const std::string& file, const Output& output)
{
    const std::vector<ProjectMistake> mistakes = mistakesIn(file);
    for (const ProjectMistake& mistake : mistakes) {
        output.error(QString::fromStdString(mistake.message));
        if (output.json())
            output.data({{"file", file},
                         {"ok", false},
                         {"line", mistake.line > 0 ? Json(mistake.line) : Json()},
                         {"pointer", mistake.pointer},
                         {"problem", mistake.problem}},
                        QString());
    }
    const int count = static_cast<int>(mistakes.size());
    if (count == kMostMistakes)
        output.note(textOf(file) +
                    QStringLiteral(": there may be more mistakes (mend these first)"));
    else if (count > 1)
        output.note(textOf(file) + QStringLiteral(": %1 mistakes").arg(count));
    return count > 0;
}

int checkFileAndLine(const CheckOptions& options, const Output& output)
{
    const Route route =
        options.offline ? routeOfFile(options.line) : routeOf(options.line, "check", output);
    const Project& project = route.project;
    warnOfSharedLine(route, output);
    if (!options.offline && !project.port.device.isEmpty())
        return checkOnLine(options, route, output);
    output.data({{"file", route.source},
                 {"ok", true},
                 {"stations", project.stations.size()},
                 {"variables", project.variables.size()}},
                QStringLiteral("%1: ok, %2, %3")
                    .arg(QString::fromStdString(route.source),
                         counted(project.variables.size(), QStringLiteral("variable")),
                         counted(project.stations.size(), QStringLiteral("station"))));
    return kExitDone;
}

int run(const CheckOptions& given)
{
    CheckOptions options = given;
    findProject(options.line);
    if (options.offline && !options.line.gateway.empty())
        throw UserError("--offline: a gateway is not asked offline (leave one of the two out)");
    const Output output(options.output.json, options.output.quiet);
    try {
        return checkFileAndLine(options, output);
    } catch (const UserError& error) {
        const bool mayBeTheFile = error.status() == kExitUsage && !options.line.project.empty();
        if (!mayBeTheFile || !tellMistakes(options.line.project, output))
            throw;
    }
    return kExitUsage;
}

} // namespace

void addCheck(CommandLine& line)
{
    const auto options = std::make_shared<CheckOptions>();
    CommandOptions check = line.addCommand("check",
                                           "Check a project file, and its variables against "
                                           "the controller",
                                           [options] { return run(*options); });
    check.text("PROJECT", options->line.project,
               "Project file (default project.json, or plant.json, in the folder)");
    check.flag("--offline", options->offline, "Check only the file, even when it names a port");
    options->line.addTo(check);
    options->output.addTo(check);
    check.footer(
        "All mistakes of a file are told at once, each with its line; with --json, with its JSON "
        "pointer as well.\n"
        "The controller is asked when the file or --port names a port: whether each tag is there,\n"
        "its type (gain and offset need a number) and the last element. Variables of stations "
        "that\n"
        "are disabled in the file are not checked, and do not count as a problem.\n"
        "Example:\n  micro850-host check examples/plant.project.json --port /tmp/plc\n"
        "Exit status: 0 no problem, 1 the controller differs, 2 usage or a mistake in the file.");
}

} // namespace micro850::host
