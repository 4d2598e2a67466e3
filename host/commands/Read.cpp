#include "Connection.h"
#include "Interrupt.h"
#include "Output.h"
#include "TraceRecorder.h"
#include "UserError.h"

#include <memory>

namespace micro850::host {

namespace {

// From this many value bytes on, a read shows its progress.
const int kLongBytes = 2000;

struct ReadOptions
{
    LineOptions line;
    OutputOptions output;
    int station = -1;
    std::vector<std::string> tags;
};

void print(const Output& output, const Target& target, const CipType& type,
           const QVector<QByteArray>& elements)
{
    for (int i = 0; i < elements.size(); ++i) {
        const QString name = target.address.elementName(i);
        const CipValue value = decodeElement(type, elements.at(i));
        const Json object = {{"name", name.toStdString()},
                             {"station", target.tag.station},
                             {"tag", target.tag.name.toStdString()},
                             {"element", target.address.element + i},
                             {"type", type.name},
                             {"value", jsonOf(value)}};
        output.data(object, name + QStringLiteral(" = ") + shownText(type, value));
    }
}

void printRefusal(const Output& output, const Target& target, const TagRefused& error)
{
    const Json object = {{"name", target.address.text().toStdString()},
                         {"station", target.tag.station},
                         {"tag", target.tag.name.toStdString()},
                         {"error", error.why()}};
    output.data(object, QString());
    output.error(QString::fromStdString(error.what()));
}

// False when the controller refuses it.
bool readTarget(const Target& target, Session& session, const Interrupt& interrupt,
                const Output& output)
{
    const int elements = target.address.elements;
    Progress progress(output, target.address.text(), elements);
    try {
        const CipType& type = session.typeOf(target.tag);
        const bool isLong = elements * type.size > kLongBytes;
        const auto show = [&](int done) {
            interrupt.throwIfRequested();
            if (isLong)
                progress.show(done);
        };
        const QVector<QByteArray> read =
            session.read(target.tag, target.address.element, elements, show);
        progress.clear();
        print(output, target, type, read);
        return true;
    } catch (const TagRefused& error) {
        progress.clear();
        printRefusal(output, target, error);
        return false;
    }
}

int run(const ReadOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    const Project project = projectOf(options.line);
    QVector<Target> targets;
    for (const std::string& text : options.tags)
        targets.append(targetOf(TagAddress::fromText(textOf(text)), project, options.station));
    requirePort(project, options.line);
    const Project bare = withoutVariables(project, targets);
    Connection connection(options.line, bare);
    // After the line is open, so that an earlier trace is not lost to a wrong port.
    TraceRecorder trace(options.line.trace, options.line.force);
    Session session(connection.api(), connection.line(), connection.clock(), bare);
    session.exchange().setObserver(trace.observer());
    bool refused = false;
    const Interrupt interrupt;
    for (const Target& target : targets) {
        interrupt.throwIfRequested();
        refused = !readTarget(target, session, interrupt, output) || refused;
    }
    trace.close();
    return refused ? kExitRefused : kExitDone;
}

} // namespace

void addRead(CommandLine& line)
{
    const auto options = std::make_shared<ReadOptions>();
    CommandOptions read =
        line.addCommand("read", "Read tags once", [options] { return run(*options); });
    read.requiredTexts("TAG", options->tags, "TAG, TAG[INDEX] or TAG[FIRST..LAST]");
    read.text("--project", options->line.project,
              "Project file: its port, and its variables by their names");
    read.integer("--station", options->station, 0, 65535, "Station number (default 1)");
    options->line.addTo(read);
    options->output.addTo(read);
    read.footer(
        std::string("When the controller refuses a tag, the others are still read.\n"
                    "Example:\n  micro850-host read Speed 'Level[0..9]' --port /tmp/plc\n") +
        kStatuses);
}

} // namespace micro850::host
