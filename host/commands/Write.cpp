#include "Access.h"
#include "Question.h"
#include "Targets.h"
#include "UserError.h"
#include "Writable.h"

#include <QtCore/QHash>

#include <algorithm>
#include <memory>
#include <optional>

namespace micro850::host {

namespace {

struct WriteOptions
{
    LineOptions line;
    OutputOptions output;
    TargetOptions target;
    bool verify = true;
    bool yes = false;
    bool dryRun = false;
    std::vector<std::string> assignments;
};

enum class Outcome {
    NotTried,
    Written,
    Unknown, ///< sent, but nobody answered
    Refused,
    DryRun ///< was to be shown only
};

const char* textOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::NotTried:
        return "not tried";
    case Outcome::Written:
        return "written";
    case Outcome::Unknown:
        return "unknown";
    case Outcome::DryRun:
        return "dry run";
    case Outcome::Refused:
        break;
    }
    return "refused";
}

/// One element that is written.
struct Element
{
    QString text;       ///< the value as the user gave it
    QByteArray value;   ///< the same in the controller's byte order
    QString note;       ///< how it was rounded
    QByteArray before;  ///< what was read before, unless that failed
    QByteArray nowRead; ///< what was read back
    Outcome outcome = Outcome::NotTried;
    QString error; ///< for people, with the name
};

/// One argument: the elements that it writes.
struct Job
{
    QString argument;
    std::optional<Target> target; ///< none when the argument cannot be understood
    const CipType* type = nullptr;
    QVector<Element> elements;

    bool isRefused() const
    {
        return std::any_of(elements.begin(), elements.end(),
                           [](const Element& e) { return e.outcome == Outcome::Refused; });
    }
    QString name(int i) const { return target ? target->address.elementName(i) : argument; }
    QString text(const QByteArray& value) const
    {
        return target->text(*type, decodeElement(*type, value));
    }
    /// "Setpoint: 21.5 -> 42.25 C"
    QString change(int i, const QByteArray& to) const
    {
        const QString from = target->scaling.text(*type, decodeElement(*type, elements[i].before));
        return name(i) + QStringLiteral(": %1 -> ").arg(from) + text(to);
    }
};

// So many changes are listed in a question.
const int kMostAsked = 20;

/// All writes of one command. Everything that can be known is checked before the first of them.
class Writes
{
public:
    Writes(const WriteOptions& options, const Project& project, const Output& output);

    bool anyRefused() const { return m_status != kExitDone; }
    ExitStatus status() const { return m_status; }
    QVector<Target> targets() const;
    /// Checks the values whose types the project states.
    void checkAgainstProject();
    /// How many elements are written.
    int size() const;
    /// Checks all values against the controller's types, and reads what the elements hold now.
    void checkAgainstController(TagAccess& access, const Interrupt& interrupt);
    /// Shows the changes to a person, and asks. `where` is the line.
    bool isConfirmed(const QString& where, const Interrupt& interrupt) const;
    void carryOut(TagAccess& access, const Interrupt& interrupt);
    /// Shows what carryOut() would send.
    void showDryRun(const QString& where);
    /// Reports those that are left, and how many had which outcome.
    void close(const QString& whyNotTried);
    /// Why the outcome of a write could not be printed.
    const std::optional<UserError>& outputFailure() const { return m_outputFailure; }

private:
    void parse(Job& job, const QString& argument, const TargetOptions& options);
    void refuseTwice();
    void encode(Job& job, const CipType& type);
    void checkAgainstController(Job& job, TagAccess& access);
    void refuse(Job& job, int i, const QString& error, ExitStatus status);
    void refuse(Job& job, int i, const TagRefused& error);
    void write(Job& job, int i, TagAccess& access);
    void verify(Job& job, int i, TagAccess& access);
    void print(const Json& object, const QString& text = QString()) const;
    QStringList changes() const;
    void report(const Job& job, int i) const;
    Json objectOf(const Job& job, int i) const;
    void listNotTried(const Job& job, int from) const;
    void summarise() const;
    int count(Outcome outcome) const;

    const Project& m_project;
    const Output& m_output;
    bool m_verify;
    QVector<Job> m_jobs;
    ExitStatus m_status = kExitDone;
    mutable std::optional<UserError> m_outputFailure; ///< the first one
    bool m_begun = false;                             ///< a write was sent
    int m_job = 0;                                    ///< the next one that is reported
    int m_element = 0;
};

Writes::Writes(const WriteOptions& options, const Project& project, const Output& output)
    : m_project(project), m_output(output), m_verify(options.verify)
{
    for (const std::string& assignment : options.assignments) {
        Job job;
        parse(job, host::textOf(assignment), options.target);
        m_jobs.append(job);
    }
    refuseTwice();
}

void Writes::parse(Job& job, const QString& argument, const TargetOptions& options)
{
    job.argument = argument;
    try {
        const Assignment assignment = assignmentOf(argument, m_project);
        const Target target = targetOf(assignment.address, m_project, options);
        target.requireWholeElements();
        for (const QString& value : assignment.valuesFor(target.address)) {
            Element element;
            element.text = value;
            job.elements.append(element);
        }
        job.target = target;
    } catch (const UserError& error) {
        job.elements = {Element()};
        refuse(job, 0, QString::fromUtf8(error.what()), error.status());
    }
}

// With two values for one element, the order would decide. Names of tags that differ only in their
// capitals mean the same tag.
void Writes::refuseTwice()
{
    QHash<QString, QString> argumentFor;
    for (Job& job : m_jobs) {
        if (!job.target)
            continue;
        const TagKey& tag = job.target->tag;
        for (int i = 0; i < job.elements.size(); ++i) {
            const QString element =
                QStringLiteral("%1 %2 ").arg(tag.station).arg(job.target->element + i) +
                tag.name.toLower();
            const QString other = argumentFor.value(element);
            if (!other.isNull()) {
                refuse(job, i,
                       job.name(i) +
                           QStringLiteral(
                               ": \"%1\" and \"%2\" both write this element (leave one out)")
                               .arg(other, job.argument),
                       kExitUsage);
                break;
            }
            argumentFor.insert(element, job.argument);
        }
    }
}

QVector<Target> Writes::targets() const
{
    QVector<Target> targets;
    for (const Job& job : m_jobs) {
        if (job.target)
            targets.append(*job.target);
    }
    return targets;
}

void Writes::refuse(Job& job, int i, const QString& error, ExitStatus status)
{
    job.elements[i].outcome = Outcome::Refused;
    job.elements[i].error = error;
    m_status = std::max(m_status, status);
}

void Writes::refuse(Job& job, int i, const TagRefused& error)
{
    const QString name = error.element() < 0 ? job.target->address.text() : job.name(i);
    const QString reason = reasonOf(error, *job.target, m_project);
    // The rules of a gateway name the variable themselves.
    refuse(job, i, name + QStringLiteral(": ") + withoutName(reason, job.target->address.tag),
           kExitRefused);
}

void Writes::checkAgainstProject()
{
    for (Job& job : m_jobs) {
        if (job.target && job.target->type())
            encode(job, *job.target->type());
    }
}

// The first value that is wrong is refused.
void Writes::encode(Job& job, const CipType& type)
{
    int i = 0;
    try {
        requireWritable(type, job.target->address.text());
    } catch (const UserError& error) {
        refuse(job, 0, QString::fromUtf8(error.what()), kExitUsage);
        return;
    }
    try {
        for (; i < job.elements.size(); ++i) {
            Element& element = job.elements[i];
            const StoredValue stored = job.target->scaling.stored(type, element.text);
            element.value = encodeElement(type, stored.value);
            if (stored.rounded)
                element.note = job.target->scaling.roundingNote(type, element.text, stored.value);
        }
    } catch (const UserError& error) {
        refuse(job, i, job.name(i) + QStringLiteral(": ") + QString::fromUtf8(error.what()),
               kExitUsage);
    }
}

void Writes::checkAgainstController(TagAccess& access, const Interrupt& interrupt)
{
    for (Job& job : m_jobs) {
        interrupt.throwIfRequested();
        checkAgainstController(job, access);
    }
}

void Writes::checkAgainstController(Job& job, TagAccess& access)
{
    const Target& target = *job.target;
    try {
        job.type = &access.typeOf(target.tag);
        target.requireType(*job.type);
        encode(job, *job.type);
        const QVector<QByteArray> before =
            access.read(target.tag, target.element, target.elements());
        for (int i = 0; i < job.elements.size(); ++i)
            job.elements[i].before = before.at(i);
        for (int i = 0; !job.isRefused() && i < job.elements.size(); ++i)
            access.requireAllowed(target.tag, target.element + i, job.elements.at(i).value);
    } catch (const TagRefused& error) {
        const int i = error.element() < 0 ? 0 : error.element() - target.element;
        refuse(job, i, error);
    } catch (const UserError& error) {
        if (error.status() != kExitUsage)
            throw;
        refuse(job, 0, QString::fromUtf8(error.what()), kExitUsage);
    }
}

int Writes::size() const
{
    int size = 0;
    for (const Job& job : m_jobs)
        size += job.elements.size();
    return size;
}

QStringList Writes::changes() const
{
    QStringList changes;
    for (const Job& job : m_jobs) {
        for (int i = 0; i < job.elements.size(); ++i) {
            const Element& element = job.elements.at(i);
            const QString note =
                element.note.isEmpty() ? element.note : QStringLiteral(" (%1)").arg(element.note);
            changes += job.change(i, element.value) + note;
        }
    }
    return changes;
}

bool Writes::isConfirmed(const QString& where, const Interrupt& interrupt) const
{
    const QStringList all = changes();
    for (const QString& change : all.size() > 1 ? all.mid(0, kMostAsked) : QStringList())
        m_output.error(change);
    if (all.size() > kMostAsked)
        m_output.error(QStringLiteral("and %1 more").arg(all.size() - kMostAsked));
    const QString what =
        all.size() == 1 ? all.first() : QStringLiteral("these %1 values").arg(all.size());
    return host::isConfirmed(QStringLiteral("write %1 to %2?").arg(what, where),
                             [&interrupt] { return interrupt.requested(); });
}

void Writes::showDryRun(const QString& where)
{
    for (Job& job : m_jobs) {
        for (int i = 0; i < job.elements.size(); ++i) {
            Element& element = job.elements[i];
            element.outcome = Outcome::DryRun;
            print(objectOf(job, i), job.change(i, element.value) +
                                        QStringLiteral(" would be written as %1, bytes %2")
                                            .arg(QLatin1String(job.type->name),
                                                 QString::fromLatin1(element.value.toHex(' '))));
            if (!element.note.isEmpty())
                m_output.note(job.name(i) + QStringLiteral(": ") + element.note);
        }
    }
    m_job = m_jobs.size();
    m_output.note(QStringLiteral("dry run on %1: types and values were read, nothing was written")
                      .arg(where));
}

void Writes::carryOut(TagAccess& access, const Interrupt& interrupt)
{
    Progress progress(m_output, QStringLiteral("writing"), size());
    int done = 0;
    for (; m_job < m_jobs.size(); ++m_job) {
        for (m_element = 0; m_element < m_jobs.at(m_job).elements.size(); ++m_element) {
            interrupt.throwIfRequested();
            Job& job = m_jobs[m_job];
            write(job, m_element, access);
            progress.clear();
            report(job, m_element);
            progress.show(++done);
        }
    }
}

void Writes::write(Job& job, int i, TagAccess& access)
{
    m_begun = true;
    Element& element = job.elements[i];
    const int at = job.target->element + i;
    try {
        element.outcome = Outcome::Unknown;
        access.write(job.target->tag, at, element.value);
        element.outcome = Outcome::Written;
        if (m_verify)
            verify(job, i, access);
    } catch (const TagRefused& error) {
        refuse(job, i, error);
    } catch (const NotWritten&) {
        element.outcome = Outcome::NotTried;
        throw;
    } catch (const UserError& error) {
        const bool written = element.outcome == Outcome::Written;
        element.error = job.name(i) +
                        QLatin1String(written ? ": was written, but not read back: "
                                              : ": nobody knows whether it was written: ") +
                        QString::fromUtf8(error.what());
        throw;
    }
}

// A value that cannot be read back was written all the same.
void Writes::verify(Job& job, int i, TagAccess& access)
{
    Element& element = job.elements[i];
    try {
        element.nowRead = access.read(job.target->tag, job.target->element + i, 1).first();
    } catch (const TagRefused& error) {
        element.error = job.name(i) + QStringLiteral(": was written, but cannot be read back: ") +
                        QString::fromStdString(error.why());
    }
    if (element.nowRead != element.value)
        m_status = std::max(m_status, kExitRefused);
}

void Writes::print(const Json& object, const QString& text) const
{
    try {
        m_output.data(object, text);
    } catch (const UserError& error) {
        // The writes that follow are done all the same.
        if (!m_outputFailure)
            m_outputFailure = error;
    }
}

void Writes::report(const Job& job, int i) const
{
    const Element& element = job.elements.at(i);
    const bool asWritten = !m_verify || element.nowRead == element.value;
    if (element.outcome != Outcome::Written || !element.error.isEmpty()) {
        print(objectOf(job, i));
        m_output.error(element.error);
        return;
    }
    const QString change = job.change(i, m_verify ? element.nowRead : element.value);
    const QString line = m_verify ? change : change + QStringLiteral(" (not read back)");
    print(objectOf(job, i), asWritten ? line : QString());
    if (!asWritten)
        m_output.error(line + QStringLiteral(" was read back after ") + job.text(element.value) +
                       QStringLiteral(" was written (the program may set it)"));
    if (!element.note.isEmpty())
        m_output.note(job.name(i) + QStringLiteral(": ") + element.note);
}

Json Writes::objectOf(const Job& job, int i) const
{
    const Element& element = job.elements.at(i);
    Json object = {{"name", job.argument.toStdString()}};
    if (job.target) {
        object["name"] = job.target->address.exactElementName(i).toStdString();
        object["station"] = job.target->tag.station;
        object["tag"] = job.target->tag.name.toStdString();
        object["element"] = job.target->element + i;
    }
    if (job.type)
        object["type"] = job.type->name;
    object["outcome"] = textOf(element.outcome);
    const auto shown = [&job](const QByteArray& value) {
        return jsonOf(job.target->scaling.shown(*job.type, decodeElement(*job.type, value)));
    };
    const bool known = element.outcome == Outcome::Written || element.outcome == Outcome::Unknown ||
                       element.outcome == Outcome::DryRun;
    if (known)
        object["old"] = shown(element.before);
    if (element.outcome == Outcome::DryRun) {
        object["new"] = shown(element.value);
        object["bytes"] = element.value.toHex().toStdString();
    }
    if (element.outcome == Outcome::Written) {
        object["written"] = shown(element.value);
        if (m_verify && !element.nowRead.isEmpty())
            object["value"] = shown(element.nowRead);
        if (m_verify)
            object["verified"] = element.nowRead == element.value;
    }
    if (known && !job.target->unit.isEmpty())
        object["unit"] = job.target->unit.toStdString();
    if (!element.error.isEmpty())
        object["error"] = withoutName(element.error, job.name(i)).toStdString();
    return object;
}

void Writes::close(const QString& whyNotTried)
{
    for (; m_job < m_jobs.size(); ++m_job, m_element = 0) {
        Job& job = m_jobs[m_job];
        const int from = m_element;
        for (; m_element < job.elements.size(); ++m_element) {
            Element& element = job.elements[m_element];
            if (element.outcome != Outcome::NotTried) {
                report(job, m_element);
                continue;
            }
            element.error = whyNotTried;
            print(objectOf(job, m_element));
        }
        if (m_begun)
            listNotTried(job, from);
    }
    summarise();
}

// Those of a job are at its end.
void Writes::listNotTried(const Job& job, int from) const
{
    while (from < job.elements.size() && job.elements.at(from).outcome != Outcome::NotTried)
        ++from;
    if (from == job.elements.size())
        return;
    TagAddress left = job.target->address;
    left.element += from;
    left.elements -= from;
    m_output.error(left.text() + QStringLiteral(": not tried"));
}

int Writes::count(Outcome outcome) const
{
    int count = 0;
    for (const Job& job : m_jobs)
        count += static_cast<int>(
            std::count_if(job.elements.begin(), job.elements.end(),
                          [outcome](const Element& e) { return e.outcome == outcome; }));
    return count;
}

void Writes::summarise() const
{
    QStringList counts;
    int total = 0;
    for (const Outcome outcome :
         {Outcome::Written, Outcome::Refused, Outcome::Unknown, Outcome::NotTried})
    {
        const int of = count(outcome);
        total += of;
        if (of > 0)
            counts += QString::number(of) + ' ' + QLatin1String(textOf(outcome));
    }
    const QString all =
        m_begun ? counts.join(QStringLiteral(", "))
                : QStringLiteral("nothing was written: ") + counts.join(QStringLiteral(", "));
    // Where the outcomes cannot be printed, it is the only thing that tells them.
    if (m_outputFailure)
        m_output.error(all);
    else if (total >= 2 && count(Outcome::Written) != total && count(Outcome::DryRun) == 0)
        m_output.note(all);
}

// What a person is asked before the writes: about a port that nobody named, and about several
// values.
bool isToBeAsked(const WriteOptions& options, const Writes& writes)
{
    return options.line.projectIsFound || (writes.size() > 1 && !options.yes && canAsk());
}

QString placeOf(const WriteOptions& options, const Route& route)
{
    const QString port = route.project.port.device;
    const QString line = !port.isEmpty() ? port
                         : route.gateway ? route.gateway->line
                                         : QString::fromStdString(route.source);
    return options.line.projectIsFound
               ? line + QStringLiteral(", the port of ") + host::textOf(options.line.project)
               : line;
}

// The answer may take so long that the controller has closed the connection, or that others have
// written. Therefore all is read again: a read may connect again, and a write that is lost may not
// be repeated.
void confirm(Writes& writes, const WriteOptions& options, const Route& route, Access& access)
{
    access.tags().rest();
    const bool confirmed = writes.isConfirmed(placeOf(options, route), access.interrupt());
    access.interrupt().throwIfRequested();
    if (!confirmed)
        throw UserError("nothing was written: not confirmed", kExitRefused);
    writes.checkAgainstController(access.tags(), access.interrupt());
}

void writeAll(Writes& writes, const WriteOptions& options, const Route& route)
{
    const Project bare = withoutVariables(route.project, writes.targets());
    Access access(options.line, route, bare);
    writes.checkAgainstController(access.tags(), access.interrupt());
    if (!writes.anyRefused() && options.dryRun) {
        writes.showDryRun(placeOf(options, route));
    } else if (!writes.anyRefused()) {
        if (isToBeAsked(options, writes))
            confirm(writes, options, route, access);
        if (!writes.anyRefused())
            writes.carryOut(access.tags(), access.interrupt());
    }
    access.finish();
}

// Nobody named the port: only a person who sees it can allow the write.
void requirePersonForFoundPort(const WriteOptions& options)
{
    if (!options.line.projectIsFound || options.dryRun || canAsk())
        return;
    const std::string& file = options.line.project;
    throw UserError(file +
                    ": write uses the port of a project that it found only on a "
                    "terminal, where it asks (name the file with --project " +
                    file + ", or the port with --port)");
}

int run(WriteOptions options)
{
    const Output output(options.output.json, options.output.quiet);
    findProjectForPort(options.line);
    const auto names = [&options](const Project& project) {
        return variablesAssigned(options.assignments, project);
    };
    const Route route = routeOf(options.line, "write", output, {names, options.assignments});
    Writes writes(options, route.project, output);
    writes.checkAgainstProject();
    try {
        if (!writes.anyRefused()) {
            requirePort(route.project, options.line);
            requirePersonForFoundPort(options);
            writeAll(writes, options, route);
        }
    } catch (const UserError& error) {
        writes.close(QString::fromUtf8(error.what()));
        if (writes.outputFailure())
            output.error(QString::fromUtf8(writes.outputFailure()->what()));
        throw;
    }
    writes.close(QStringLiteral("another one is refused"));
    if (writes.outputFailure())
        throw UserError(*writes.outputFailure());
    return writes.status();
}

} // namespace

void addWrite(CommandLine& line)
{
    const auto options = std::make_shared<WriteOptions>();
    CommandOptions write = line.addCommand("write", "Write tags, and read them back",
                                           [options] { return run(*options); });
    write.requiredTexts("TAG=VALUE", options->assignments,
                        "TAG=VALUE, TAG[INDEX]=VALUE or TAG[FIRST..LAST]=VALUE[,VALUE...]");
    write.flag("--dry-run", options->dryRun,
               "Show what would be sent, in words and bytes, and write nothing; types and values "
               "are read");
    write.flag("--yes,-y", options->yes, "Write several values without a question");
    write.flagThatClears("--no-verify", options->verify, "Do not read back what was written");
    options->target.addTo(write, options->line);
    options->line.addTo(write);
    options->output.addTo(write);
    write.footer(
        std::string(kNamesHelp) +
        "Values: decimal numbers, for integers and words also 0x numbers; true, false, on or off; "
        "text of at\nmost 80 characters up to U+00FF. The driver can write BOOL, BYTE, "
        "SHORT_STRING, all "
        "integers\nand reals; no dates, times or other words of bits.\n"
        "A variable of several elements takes one value for each. One value for all needs the "
        "range:\nTank[0..19]=1.\n"
        "A variable with gain and offset takes the value that read and watch show. When a "
        "number\nis rounded, a note tells which value is stored. --raw takes the controller's own "
        "number, and\nis needed for integers whose scaled or own number is above "
        "9007199254740991.\n"
        "Nothing is written unless all of it is allowed: values, types, indices (of a string only\n"
        "0), and that the elements exist, which is known by reading them. No element may be given\n"
        "twice. Through a gateway its rules are asked, too. Should the controller refuse\n"
        "one all the same, the rest is still tried.\n"
        "Each is shown with its old and its new value. On a terminal, several values are written\n"
        "only after a question, unless --yes is given; without a terminal nobody is asked.\n"
        "Each is reported as written, refused or not tried; as unknown when nobody answered.\n"
        "With --json each element has an object with its \"outcome\", and \"error\" if there is "
        "one.\n"
        "Example:\n  micro850-host write Setpoint=22.5 'Recipe[3]=0x10' "
        "'Recipe[4..6]=1,2,3' --port /tmp/plc\n" +
        kStatuses);
}

} // namespace micro850::host
