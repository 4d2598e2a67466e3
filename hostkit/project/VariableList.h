#ifndef MICRO850_HOST_VARIABLELIST_H
#define MICRO850_HOST_VARIABLELIST_H

#include "Project.h"

#include <QtCore/QStringList>

namespace micro850::host {

/// The variables of a list that a programming tool exported.
struct VariableList
{
    QVector<Variable> variables;
    /// The lines without a readable variable, each with the reason: "line 7: MyTimer: ... (left
    /// out)"; before them, the first line that is not UTF-8.
    QStringList ignored;
    /// What is different in the program of the controller: "line 3: A: index 1 of the program is
    /// element 0 here".
    QStringList notes;

    /// Reads a file of at most 16 MiB as fromBytes() does.
    static VariableList fromFile(const QString& path);
    /// Reads UTF-8 with fromCsv(), or Latin-1 when it is not UTF-8. Throws UserError for UTF-16 and
    /// for a byte 00.
    static VariableList fromBytes(const QByteArray& bytes, const QString& name);
    /// Reads a text separated by comma, semicolon or tab, whose heading names the columns: name,
    /// data type, and the dimension of an array, in any order and case. A field in double quotes
    /// may have separators and line ends. Throws UserError for a heading without name or type and
    /// for a quote that is not closed. Messages call the file `name`.
    static VariableList fromCsv(const QString& text, const QString& name);
};

/// The fields of one separated line; one in double quotes may hold the separator. Throws UserError
/// for a quote that is not closed.
QStringList csvFields(const QString& line, QChar separator);

} // namespace micro850::host

#endif
