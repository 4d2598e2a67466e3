#include "Commands.h"
#include "Output.h"
#include "UserError.h"
#include "VariableList.h"

#include <QtCore/QFile>

#include <iostream>
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
    std::cout << "{\n  \"variables\": [\n";
    for (int i = 0; i < list.variables.size(); ++i) {
        std::cout << "    " << objectOf(list.variables.at(i)).dump()
                  << (i + 1 < list.variables.size() ? ",\n" : "\n");
    }
    std::cout << "  ]\n}\n";
}

int run(const ImportOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    QFile file(textOf(options.file));
    if (!file.open(QIODevice::ReadOnly)) {
        throw UserError(options.file + ": cannot be read: " + file.errorString().toStdString() +
                        " (name the exported list)");
    }
    const VariableList list =
        VariableList::fromCsv(QString::fromUtf8(file.readAll()), textOf(options.file));
    for (const QString& line : list.ignored)
        output.note(textOf(options.file) + QStringLiteral(": ") + line +
                    QStringLiteral(" (left out)"));
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
    command.requiredText("FILE", options->file, "List separated by comma, semicolon or tab");
    options->output.addTo(command);
    command.footer("The first line names the columns: Name, Data type, Dimension, and others that "
                   "are passed over.\n"
                   "Example:\n  micro850-host import examples/variables.csv > project.json\n"
                   "Exit status: 0 done, 2 usage, or the file has no readable variable.");
}

} // namespace micro850::host
