#include "Access.h"
#include "Page.h"
#include "Targets.h"
#include "UserError.h"
#include "Visible.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <unistd.h>

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

/// The widths of the columns in front of the values.
struct Widths
{
    int name = 0;
    int type = 0;
};

QString cell(const QString& text, int width)
{
    return fitted(visible(text), width) + QStringLiteral("  ");
}

/// All reads of one command. Each has its line, or its object, in the order of the arguments.
class Reads
{
public:
    Reads(const ReadOptions& options, const Project& project, const Output& output);

    /// False when a user's mistake is known: nothing is read then.
    bool mayBeRead() const { return status() < kExitUsage; }
    ExitStatus status() const;
    QVector<Target> targets() const;
    /// Learns the types of all tags and finds the ends of arrays. Refuses what cannot be asked for.
    void prepare(Access& access);
    void carryOut(Access& access);
    /// Reports those that are left: what was refused, and why the others were not tried.
    void close(const QString& why);

private:
    void refuse(Read& read, const UserError& error);
    void refuse(Read& read, const TagRefused& error);
    void prepare(Read& read, Access& access);
    void resolveEnd(Target& target, Access& access) const;
    void tellOfMoreElements(const Target& target, Access& access) const;
    Widths widths(TagAccess& access) const;
    void readTarget(Read& read, Access& access);
    void print(const Target& target, const CipType& type,
               const QVector<QByteArray>& elements) const;
    void printElement(const Target& target, int i, const CipType& type,
                      const QByteArray& element) const;
    void printError(const Read& read, const QString& error) const;

    const Project& m_project;
    const Output& m_output;
    QVector<Read> m_reads;
    Widths m_widths;
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

void Reads::prepare(Access& access)
{
    for (Read& read : m_reads) {
        access.interrupt().throwIfRequested();
        prepare(read, access);
    }
    m_widths = widths(access.tags());
}

// A tag that the controller refuses is not asked for again.
void Reads::prepare(Read& read, Access& access)
{
    try {
        read.target->requireType(access.tags().typeOf(read.target->tag));
        resolveEnd(*read.target, access);
    } catch (const TagRefused& error) {
        refuse(read, error);
    } catch (const UserError& error) {
        if (error.status() != kExitUsage)
            throw;
        refuse(read, error);
    }
}

void Reads::resolveEnd(Target& target, Access& access) const
{
    if (!target.address.toEnd)
        return;
    const int length = access.lengthOf(target.tag);
    if (target.element >= length) {
        throw TagRefused(target.address.text().toStdString(),
                         "the array has " + std::to_string(length) +
                             (length == 1 ? " element" : " elements"));
    }
    target.address.elements = length - target.element;
    target.address.toEnd = false;
}

Widths Reads::widths(TagAccess& access) const
{
    Widths widths;
    for (const Read& read : m_reads) {
        if (read.status != kExitDone)
            continue;
        const Target& target = *read.target;
        const QString last = target.address.elementName(target.elements() - 1);
        const QString type = QLatin1String(target.shownType(access.typeOf(target.tag)));
        widths.name = std::max(widths.name, displayWidth(visible(last)));
        widths.type = std::max(widths.type, displayWidth(type));
    }
    return widths;
}

void Reads::carryOut(Access& access)
{
    while (m_reported < m_reads.size()) {
        access.interrupt().throwIfRequested();
        Read& read = m_reads[m_reported];
        if (read.status == kExitDone)
            readTarget(read, access);
        else
            ++m_reported;
        if (read.status != kExitDone) {
            printError(read, read.error);
            m_output.error(read.message);
        }
    }
}

void Reads::readTarget(Read& read, Access& access)
{
    const Target& target = *read.target;
    Progress progress(m_output, target.address.text(), target.elements());
    try {
        const CipType& type = access.tags().typeOf(target.tag);
        const bool isLong = target.elements() * type.size > kLongBytes;
        const auto show = [&](int done) {
            access.interrupt().throwIfRequested();
            if (isLong)
                progress.show(done);
        };
        const QVector<QByteArray> elements =
            access.tags().read(target.tag, target.element, target.elements(), show);
        progress.clear();
        ++m_reported;
        print(target, type, elements);
        tellOfMoreElements(target, access);
    } catch (const TagRefused& error) {
        progress.clear();
        access.forgetLengthOf(target.tag); // the controller's program may be another one by now
        refuse(read, error);
        ++m_reported;
    }
}

// Only a person is told: it costs some reads, of elements that may not be there.
void Reads::tellOfMoreElements(const Target& target, Access& access) const
{
    const bool isTold = !m_output.json() && !m_output.quiet() && isatty(STDERR_FILENO) == 1;
    if (!isTold || target.variable || target.address.indexed)
        return;
    const int length = access.lengthOf(target.tag);
    if (length > 1) {
        const QString name = target.address.text();
        m_output.note(QStringLiteral("%1: this is the first of %2 elements (%1[] reads all, "
                                     "%1[0..%3] some)")
                          .arg(name, QString::number(length), QString::number(length - 1)));
    }
}

void Reads::print(const Target& target, const CipType& type,
                  const QVector<QByteArray>& elements) const
{
    for (int i = 0; i < elements.size(); ++i)
        printElement(target, i, type, elements.at(i));
}

void Reads::printElement(const Target& target, int i, const CipType& type,
                         const QByteArray& element) const
{
    const char* const shownType = target.shownType(type);
    const CipValue value = target.valueIn(type, element);
    Json object = {{"name", target.address.exactElementName(i).toStdString()},
                   {"station", target.tag.station},
                   {"tag", target.tag.name.toStdString()},
                   {"element", target.element + i}};
    if (target.isBit())
        object["bit"] = target.address.bit;
    object["type"] = shownType;
    object["value"] = jsonOf(target.isBit() ? value : target.scaling.shown(type, value));
    if (!target.unit.isEmpty())
        object["unit"] = target.unit.toStdString();
    m_output.data(object, cell(target.address.elementName(i), m_widths.name) +
                              cell(QLatin1String(shownType), m_widths.type) +
                              (target.isBit() ? valueText(value) : target.text(type, value)));
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
    reads.prepare(access);
    if (reads.mayBeRead())
        reads.carryOut(access);
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
        if (reads.mayBeRead())
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
    read.footer(std::string(kNamesHelp) + kMoreNamesHelp +
                "Each element is a line: name, type, value and unit.\n"
                "What cannot be asked for, such as an index into a string, is refused before "
                "anything is read.\n"
                "When the controller refuses a tag, the others are still read. With --json each "
                "tag has an\nobject; one that was not read has \"error\".\n"
                "Example:\n  micro850-host read Speed 'Level[0..9]' --port /tmp/plc\n" +
                kStatuses);
}

} // namespace micro850::host
