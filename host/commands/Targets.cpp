#include "Targets.h"

#include "Connection.h"
#include "UserError.h"

#include <algorithm>

namespace micro850::host {

const char kNamesHelp[] =
    "TAG is a tag of the controller or, with --project, a variable of the project. Without an\n"
    "index, a tag is its element 0, and a variable is all its elements. The index counts within\n"
    "the variable, from 0. A name may be put in double quotes, and must be if it could be taken\n"
    "for something else: '\"Fill = 5\"[2]'.\n";
const char kMoreNamesHelp[] =
    "TAG[] is a whole array and TAG[5..] the rest of it; its length is found by reading single\n"
    "elements. TAG.3 and TAG[5].3 are one bit, from 0, of an integer or a word of bits.\n";

namespace {

IsName namesOf(const Project& project)
{
    return [&project](const QString& name) { return project.variable(name) != nullptr; };
}

// " (did you mean X?)", unless there is a variable of that name. Without a project, X is a tag of
// the one in the folder.
std::string similarName(const Project& project, const QString& name)
{
    if (project.variable(name))
        return std::string();
    QStringList known = project.variables.isEmpty() ? tagsInFolder() : QStringList();
    for (const Variable& variable : project.variables)
        known += variable.name;
    std::vector<std::string> names;
    for (const QString& each : known)
        names.push_back(shownName(each).toStdString());
    return didYouMean(name.toStdString(), names);
}

void requireElementsOf(const Variable& variable, const TagAddress& address)
{
    const int end = address.element + address.elements;
    if (end <= variable.length)
        return;
    const int wrong = std::max(address.element, variable.length);
    TagAddress all;
    all.tag = variable.name;
    all.indexed = true;
    all.elements = variable.length;
    throw UserError((address.elementName(wrong - address.element) +
                     QStringLiteral(": is not among the elements of the project's variable, ") +
                     all.text() +
                     QStringLiteral(" (correct the index, or \"length\" in the "
                                    "project)"))
                        .toStdString());
}

// What the driver cannot reach because of the project, the user cannot correct with an index.
void requireReachableOf(const Target& target, const CipType& type)
{
    const bool reachable =
        type.kind != CipKind::String || (target.element == 0 && target.elements() == 1);
    const Variable* variable = target.variable;
    if (!reachable && variable && (variable->element != 0 || variable->length != 1)) {
        const bool element = variable->element != 0;
        throw UserError((shownName(variable->name) +
                         QStringLiteral(": of a string only element 0 can be read and written, but "
                                        "its \"%1\" in the project is %2 (leave the key out)")
                             .arg(QLatin1String(element ? "element" : "length"))
                             .arg(element ? variable->element : variable->length))
                            .toStdString());
    }
    requireReachable(type, target.element, target.elements(), target.address.text());
}

// Bits are those of the controller's number.
void requireBitOf(const Target& target, const CipType& type)
{
    const int bit = target.address.bit;
    const bool hasBits = type.kind == CipKind::Signed || type.kind == CipKind::Unsigned ||
                         type.kind == CipKind::Bits;
    if (bit < 0 || (hasBits && bit < 8 * type.size))
        return;
    const std::string what = hasBits
                                 ? "which has the bits 0 to " + std::to_string(8 * type.size - 1)
                                 : "which has no bits that can be read";
    throw UserError(target.address.text().toStdString() + ": is of type " + type.name + ", " +
                    what + " (leave the bit out, or correct it)");
}

// Makes it a target of elements of the variable.
void bind(Target& target, const Variable& variable)
{
    TagAddress& address = target.address;
    if (!address.indexed || address.toEnd)
        address.elements = std::max(variable.length - address.element, 1);
    address.toEnd = false;
    address.indexed = address.indexed || variable.length > 1;
    target.tag = {variable.station, variable.tag};
    target.element += variable.element;
    target.variable = &variable;
    if (variable.type) {
        requireReachableOf(target, *variable.type);
        requireBitOf(target, *variable.type);
    }
    requireElementsOf(variable, address);
    if (!target.isBit()) {
        target.scaling = Scaling(variable);
        target.unit = variable.unit;
    }
}

template<typename Parse>
QStringList variablesOf(const std::vector<std::string>& arguments, const Project& project,
                        Parse parse)
{
    QStringList names;
    for (const std::string& argument : arguments) {
        try {
            const QString name = parse(textOf(argument)).tag;
            if (project.variable(name))
                names += name;
        } catch (const UserError&) { // it names none
        }
    }
    return names;
}

void requireEnabled(const Project& project, const Target& target)
{
    for (const StationSettings& station : project.stations) {
        if (station.number == target.tag.station && !station.enabled) {
            throw UserError((target.address.text() +
                             QStringLiteral(": station %1 is disabled in the project (set its "
                                            "\"enabled\" to true)")
                                 .arg(station.number))
                                .toStdString());
        }
    }
}

} // namespace

void TargetOptions::addTo(CommandOptions& command, LineOptions& line)
{
    command.text("--project", line.project,
                 "Project file: its port, and its variables by their names");
    command.integer(
        "--station", station, 0, 65535,
        "Station of tags that no project names (default 1); the number is not sent, it only "
        "separates what the driver keeps");
    command.flag("--raw", raw, kRawHelp);
}

CipValue Target::valueIn(const CipType& type, const QByteArray& bytes) const
{
    const CipValue whole = decodeElement(type, bytes);
    if (!isBit())
        return whole;
    const quint64 number = whole.kind() == CipKind::Signed
                               ? static_cast<quint64>(whole.signedNumber())
                               : whole.unsignedNumber();
    return CipValue::ofBoolean((number >> address.bit & 1U) != 0);
}

QString Target::text(const CipType& type, const CipValue& value) const
{
    const QString text = scaling.text(type, value);
    return unit.isEmpty() ? text : text + ' ' + unit;
}

QString Target::nameOf(const TagRefused& refused) const
{
    return refused.element() < 0 ? address.text()
                                 : address.elementName(refused.element() - element);
}

void Target::requireType(const CipType& controllers) const
{
    if (type() && type() != &controllers) {
        throw UserError(address.text().toStdString() + ": is " + controllers.name +
                        " in the controller, " + type()->name +
                        " in the project (correct the project)");
    }
    requireReachableOf(*this, controllers);
    requireBitOf(*this, controllers);
}

void Target::requireWholeElements() const
{
    const std::string name = address.text().toStdString();
    if (address.bit >= 0)
        throw UserError(name + ": a bit can only be read, with read (name the whole " +
                        shownName(address.tag).toStdString() + ")");
    if (address.toEnd)
        throw UserError(name +
                        ": only read looks for the end of an array (name both indices, as "
                        "in " +
                        shownName(address.tag).toStdString() + "[0..9])");
}

TagAddress addressOf(const QString& argument, const Project& project)
{
    try {
        return TagAddress::fromText(argument, namesOf(project));
    } catch (const UserError& error) {
        throw UserError(error.what() + similarName(project, argument.section('[', 0, 0)));
    }
}

Assignment assignmentOf(const QString& argument, const Project& project)
{
    try {
        return Assignment::fromText(argument, namesOf(project));
    } catch (const UserError& error) {
        const QString name = argument.section('=', 0, 0).section('[', 0, 0);
        throw UserError(error.what() + similarName(project, name));
    }
}

QStringList variablesNamed(const std::vector<std::string>& arguments, const Project& project)
{
    return variablesOf(arguments, project, [&project](const QString& argument) {
        return TagAddress::fromText(argument, namesOf(project));
    });
}

QStringList variablesAssigned(const std::vector<std::string>& arguments, const Project& project)
{
    return variablesOf(arguments, project, [&project](const QString& argument) {
        return Assignment::fromText(argument, namesOf(project)).address;
    });
}

Target targetOf(const TagAddress& address, const Project& project, const TargetOptions& options)
{
    Target target;
    target.tag = {options.station >= 0 ? options.station : project.stations.first().number,
                  address.tag};
    target.address = address;
    target.element = address.element;
    if (const Variable* variable = project.variable(address.tag))
        bind(target, *variable);
    if (options.raw) {
        target.scaling = Scaling::ofRaw();
        target.unit.clear();
    }
    requireEnabled(project, target);
    return target;
}

QString reasonOf(const TagRefused& refused, const Target& target, const Project& project)
{
    const QString why = QString::fromStdString(refused.why());
    return refused.element() < 0 ? why + hintFor(target, project) : why;
}

QString hintFor(const Target& target, const Project& project)
{
    return QString::fromStdString(similarName(project, target.address.tag));
}

QString withoutName(const QString& message, const QString& name)
{
    const QString prefix = name + QStringLiteral(": ");
    return message.startsWith(prefix) ? message.mid(prefix.size()) : message;
}

Project withoutVariables(Project project, const QVector<Target>& targets)
{
    project.variables.clear();
    for (const Target& target : targets) {
        if (!project.hasStation(target.tag.station)) {
            StationSettings station;
            station.number = target.tag.station;
            project.stations.append(station);
        }
    }
    return project;
}

} // namespace micro850::host
