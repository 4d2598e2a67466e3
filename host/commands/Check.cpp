#include "Connection.h"
#include "Interrupt.h"
#include "Output.h"
#include "TraceRecorder.h"
#include "UserError.h"

#include <memory>

namespace micro850::host {

namespace {

struct CheckOptions
{
    LineOptions line;
    OutputOptions output;
    bool offline = false;
};

/// What the controller answers about one variable.
struct Finding
{
    const CipType* type = nullptr;
    QString problem;
};

Finding findingOf(const Variable& variable, Session& session)
{
    Finding finding;
    const TagKey key = {variable.station, variable.tag};
    try {
        finding.type = &session.typeOf(key);
        if (variable.type && variable.type != finding.type) {
            finding.problem =
                QStringLiteral("is %1 in the controller, %2 in the project")
                    .arg(QLatin1String(finding.type->name), QLatin1String(variable.type->name));
            return finding;
        }
        // If the last element exists, all do.
        session.read(key, variable.element + variable.length - 1, 1);
    } catch (const TagRefused& refused) {
        finding.problem = QString::fromStdString(refused.why());
        if (finding.type)
            finding.problem =
                QStringLiteral("element %1: ").arg(variable.element + variable.length - 1) +
                finding.problem;
    }
    return finding;
}

void print(const Output& output, const Variable& variable, const Finding& finding)
{
    const bool good = finding.problem.isEmpty();
    Json object = {{"name", variable.name.toStdString()},
                   {"station", variable.station},
                   {"tag", variable.tag.toStdString()},
                   {"element", variable.element},
                   {"length", variable.length},
                   {"type", finding.type ? Json(finding.type->name) : Json()},
                   {"ok", good}};
    if (!good)
        object["problem"] = finding.problem.toStdString();
    output.data(object, variable.name + QStringLiteral(": ") +
                            (good ? QStringLiteral("ok, ") + QLatin1String(finding.type->name)
                                  : finding.problem));
}

// Only variables of enabled stations are asked for.
QVector<Variable> checkable(const Project& project)
{
    QVector<Variable> variables;
    for (const Variable& variable : project.variables) {
        for (const StationSettings& station : project.stations) {
            if (station.number == variable.station && station.enabled)
                variables.append(variable);
        }
    }
    return variables;
}

int checkOnLine(const CheckOptions& options, const Project& project, const Output& output)
{
    const QVector<Variable> variables = checkable(project);
    const Project bare = withoutVariables(project, {});
    Connection connection(options.line, bare);
    // After the line is open, so that an earlier trace is not lost to a wrong port.
    TraceRecorder trace(options.line.trace, options.line.force);
    Session session(connection.api(), connection.line(), connection.clock(), bare);
    session.exchange().setObserver(trace.observer());
    Progress progress(output, QStringLiteral("checking"), variables.size());
    const Interrupt interrupt;
    int problems = 0;
    int done = 0;
    for (; done < variables.size() && !interrupt.requested(); ++done) {
        progress.show(done);
        const Finding finding = findingOf(variables.at(done), session);
        progress.clear();
        problems += finding.problem.isEmpty() ? 0 : 1;
        print(output, variables.at(done), finding);
    }
    output.note(
        QStringLiteral("%1: %2 variables checked, %3 with a problem")
            .arg(textOf(options.line.project), QString::number(done), QString::number(problems)));
    if (done < variables.size())
        interrupt.throwIfRequested();
    trace.close();
    return problems == 0 ? kExitDone : kExitRefused;
}

QString counted(int count, const QString& noun)
{
    return QString::number(count) + ' ' + noun + (count == 1 ? "" : "s");
}

int run(const CheckOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    const Project project = projectOf(options.line);
    if (!options.offline && !project.port.device.isEmpty())
        return checkOnLine(options, project, output);
    output.data({{"file", options.line.project},
                 {"ok", true},
                 {"stations", project.stations.size()},
                 {"variables", project.variables.size()}},
                QStringLiteral("%1: ok, %2, %3")
                    .arg(textOf(options.line.project),
                         counted(project.variables.size(), QStringLiteral("variable")),
                         counted(project.stations.size(), QStringLiteral("station"))));
    return kExitDone;
}

} // namespace

void addCheck(CommandLine& line)
{
    const auto options = std::make_shared<CheckOptions>();
    options->line.project = "project.json";
    CommandOptions check = line.addCommand("check",
                                           "Check a project file, and its variables against "
                                           "the controller",
                                           [options] { return run(*options); });
    check.text("PROJECT", options->line.project, "Project file (default project.json)");
    check.flag("--offline", options->offline, "Check only the file, even when it names a port");
    options->line.addTo(check);
    options->output.addTo(check);
    check.footer(
        "The controller is asked when the file or --port names a port.\n"
        "Example:\n  micro850-host check examples/plant.project.json --port /tmp/plc\n"
        "Exit status: 0 no problem, 1 the controller differs, 2 usage or a mistake in the file.");
}

} // namespace micro850::host
