#include "VariableList.h"

#include "TagAddress.h"
#include "UserError.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>
#include <QtCore/QSet>
#include <QtCore/QTextCodec>

#include <algorithm>

namespace micro850::host {

namespace {

// A list of 100,000 variables with remarks has half of that.
const int kLargestList = 16 << 20;

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

struct Dimension
{
    qint64 first = 0;  ///< index in the program of the controller
    qint64 length = 1; ///< below 1 for what is not one run of elements
};

// "10", "[0..9]" or "1..10"; one element for an empty text.
Dimension dimensionOf(const QString& text)
{
    static const QRegularExpression form(
        QStringLiteral("^\\[?\\s*(\\d{1,18})\\s*(?:\\.\\.\\s*(\\d{1,18}))?\\s*\\]?$"));
    if (text.isEmpty())
        return {};
    const QRegularExpressionMatch match = form.match(text);
    if (!match.hasMatch())
        return {0, 0};
    const qint64 number = match.captured(1).toLongLong();
    if (match.captured(2).isEmpty())
        return {0, number};
    return {number, match.captured(2).toLongLong() - number + 1};
}

// Reads the length into `variable`. Returns why it is none, or an empty text.
QString problemOfDimension(const QString& text, const Dimension& dimension, Variable& variable)
{
    if (dimension.length < 1)
        return QStringLiteral("the dimension \"%1\" is not one run of elements").arg(text);
    if (dimension.length > kLargestElement + 1)
        return QStringLiteral("the dimension \"%1\" is too long (at most %2 elements)")
            .arg(text)
            .arg(kLargestElement + 1);
    variable.length = static_cast<int>(dimension.length);
    return QString();
}

// Reads a line into `variable`. Returns why it cannot be read, or an empty text.
QString problemOf(const QStringList& fields, const Columns& columns, Variable& variable)
{
    const QString type = fields.value(columns.type).trimmed().toUpper();
    if (variable.name.size() > kLongestTag)
        return QStringLiteral("a name has at most %1 characters").arg(kLongestTag);
    if (!isPlain(variable.name))
        return QStringLiteral("is not a tag (letters, digits and signs without blanks)");
    const QString text = fields.value(columns.dimension).trimmed();
    const QString problem = problemOfDimension(text, dimensionOf(text), variable);
    if (!problem.isEmpty())
        return problem;
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

/// The lines of a separated text. A quote at the beginning of a field opens it; the field may then
/// hold separators and line ends. A quote anywhere else is a character, such as in 5".
class CsvReader
{
public:
    CsvReader(const QString& text, const std::string& file) : m_text(text), m_file(file) {}

    bool atEnd() const { return m_at >= m_text.size(); }
    /// The line on which the next fields begin.
    int line() const { return m_line; }
    void setSeparator(QChar separator) { m_separator = separator; }

    /// The fields up to the end of a line. Throws UserError for a quote that is never closed.
    QStringList fields()
    {
        QStringList fields = {field()};
        while (!atEnd() && m_text.at(m_at) == m_separator) {
            ++m_at;
            fields.append(field());
        }
        if (!atEnd())
            ++m_at;
        ++m_line;
        for (QString& each : fields) {
            if (each.endsWith('\r'))
                each.chop(1);
        }
        return fields;
    }

private:
    QString field()
    {
        QString text;
        if (!atEnd() && m_text.at(m_at) == '"')
            text = quoted();
        while (!atEnd() && m_text.at(m_at) != m_separator && m_text.at(m_at) != '\n')
            text += m_text.at(m_at++);
        return text;
    }
    // Lines within quotes count too, so that messages name the right one.
    QString quoted()
    {
        const int opened = m_line;
        QString text;
        for (++m_at; !atEnd(); ++m_at) {
            const QChar c = m_text.at(m_at);
            if (c == '"') {
                const bool doubled = m_at + 1 < m_text.size() && m_text.at(m_at + 1) == '"';
                if (!doubled) {
                    ++m_at;
                    return text;
                }
                ++m_at;
            }
            m_line += c == '\n' ? 1 : 0;
            text += c;
        }
        throw UserError(m_file + ": line " + std::to_string(opened) +
                        ": a field opens with \" that no other \" closes");
    }

    const QString& m_text;
    const std::string m_file;
    QChar m_separator = ',';
    int m_at = 0;
    int m_line = 1;
};

int lineOf(const QByteArray& bytes, int at)
{
    return 1 + static_cast<int>(std::count(bytes.begin(), bytes.begin() + at, '\n'));
}

// Where the bytes are not UTF-8, or below 0.
int firstNotUtf8(const QByteArray& bytes)
{
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
    const QTextCodec* utf8 = QTextCodec::codecForMib(106);
    // Line by line: the state says how many characters are wrong, not where.
    for (int at = 0; at < bytes.size();) {
        const int stop = bytes.indexOf('\n', at);
        const int end = stop < 0 ? bytes.size() : stop + 1;
        utf8->toUnicode(bytes.constData() + at, end - at, &state);
        if (state.invalidChars > 0 || state.remainingChars > 0)
            return at;
        at = end;
    }
    return -1;
}

} // namespace

QStringList csvFields(const QString& line, QChar separator)
{
    CsvReader reader(line, std::string());
    reader.setSeparator(separator);
    return reader.fields();
}

VariableList VariableList::fromFile(const QString& path)
{
    QFile file(path);
    if (QFileInfo(path).isDir())
        throw UserError(path.toStdString() + ": is a directory (name the exported list)");
    if (!file.open(QIODevice::ReadOnly)) {
        throw UserError(path.toStdString() + ": cannot be read: " +
                        file.errorString().toStdString() + " (name the exported list)");
    }
    QByteArray bytes;
    while (bytes.size() <= kLargestList) {
        const QByteArray part = file.read(kLargestList + 1 - bytes.size());
        if (part.isEmpty())
            break;
        bytes += part;
    }
    if (file.error() != QFileDevice::NoError)
        throw UserError(path.toStdString() +
                            ": cannot be read: " + file.errorString().toStdString(),
                        kExitRefused);
    return fromBytes(bytes, path);
}

VariableList VariableList::fromBytes(const QByteArray& bytes, const QString& name)
{
    const std::string file = name.toStdString();
    if (bytes.size() > kLargestList)
        throw UserError(file + ": is larger than " + std::to_string(kLargestList >> 20) +
                        " MiB (export fewer variables)");
    if (bytes.startsWith("\xFF\xFE") || bytes.startsWith("\xFE\xFF"))
        throw UserError(file + ": is UTF-16 (save the list as CSV UTF-8)");
    const int zero = bytes.indexOf('\0');
    if (zero >= 0)
        throw UserError(file + ": line " + std::to_string(lineOf(bytes, zero)) +
                        ": has a byte 00, so it is not a text (save the list as CSV UTF-8)");
    const int wrong = firstNotUtf8(bytes);
    VariableList list =
        fromCsv(wrong < 0 ? QString::fromUtf8(bytes) : QString::fromLatin1(bytes), name);
    if (wrong >= 0)
        list.ignored.prepend(QStringLiteral("line %1: is not UTF-8, so the file is read as Latin-1")
                                 .arg(lineOf(bytes, wrong)));
    return list;
}

VariableList VariableList::fromCsv(const QString& text, const QString& name)
{
    QString whole = text;
    if (whole.startsWith(QChar(0xFEFF)))
        whole.remove(0, 1);
    const QChar separator = separatorOf(whole.section('\n', 0, 0));
    CsvReader reader(whole, name.toStdString());
    reader.setSeparator(separator);
    const Columns columns = columnsOf(reader.fields(), name);
    VariableList list;
    QSet<QString> names;
    while (!reader.atEnd()) {
        const int line = reader.line();
        const QStringList fields = reader.fields();
        Variable variable;
        variable.name = variable.tag = fields.value(columns.name).trimmed();
        const QString place = QStringLiteral("line %1: ").arg(line);
        if (variable.name.isEmpty()) {
            if (!fields.join(QString()).trimmed().isEmpty())
                list.ignored += place + QStringLiteral("has no name (left out)");
            continue;
        }
        QString problem = problemOf(fields, columns, variable);
        if (names.contains(variable.name))
            problem = QStringLiteral("is listed twice");
        names.insert(variable.name);
        if (!problem.isEmpty()) {
            list.ignored += place + variable.name + QStringLiteral(": ") + problem +
                            QStringLiteral(" (left out)");
            continue;
        }
        list.variables.append(variable);
        const qint64 first = dimensionOf(fields.value(columns.dimension).trimmed()).first;
        if (first != 0)
            list.notes += place + variable.name +
                          QStringLiteral(": index %1 of the program is element 0 here").arg(first);
    }
    return list;
}

} // namespace micro850::host
