#include "Commands.h"
#include "Output.h"
#include "StandardStreams.h"
#include "UserError.h"
#include "VariableList.h"

#include <memory>

namespace micro850::host {

namespace {

struct ImportOptions
{
    OutputOptions output;
    std::string file;
};

Json objectOf(const Variable& variable)
{
    Json object = {{"tag", variable.tag.toStdString()}};
    if (variable.type)
        object["type"] = variable.type->name;
    if (variable.length != 1)
        object["length"] = variable.length;
    return object;
}

void printProject(const VariableList& list)
{
    std::string text = "{\n  \"variables\": [\n";
    for (int i = 0; i < list.variables.size(); ++i) {
        text += "    " + objectOf(list.variables.at(i)).dump() +
                (i + 1 < list.variables.size() ? ",\n" : "\n");
    }
    writeStandardOutput(text + "  ]\n}\n");
}

int run(const ImportOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    const VariableList list = VariableList::fromFile(textOf(options.file));
    for (const QString& line : list.ignored + list.notes)
        output.note(textOf(options.file) + QStringLiteral(": ") + line);
    if (list.variables.isEmpty()) {
        throw UserError(options.file +
                        ": lists no variable that can be read (its lines need a name and "
                        "an elementary type)");
    }
    if (output.json()) {
        for (const Variable& variable : list.variables)
            output.data(objectOf(variable), QString());
    } else {
        printProject(list);
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
    command.requiredText("FILE", options->file, "List separated by comma, semicolon or tab, UTF-8");
    options->output.addTo(command);
    command.footer(
        "The first line names the columns: Name, Data type, Dimension, and others that "
        "are passed over.\nElements count from 0: a note tells of an array whose first index "
        "in the program is another.\n"
        "Example:\n  micro850-host import examples/variables.csv > project.json\n"
        "Exit status: 0 done, 1 the output could not be written, 2 usage, or the file has "
        "no readable variable.");
}

} // namespace micro850::host
