#ifndef MICRO850_HOST_VARIABLELIST_H
#define MICRO850_HOST_VARIABLELIST_H

#include "Project.h"

#include <QtCore/QStringList>

namespace micro850::host {

/// The variables of a list that a programming tool exported.
struct VariableList
{
    /// With comment, unit and station, where the list has them.
    QVector<Variable> variables;
    /// True when a column names the stations.
    bool hasStations = false;
    /// The lines without a readable variable, each with the reason: "line 7: MyTimer: ... (left
    /// out)"; before them, the first line that is not UTF-8.
    QStringList ignored;
    /// What is different in the program of the controller: "line 3: A: index 1 of the program is
    /// element 0 here"; before them, the columns that have no place in a project.
    QStringList notes;

    /// Reads a file of at most 16 MiB as fromBytes() does.
    static VariableList fromFile(const QString& path);
    /// The same of a file that may also be a text with a name in each line: one without comma,
    /// semicolon and tab. "-" is standard input.
    static VariableList fromFileOfNames(const QString& path);
    /// Reads UTF-8 or UTF-16 with fromCsv(), or Windows-1252 when it is neither. Throws UserError
    /// for a byte 00 and for UTF-16 that is cut short.
    static VariableList fromBytes(const QByteArray& bytes, const QString& name);
    /// Reads a text separated by comma, semicolon or tab. A heading among its first lines names the
    /// columns, in English or German, in any order and case: name, data type, dimension of an
    /// array, comment, unit and station. The type may name the dimension itself, as in
    /// "ARRAY[0..9] OF INT". A field in double quotes may have separators and line ends. Throws
    /// UserError for a heading without name or type and for a quote that is not closed. Messages
    /// call the file `name`.
    static VariableList fromCsv(const QString& text, const QString& name);
    /// Reads a text with a name in each line, or with fromCsv() one that has separators.
    static VariableList fromNames(const QString& text, const QString& name);
};

/// The fields of one separated line; one in double quotes may hold the separator. Throws UserError
/// for a quote that is not closed.
QStringList csvFields(const QString& line, QChar separator);

} // namespace micro850::host

#endif
