#include "Access.h"
#include "Targets.h"
#include "UserError.h"

#include <algorithm>
#include <memory>
#include <optional>

namespace micro850::host {

namespace {

// From this many value bytes on, a read shows its progress.
const int kLongBytes = 2000;

struct ReadOptions
{
    LineOptions line;
    OutputOptions output;
    TargetOptions target;
    std::vector<std::string> tags;
};

/// One argument, and what became of it.
struct Read
{
    QString argument;
    std::optional<Target> target; ///< none when the argument cannot be asked for
    QString error;                ///< why it was refused, without its name
    QString message;              ///< the same for people
    ExitStatus status = kExitDone;
};

/// All reads of one command. Each has its line, or its object, in the order of the arguments.
class Reads
{
public:
    Reads(const ReadOptions& options, const Project& project, const Output& output);

    bool anyRefused() const { return status() != kExitDone; }
    ExitStatus status() const;
    QVector<Target> targets() const;
    /// Refuses an index into a string and a type that is not the project's, as soon as the types
    /// are known.
    void checkTypes(TagAccess& access, const Interrupt& interrupt);
    void carryOut(TagAccess& access, const Interrupt& interrupt);
    /// Reports those that are left: what was refused, and why the others were not tried.
    void close(const QString& why);

private:
    void refuse(Read& read, const UserError& error);
    void refuse(Read& read, const TagRefused& error);
    void checkType(Read& read, TagAccess& access);
    void readTarget(Read& read, TagAccess& access, const Interrupt& interrupt);
    void print(const Target& target, const CipType& type,
               const QVector<QByteArray>& elements) const;
    void printError(const Read& read, const QString& error) const;

    const Project& m_project;
    const Output& m_output;
    QVector<Read> m_reads;
    int m_reported = 0;
};

Reads::Reads(const ReadOptions& options, const Project& project, const Output& output)
    : m_project(project), m_output(output)
{
    for (const std::string& tag : options.tags) {
        Read read;
        read.argument = textOf(tag);
        try {
            read.target = targetOf(addressOf(read.argument, project), project, options.target);
        } catch (const UserError& error) {
            refuse(read, error);
        }
        m_reads.append(read);
    }
}

void Reads::refuse(Read& read, const UserError& error)
{
    read.message = QString::fromUtf8(error.what());
    read.error =
        read.target ? withoutName(read.message, read.target->address.text()) : read.message;
    read.status = error.status();
}

void Reads::refuse(Read& read, const TagRefused& error)
{
    read.message = read.target->nameOf(error) + QStringLiteral(": ") +
                   reasonOf(error, *read.target, m_project);
    read.error = withoutName(read.message, read.target->address.text());
    read.status = error.status();
}

ExitStatus Reads::status() const
{
    ExitStatus status = kExitDone;
    for (const Read& read : m_reads)
        status = std::max(status, read.status);
    return status;
}

QVector<Target> Reads::targets() const
{
    QVector<Target> targets;
    for (const Read& read : m_reads) {
        if (read.target)
            targets.append(*read.target);
    }
    return targets;
}

void Reads::checkTypes(TagAccess& access, const Interrupt& interrupt)
{
    for (Read& read : m_reads) {
        interrupt.throwIfRequested();
        // Every tag has an element 0.
        if (read.target->type() || read.target->element + read.target->elements() > 1)
            checkType(read, access);
    }
}

// What cannot be asked for is a mistake of the user; what the controller refuses is found again
// when the tag is read.
void Reads::checkType(Read& read, TagAccess& access)
{
    try {
        read.target->requireType(access.typeOf(read.target->tag));
    } catch (const TagRefused&) {
        return;
    } catch (const UserError& error) {
        if (error.status() != kExitUsage)
            throw;
        refuse(read, error);
    }
}

void Reads::carryOut(TagAccess& access, const Interrupt& interrupt)
{
    while (m_reported < m_reads.size()) {
        interrupt.throwIfRequested();
        readTarget(m_reads[m_reported], access, interrupt);
    }
}

void Reads::readTarget(Read& read, TagAccess& access, const Interrupt& interrupt)
{
    const Target& target = *read.target;
    Progress progress(m_output, target.address.text(), target.elements());
    try {
        const CipType& type = access.typeOf(target.tag);
        const bool isLong = target.elements() * type.size > kLongBytes;
        const auto show = [&](int done) {
            interrupt.throwIfRequested();
            if (isLong)
                progress.show(done);
        };
        const QVector<QByteArray> elements =
            access.read(target.tag, target.element, target.elements(), show);
        progress.clear();
        ++m_reported;
        print(target, type, elements);
    } catch (const TagRefused& error) {
        progress.clear();
        refuse(read, error);
        ++m_reported;
        printError(read, read.error);
        m_output.error(read.message);
    }
}

void Reads::print(const Target& target, const CipType& type,
                  const QVector<QByteArray>& elements) const
{
    for (int i = 0; i < elements.size(); ++i) {
        const QString name = target.address.elementName(i);
        const CipValue value = decodeElement(type, elements.at(i));
        Json object = {{"name", target.address.exactElementName(i).toStdString()},
                       {"station", target.tag.station},
                       {"tag", target.tag.name.toStdString()},
                       {"element", target.element + i},
                       {"type", type.name},
                       {"value", jsonOf(target.scaling.shown(type, value))}};
        if (!target.unit.isEmpty())
            object["unit"] = target.unit.toStdString();
        m_output.data(object, name + QStringLiteral(" = ") + target.text(type, value));
    }
}

void Reads::printError(const Read& read, const QString& error) const
{
    Json object = {{"name", read.argument.toStdString()}};
    if (read.target) {
        object["name"] = read.target->address.exactText().toStdString();
        object["station"] = read.target->tag.station;
        object["tag"] = read.target->tag.name.toStdString();
    }
    object["error"] = error.toStdString();
    m_output.data(object, QString());
}

void Reads::close(const QString& why)
{
    const int done = m_reported;
    if (done == m_reads.size())
        return; // what failed came after the work
    for (; m_reported < m_reads.size(); ++m_reported) {
        const Read& read = m_reads.at(m_reported);
        const bool refused = read.status != kExitDone;
        printError(read, refused ? read.error : QStringLiteral("not tried: ") + why);
        if (refused)
            m_output.error(read.message);
    }
    if (m_reads.size() > 1 && done == 0)
        m_output.note(QStringLiteral("nothing was read"));
    else if (m_reads.size() > 1)
        m_output.note(QStringLiteral("%1 of %2 were not tried")
                          .arg(m_reads.size() - done)
                          .arg(m_reads.size()));
}

void readAll(Reads& reads, const ReadOptions& options, const Route& route)
{
    requirePort(route.project, options.line);
    const Project bare = withoutVariables(route.project, reads.targets());
    Access access(options.line, route, bare);
    reads.checkTypes(access.tags(), access.interrupt());
    if (!reads.anyRefused())
        reads.carryOut(access.tags(), access.interrupt());
    access.finish();
}

int run(ReadOptions options)
{
    const Output output(options.output.json, options.output.quiet);
    findProjectForPort(options.line);
    const auto names = [&options](const Project& project) {
        return variablesNamed(options.tags, project);
    };
    const Route route = routeOf(options.line, "read", output, {names, options.tags});
    Reads reads(options, route.project, output);
    try {
        if (!reads.anyRefused())
            readAll(reads, options, route);
    } catch (const UserError& error) {
        reads.close(QString::fromUtf8(error.what()));
        throw;
    }
    if (reads.status() == kExitUsage)
        reads.close(QStringLiteral("another tag cannot be asked for"));
    return reads.status();
}

} // namespace

void addRead(CommandLine& line)
{
    const auto options = std::make_shared<ReadOptions>();
    CommandOptions read =
        line.addCommand("read", "Read tags once", [options] { return run(*options); });
    read.requiredTexts("TAG", options->tags, "TAG, TAG[INDEX] or TAG[FIRST..LAST]");
    options->target.addTo(read, options->line);
    options->line.addTo(read);
    options->output.addTo(read);
    read.footer(std::string(kNamesHelp) +
                "What cannot be asked for, such as an index into a string, is refused before "
                "anything is read.\n"
                "When the controller refuses a tag, the others are still read. With --json each "
                "tag has an\nobject; one that was not read has \"error\".\n"
                "Example:\n  micro850-host read Speed 'Level[0..9]' --port /tmp/plc\n" +
                kStatuses);
}

} // namespace micro850::host
