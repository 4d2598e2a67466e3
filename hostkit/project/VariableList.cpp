#include "VariableList.h"

#include "TagAddress.h"
#include "UserError.h"

#include <QtCore/QRegularExpression>
#include <QtCore/QSet>

#include <algorithm>

namespace micro850::host {

namespace {

struct Columns
{
    int name = -1;
    int type = -1;
    int dimension = -1;
};

QChar separatorOf(const QString& heading)
{
    const QString candidates = QStringLiteral(",;\t");
    return *std::max_element(candidates.begin(), candidates.end(), [&heading](QChar a, QChar b) {
        return heading.count(a) < heading.count(b);
    });
}

// Programming tools write headings with different case, blanks and signs.
QString plain(const QString& heading)
{
    QString letters;
    for (const QChar c : heading.toLower()) {
        if (c.isLetterOrNumber())
            letters += c;
    }
    return letters;
}

Columns columnsOf(const QStringList& headings, const QString& file)
{
    Columns columns;
    for (int i = 0; i < headings.size(); ++i) {
        const QString heading = plain(headings.at(i));
        if (QStringList({"name", "variable", "variablename", "tag", "tagname"}).contains(heading))
            columns.name = i;
        else if (QStringList({"datatype", "type", "variabletype"}).contains(heading))
            columns.type = i;
        else if (QStringList({"dimension", "dimensions", "arraysize", "size"}).contains(heading))
            columns.dimension = i;
    }
    if (columns.name >= 0 && columns.type >= 0)
        return columns;
    throw UserError(file.toStdString() + ": line 1: no column \"" +
                    (columns.name < 0 ? "Name" : "Data type") +
                    "\" (the first line names the columns: Name, Data type, Dimension)");
}

// "10", "[0..9]" or "1..10"; 1 for an empty text, 0 for anything else.
int lengthOf(const QString& dimension)
{
    static const QRegularExpression form(
        QStringLiteral("^\\[?\\s*(\\d{1,5})\\s*(?:\\.\\.\\s*(\\d{1,5}))?\\s*\\]?$"));
    if (dimension.isEmpty())
        return 1;
    const QRegularExpressionMatch match = form.match(dimension);
    if (!match.hasMatch())
        return 0;
    const int first = match.captured(1).toInt();
    const int length = match.captured(2).isEmpty() ? first : match.captured(2).toInt() - first + 1;
    return length <= kLargestElement + 1 ? std::max(0, length) : 0;
}

// Reads a line into `variable`. Returns why it cannot be read, or an empty text.
QString problemOf(const QStringList& fields, const Columns& columns, Variable& variable)
{
    const QString type = fields.value(columns.type).trimmed().toUpper();
    const QString dimension = columns.dimension < 0 ? QString() : fields.value(columns.dimension);
    variable.length = lengthOf(dimension.trimmed());
    if (variable.name.size() > kLongestTag)
        return QStringLiteral("a name has at most %1 characters").arg(kLongestTag);
    if (!isPlain(variable.name))
        return QStringLiteral("is not a tag (letters, digits and signs without blanks)");
    if (variable.length == 0)
        return QStringLiteral("the dimension \"%1\" is not one run of elements").arg(dimension);
    const bool untyped = type == QLatin1String("STRING"); // on the wire it may be one of several
    for (const CipType& known : cipTypes()) {
        if (!untyped && type == QLatin1String(known.name))
            variable.type = &known;
    }
    if (!variable.type && !untyped)
        return QStringLiteral("\"%1\" is not an elementary type").arg(type);
    const bool string = untyped || variable.type->kind == CipKind::String;
    return string && variable.length != 1
               ? QStringLiteral("of several strings only the first can be read")
               : QString();
}

} // namespace

QStringList csvFields(const QString& line, QChar separator)
{
    QStringList fields = {QString()};
    bool quoted = false;
    for (int i = 0; i < line.size(); ++i) {
        const QChar c = line.at(i);
        if (c == '"' && quoted && i + 1 < line.size() && line.at(i + 1) == '"') {
            fields.last() += c;
            ++i;
        } else if (c == '"') {
            quoted = !quoted;
        } else if (c == separator && !quoted) {
            fields.append(QString());
        } else {
            fields.last() += c;
        }
    }
    return fields;
}

VariableList VariableList::fromCsv(const QString& text, const QString& name)
{
    QString whole = text;
    if (whole.startsWith(QChar(0xFEFF)))
        whole.remove(0, 1);
    QStringList lines = whole.split('\n');
    for (QString& line : lines) {
        if (line.endsWith('\r'))
            line.chop(1);
    }
    const QChar separator = separatorOf(lines.first());
    const Columns columns = columnsOf(csvFields(lines.first(), separator), name);
    VariableList list;
    QSet<QString> names;
    for (int i = 1; i < lines.size(); ++i) {
        const QStringList fields = csvFields(lines.at(i), separator);
        Variable variable;
        variable.name = variable.tag = fields.value(columns.name).trimmed();
        if (variable.name.isEmpty())
            continue;
        QString problem = problemOf(fields, columns, variable);
        if (names.contains(variable.name))
            problem = QStringLiteral("is listed twice");
        names.insert(variable.name);
        if (problem.isEmpty())
            list.variables.append(variable);
        else
            list.ignored +=
                QStringLiteral("line %1: %2: %3").arg(i + 1).arg(variable.name, problem);
    }
    return list;
}

} // namespace micro850::host
