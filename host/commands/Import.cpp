#include "Commands.h"
#include "ListedProject.h"
#include "Output.h"
#include "StandardStreams.h"
#include "UserError.h"
#include "VariableList.h"

#include <QtCore/QRegularExpression>

#include <memory>

namespace micro850::host {

namespace {

struct ImportOptions
{
    OutputOptions output;
    std::string file;
    std::string port;
    int baud = 0;
    int station = -1;
};

Json portOf(const ImportOptions& options)
{
    Json port = Json::object();
    if (!options.port.empty())
        port["device"] = textOf(options.port).toStdString();
    if (options.baud > 0)
        port["baud"] = options.baud;
    return port;
}

// What was left out, and why.
void tellNotes(const Output& output, const QString& file, const VariableList& list)
{
    for (const QString& line : list.ignored + list.notes)
        output.note(file + QStringLiteral(": ") + line);
    const QRegularExpression leftOut(QStringLiteral("\\(left out\\)$"));
    const int lines = list.ignored.filter(leftOut).size();
    if (lines > 0 && !list.variables.isEmpty())
        output.note(QStringLiteral("%1: %2 in the project, %3 left out")
                        .arg(file,
                             list.variables.size() == 1
                                 ? QStringLiteral("1 variable")
                                 : QStringLiteral("%1 variables").arg(list.variables.size()),
                             lines == 1 ? QStringLiteral("1 line")
                                        : QStringLiteral("%1 lines").arg(lines)));
}

int run(const ImportOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    VariableList list = VariableList::fromFile(textOf(options.file));
    tellNotes(output, textOf(options.file), list);
    if (list.variables.isEmpty()) {
        throw UserError(options.file +
                        ": lists no variable that can be read (its lines need a name and "
                        "an elementary type)");
    }
    if (list.hasStations && options.station >= 0)
        throw UserError(options.file + ": names the stations itself (leave out --station)");
    for (Variable& variable : list.variables)
        variable.station = options.station >= 0 ? options.station : variable.station;
    if (output.json()) {
        for (const Variable& variable : list.variables)
            output.data(projectObjectOf(variable, 1), QString());
    } else {
        writeStandardOutput(projectTextOf(list.variables, portOf(options)));
    }
    return kExitDone;
}

} // namespace

void addImport(CommandLine& line)
{
    const auto options = std::make_shared<ImportOptions>();
    CommandOptions command =
        line.addCommand("import", "Make a project file from an exported variable list",
                        [options] { return run(*options); });
    command.requiredText("FILE", options->file,
                         "List separated by comma, semicolon or tab, in UTF-8 or UTF-16");
    command.text("--port,-p", options->port,
                 "Serial device or device server that the project names, e.g. /dev/ttyUSB0");
    command.integer("--baud", options->baud, 300, 4000000, "Speed that the project names");
    command.integer("--station", options->station, 0, 65535,
                    "Station of all variables (default: the list's, or 1)");
    options->output.addTo(command);
    command.footer(
        "A heading names the columns, in English or German: Name, Data type, Dimension, Comment, "
        "Unit, Station; other columns are left out.\nA type may be INT, STRING(40) or "
        "ARRAY[0..9] OF INT. Elements count from 0: a note tells of an array whose first index "
        "in the program is another.\n"
        "Example:\n  micro850-host import examples/variables.csv --port /tmp/plc > project.json\n"
        "Exit status: 0 done, 1 the output could not be written, 2 usage, or the file has "
        "no readable variable.");
}

} // namespace micro850::host
