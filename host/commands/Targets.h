#ifndef MICRO850_HOST_COMMANDS_TARGETS_H
#define MICRO850_HOST_COMMANDS_TARGETS_H

#include "Commands.h"
#include "Elements.h"
#include "Project.h"
#include "Scaling.h"
#include "TagAccess.h"
#include "TagAddress.h"

namespace micro850::host {

/// What a command asks for: elements of a controller's tag, as the user names them.
struct Target
{
    TagKey tag;
    /// Its indices count within the project's variable, when one is named.
    TagAddress address;
    int element = 0; ///< the first element, in the tag
    /// The variable of the project that is named; null for any other tag.
    const Variable* variable = nullptr;
    Scaling scaling;
    QString unit;

    /// The type that the project requires, or null.
    const CipType* type() const { return variable ? variable->type : nullptr; }
    int elements() const { return address.elements; }
    bool isBit() const { return address.bit >= 0; }
    /// What is shown of the bytes of an element of this type: the whole value, or the bit that is
    /// named, a BOOL.
    const char* shownType(const CipType& type) const { return isBit() ? "BOOL" : type.name; }
    CipValue valueIn(const CipType& type, const QByteArray& bytes) const;
    /// A value as lines of output show it, with its unit.
    QString text(const CipType& type, const CipValue& value) const;
    /// The name of what the controller refused: one of the elements, or all of them.
    QString nameOf(const TagRefused& refused) const;
    /// Throws UserError when the controller's type is not the project's, and when the driver cannot
    /// reach the elements of a tag of that type, or it has no such bit.
    void requireType(const CipType& controllers) const;
    /// Throws UserError for what only `read` takes: a bit, and all elements up to an end that only
    /// the controller knows.
    void requireWholeElements() const;
};

/// The options of the commands that take names of tags.
struct TargetOptions
{
    int station = -1; ///< of tags that no project names; below 0: the project's first station
    bool raw = false;

    void addTo(CommandOptions& command, LineOptions& line);
};

/// What an argument names. Throws UserError, with the variable whose name is nearest, for a text
/// that is neither a variable of the project nor a tag.
TagAddress addressOf(const QString& argument, const Project& project);
Assignment assignmentOf(const QString& argument, const Project& project);
/// The variables of the project that such arguments name; others are left out.
QStringList variablesNamed(const std::vector<std::string>& arguments, const Project& project);
QStringList variablesAssigned(const std::vector<std::string>& arguments, const Project& project);
/// Throws UserError for what can be known without the controller: elements that the variable does
/// not have, an index into a string, a station that is disabled. The project must live longer than
/// the target.
Target targetOf(const TagAddress& address, const Project& project, const TargetOptions& options);
/// The reason, with the variable whose name is nearest when the controller refuses the tag itself
/// and no variable has its name.
QString reasonOf(const TagRefused& refused, const Target& target, const Project& project);

/// What reasonOf() puts behind the reason.
QString hintFor(const Target& target, const Project& project);

/// A message without "NAME: " at its begin: in an object the name has a key of its own.
QString withoutName(const QString& message, const QString& name);

/// The project for single reads and writes of these targets: nothing else is polled.
Project withoutVariables(Project project, const QVector<Target>& targets);

/// The part of the help that says how a tag is named.
extern const char kNamesHelp[];
/// What `read` takes besides.
extern const char kMoreNamesHelp[];

} // namespace micro850::host

#endif
