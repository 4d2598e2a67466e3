#include "Access.h"
#include "ListedProject.h"
#include "OutputFile.h"
#include "Targets.h"
#include "UserError.h"
#include "VariableList.h"

#include <QtCore/QFile>

#include <algorithm>
#include <memory>
#include <optional>

namespace micro850::host {

namespace {

// So many names are tried without a sign of it, and from one sign to the next.
const int kShortList = 20;
// So many names that are not there are told.
const int kToldNames = 3;
const int kWidestName = 40;

struct FindOptions
{
    LineOptions line;
    OutputOptions output;
    TargetOptions target;
    std::string list;
    std::string file;
};

QString counted(int count)
{
    return count == 1 ? QStringLiteral("1 name") : QStringLiteral("%1 names").arg(count);
}

/// Looks for names in the controller, and tells of each when it is known.
class Search
{
public:
    Search(const VariableList& list, const Output& output)
        : m_list(list), m_output(output),
          m_progress(output, QStringLiteral("finding"), list.variables.size())
    {
        for (const Variable& variable : list.variables)
            m_width = std::min(kWidestName, std::max(m_width, variable.shownName().size()));
    }

    void run(Access& access);
    const QVector<Variable>& found() const { return m_found; }
    /// How many are there, and why the others are not.
    void summarise(const QString& source);

private:
    struct Refusal
    {
        QString why;
        QStringList names;
    };
    void tryName(Variable variable, Access& access);
    void print(const Variable& variable);
    void refuse(const Variable& variable, const QString& why);

    const VariableList& m_list;
    const Output& m_output;
    Progress m_progress;
    int m_width = 0;
    int m_refused = 0;
    QVector<Variable> m_found;
    QVector<Refusal> m_refusals; ///< in the order in which they came first
};

void Search::run(Access& access)
{
    const int total = m_list.variables.size();
    for (int tried = 0; tried < total; ++tried) {
        access.interrupt().throwIfRequested();
        if (total > kShortList && tried % kShortList == 0)
            m_progress.show(tried);
        tryName(m_list.variables.at(tried), access);
    }
}

// The length is looked for also where a shell remembers one: the controller's program may have
// changed.
void Search::tryName(Variable variable, Access& access)
{
    const TagKey tag = {variable.station, variable.tag};
    try {
        const CipType& type = access.tags().typeOf(tag);
        if (variable.type && variable.type != &type) {
            m_progress.clear();
            m_output.note(variable.shownName() +
                          QStringLiteral(": is %1 in the controller, %2 in the list")
                              .arg(QLatin1String(type.name), QLatin1String(variable.type->name)));
        }
        variable.type = &type;
        access.forgetLengthOf(tag);
        variable.length = access.lengthOf(tag);
        m_found.append(variable);
        print(variable);
    } catch (const TagRefused& error) {
        refuse(variable, QString::fromStdString(error.why()));
    }
}

void Search::print(const Variable& variable)
{
    m_progress.clear();
    const QString length =
        variable.length == 1 ? QString() : QStringLiteral("[%1]").arg(variable.length);
    m_output.data({{"name", variable.name.toStdString()},
                   {"station", variable.station},
                   {"tag", variable.tag.toStdString()},
                   {"type", variable.type->name},
                   {"length", variable.length}},
                  variable.shownName().leftJustified(m_width) + QStringLiteral("  ") +
                      QLatin1String(variable.type->name) + length);
}

void Search::refuse(const Variable& variable, const QString& why)
{
    ++m_refused;
    if (m_output.json()) {
        m_progress.clear();
        m_output.data({{"name", variable.name.toStdString()},
                       {"station", variable.station},
                       {"tag", variable.tag.toStdString()},
                       {"error", why.toStdString()}},
                      QString());
    }
    const auto same = std::find_if(m_refusals.begin(), m_refusals.end(),
                                   [&why](const Refusal& each) { return each.why == why; });
    if (same == m_refusals.end())
        m_refusals.append({why, {variable.shownName()}});
    else
        same->names += variable.shownName();
}

void Search::summarise(const QString& source)
{
    m_progress.clear();
    for (const Refusal& refusal : m_refusals) {
        const int more = refusal.names.size() - kToldNames;
        QString names = QStringList(refusal.names.mid(0, kToldNames)).join(QStringLiteral(", "));
        if (more > 0)
            names += QStringLiteral(" and %1 more").arg(more);
        m_output.note(names + QStringLiteral(": ") + refusal.why);
    }
    const int total = m_list.variables.size();
    QString text = QStringLiteral("%1: %2 of %3 found, %4 not there")
                       .arg(source, QString::number(m_found.size()), counted(total),
                            QString::number(m_refused));
    const int left = total - m_found.size() - m_refused;
    if (left > 0)
        text += QStringLiteral(", %1 not tried").arg(left);
    m_output.note(text);
}

// An earlier project is a document: it is not replaced.
std::optional<OutputFile> openProject(const std::string& file)
{
    if (file.empty())
        return std::nullopt;
    if (QFile::exists(textOf(file)))
        throw UserError("--output: " + file + " is there already (name another file)");
    return OutputFile::open(file);
}

Json portOf(const PortSettings& port)
{
    if (port.device.isEmpty())
        return Json::object();
    return {{"device", port.device.toStdString()}, {"baud", port.baud}};
}

void writeProject(OutputFile& file, const QVector<Variable>& found, const PortSettings& port,
                  const Output& output)
{
    if (found.isEmpty()) {
        file.close();
        QFile::remove(textOf(file.name()));
        return;
    }
    file.write(projectTextOf(found, portOf(port)));
    file.close();
    output.note(textOf(file.name()) + QStringLiteral(": a project of what was found"));
}

QString sourceOf(const FindOptions& options)
{
    return options.list == "-" ? QStringLiteral("standard input") : textOf(options.list);
}

VariableList listOf(const FindOptions& options, const Project& project, const Output& output)
{
    if (options.list == "-" && SharedLine::current())
        throw UserError("-: standard input has the commands of the shell (name a file)");
    VariableList list = VariableList::fromFileOfNames(textOf(options.list));
    for (const QString& note : list.ignored + list.notes)
        output.note(sourceOf(options) + QStringLiteral(": ") + note);
    if (list.variables.isEmpty())
        throw UserError(sourceOf(options).toStdString() +
                        ": lists no name that a tag can have (a name in each line, "
                        "or a list that a programming tool exported)");
    if (list.hasStations && options.target.station >= 0)
        throw UserError(sourceOf(options).toStdString() +
                        ": names the stations itself (leave out --station)");
    const int station =
        options.target.station >= 0 ? options.target.station : project.stations.first().number;
    for (Variable& variable : list.variables)
        variable.station = list.hasStations ? variable.station : station;
    return list;
}

// So that the stations are served.
QVector<Target> targetsOf(const VariableList& list)
{
    QVector<Target> targets;
    for (const Variable& variable : list.variables) {
        Target target;
        target.tag = {variable.station, variable.tag};
        targets.append(target);
    }
    return targets;
}

void searchOn(const FindOptions& options, const Route& route, const VariableList& list,
              Search& search)
{
    const Project bare = withoutVariables(route.project, targetsOf(list));
    Access access(options.line, route, bare);
    search.run(access);
    access.finish();
}

int run(FindOptions options)
{
    const Output output(options.output.json, options.output.quiet);
    findProjectForPort(options.line);
    const Route route = routeOf(options.line, "find", output);
    requirePort(route.project, options.line);
    const VariableList list = listOf(options, route.project, output);
    std::optional<OutputFile> file = openProject(options.file);
    Search search(list, output);
    const auto end = [&] {
        search.summarise(sourceOf(options));
        if (file)
            writeProject(*file, search.found(), route.project.port, output);
    };
    try {
        searchOn(options, route, list, search);
    } catch (const UserError&) { // what was found is not lost
        end();
        throw;
    }
    end();
    return search.found().isEmpty() ? kExitRefused : kExitDone;
}

} // namespace

void addFind(CommandLine& line)
{
    const auto options = std::make_shared<FindOptions>();
    CommandOptions find = line.addCommand("find", "Find which tags of a list the controller has",
                                          [options] { return run(*options); });
    find.requiredText("LIST", options->list,
                      "A name in each line, or a list that a programming tool exported; - is "
                      "standard input");
    find.text("--output,-o", options->file, "Write a project of what is found to this new file");
    find.text("--project", options->line.project, "Project file: its port");
    find.integer("--station", options->target.station, 0, 65535,
                 "Station of the tags (default: the list's, or 1)");
    options->line.addTo(find);
    options->output.addTo(find);
    find.footer("Prints type and length of each tag that is there. A list with commas, semicolons "
                "or tabs is read as import does.\n"
                "A controller does not tell the length of an array: elements are read to find its "
                "end.\nWith --json each name has an object; one that is not there has \"error\".\n"
                "Example:\n  micro850-host find examples/variables.csv --port /tmp/plc\n"
                "Exit status: 0 at least one is there, 1 none is, or the line refused, 2 usage or "
                "configuration.");
}

} // namespace micro850::host
