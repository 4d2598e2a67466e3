#include "Connection.h"
#include "Interrupt.h"
#include "Output.h"
#include "TraceRecorder.h"
#include "UserError.h"
#include "Writable.h"

#include <memory>

namespace micro850::host {

namespace {

struct WriteOptions
{
    LineOptions line;
    OutputOptions output;
    int station = -1;
    bool verify = true;
    std::vector<std::string> assignments;
};

/// One element that is written.
struct Write
{
    Target target;
    int offset; ///< within the target
    QString text;
    QByteArray value;

    int element() const { return target.address.element + offset; }
    QString name() const { return target.address.elementName(offset); }
};

QVector<Write> writesOf(const WriteOptions& options, const Project& project)
{
    QVector<Write> writes;
    for (const std::string& text : options.assignments) {
        const Assignment assignment = Assignment::fromText(textOf(text));
        const Target target = targetOf(assignment.address, project, options.station);
        const QStringList values = assignment.valuesFor(target.address);
        for (int i = 0; i < values.size(); ++i)
            writes.append({target, i, values.at(i), QByteArray()});
    }
    return writes;
}

void encode(Write& write, const CipType& type)
{
    requireWritable(type, write.target.address.tag);
    try {
        write.value = encodeElement(type, parseElement(type, write.text));
    } catch (const UserError& error) {
        throw UserError(write.name().toStdString() + ": " + error.what());
    }
}

// Values whose types the project states are checked before anything is sent. The others are checked
// against the controller's types before the first write.
void encodeKnown(QVector<Write>& writes)
{
    for (Write& write : writes) {
        if (write.target.type)
            encode(write, *write.target.type);
    }
}

void encodeAll(QVector<Write>& writes, Session& session)
{
    for (Write& write : writes) {
        const CipType& type = session.typeOf(write.target.tag);
        if (write.target.type && write.target.type != &type) {
            throw UserError(write.name().toStdString() + ": is " + type.name +
                            " in the controller, " + write.target.type->name +
                            " in the project (correct the project)");
        }
        encode(write, type);
    }
}

void carryOut(const Write& write, Session& session, const WriteOptions& options,
              const Output& output)
{
    const TagKey& tag = write.target.tag;
    const CipType& type = session.typeOf(tag);
    session.write(tag, write.element(), write.value);
    const QByteArray now =
        options.verify ? session.read(tag, write.element(), 1).first() : write.value;
    Json object = {{"name", write.name().toStdString()},
                   {"station", tag.station},
                   {"tag", tag.name.toStdString()},
                   {"element", write.element()},
                   {"type", type.name},
                   {"written", jsonOf(decodeElement(type, write.value))}};
    if (options.verify) {
        object["value"] = jsonOf(decodeElement(type, now));
        object["verified"] = now == write.value;
    }
    const QString line =
        write.name() + QStringLiteral(" = ") + shownText(type, decodeElement(type, now));
    if (now == write.value) {
        output.data(object, line);
        return;
    }
    output.data(object, QString());
    throw UserError((line + QStringLiteral(" was read back after ") + write.text +
                     QStringLiteral(" was written (the program may set it)"))
                        .toStdString(),
                    kExitRefused);
}

int run(const WriteOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    const Project project = projectOf(options.line);
    QVector<Write> writes = writesOf(options, project);
    encodeKnown(writes);
    requirePort(project, options.line);
    QVector<Target> targets;
    for (const Write& write : writes)
        targets.append(write.target);
    const Project bare = withoutVariables(project, targets);
    Connection connection(options.line, bare);
    // After the line is open, so that an earlier trace is not lost to a wrong port.
    TraceRecorder trace(options.line.trace, options.line.force);
    Session session(connection.api(), connection.line(), connection.clock(), bare);
    session.exchange().setObserver(trace.observer());
    encodeAll(writes, session);
    const Interrupt interrupt;
    Progress progress(output, QStringLiteral("writing"), writes.size());
    for (int i = 0; i < writes.size(); ++i) {
        interrupt.throwIfRequested();
        progress.clear();
        carryOut(writes.at(i), session, options, output);
        progress.show(i + 1);
    }
    trace.close();
    return kExitDone;
}

} // namespace

void addWrite(CommandLine& line)
{
    const auto options = std::make_shared<WriteOptions>();
    CommandOptions write = line.addCommand("write", "Write tags, and read them back",
                                           [options] { return run(*options); });
    write.requiredTexts("TAG=VALUE", options->assignments,
                        "TAG=VALUE, TAG[INDEX]=VALUE or TAG[FIRST..LAST]=VALUE[,VALUE...]");
    write.flagThatClears("--no-verify", options->verify, "Do not read back what was written");
    write.text("--project", options->line.project,
               "Project file: its port, and its variables by their names");
    write.integer("--station", options->station, 0, 65535, "Station number (default 1)");
    options->line.addTo(write);
    options->output.addTo(write);
    write.footer(
        std::string("Values: decimal or 0x numbers, true or false, text, and for the time types an "
                    "ISO 8601 duration.\nAll values are checked before the first is written.\n"
                    "Example:\n  micro850-host write Setpoint=22.5 'Recipe[3]=0x10' "
                    "'Recipe[4..6]=1,2,3' --port /tmp/plc\n") +
        kStatuses);
}

} // namespace micro850::host
