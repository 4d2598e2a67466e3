#ifndef MICRO850_HOST_VARIABLELIST_H
#define MICRO850_HOST_VARIABLELIST_H

#include "Project.h"

#include <QtCore/QStringList>

namespace micro850::host {

/// The variables of a list that a programming tool exported.
struct VariableList
{
    QVector<Variable> variables;
    /// The lines without a readable variable, each with the reason: "line 7: MyTimer: ...".
    QStringList ignored;

    /// Reads a text separated by comma, semicolon or tab, whose heading names the columns: name,
    /// data type, and the dimension of an array, in any order and case. Throws UserError for a
    /// heading without name or type. Messages call the file `name`.
    static VariableList fromCsv(const QString& text, const QString& name);
};

/// The fields of one separated line; a quoted one may hold the separator.
QStringList csvFields(const QString& line, QChar separator);

} // namespace micro850::host

#endif
