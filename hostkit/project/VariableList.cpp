#include "VariableList.h"

#include "TagAddress.h"
#include "UserError.h"
#include "Visible.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>
#include <QtCore/QSet>
#include <QtCore/QTextCodec>

#include <algorithm>
#include <array>
#include <utility>

namespace micro850::host {

namespace {

// A list of 100,000 variables with remarks has half of that.
const int kLargestList = 16 << 20;
const int kLargestStation = 65535;

// Before the heading a tool may write a title, a date and empty lines.
const int kMostLinesBeforeHeading = 20;

enum Column { Name, Type, DimensionText, Comment, Unit, StationNumber, ColumnCount };

/// Where each column is in a line; below 0 for one that the list does not have.
struct Columns
{
    std::array<int, ColumnCount> at;
    QStringList unused; ///< headings of other columns
    int count = 0;      ///< of all of them

    Columns() { at.fill(-1); }
    bool isHeading() const { return at[Name] >= 0 && at[Type] >= 0; }
    int known() const
    {
        return static_cast<int>(std::count_if(at.begin(), at.end(), [](int i) { return i >= 0; }));
    }
    QString of(const QStringList& fields, Column column) const
    {
        return fields.value(at[column]).trimmed();
    }
};

// Headings in English and German, as plain() has them.
const QStringList& headingsOf(Column column)
{
    static const std::array<QStringList, ColumnCount> headings = {
        QStringList{"name", "variable", "variablename", "tag", "tagname", "symbol", "symbolname",
                    "identifier", "variablenname", "bezeichner", "bezeichnung"},
        QStringList{"datatype", "type", "variabletype", "datentyp", "typ", "variablentyp"},
        QStringList{"dimension", "dimensions", "arraysize", "size", "arraybounds", "dimensionen",
                    QString::fromUtf8("feldgr\u00f6\u00dfe"), "feldgroesse", "feldgrenzen",
                    QString::fromUtf8("feldl\u00e4nge"), "feldlaenge",
                    QString::fromUtf8("arrayl\u00e4nge"), "arraylaenge", "arraylength",
                    QString::fromUtf8("arraygr\u00f6\u00dfe"), "arraygroesse", "arraygrenzen",
                    QString::fromUtf8("gr\u00f6\u00dfe"), "groesse"},
        QStringList{"comment", "comments", "description", "remark", "remarks", "kommentar",
                    "kommentare", "beschreibung", "bemerkung", "bemerkungen"},
        QStringList{"unit", "units", "engineeringunit", "engineeringunits", "einheit", "einheiten",
                    QString::fromUtf8("ma\u00dfeinheit"), "masseinheit"},
        QStringList{"station", "stationnumber", "stationsnummer", "stationnr"}};
    return headings[column];
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

Columns columnsOf(const QStringList& headings)
{
    Columns columns;
    columns.count = headings.size();
    for (int i = 0; i < headings.size(); ++i) {
        const QString heading = plain(headings.at(i));
        const auto is = [&](int column) {
            return columns.at[column] < 0 && headingsOf(Column(column)).contains(heading);
        };
        int column = 0;
        while (column < ColumnCount && !is(column))
            ++column;
        if (column < ColumnCount)
            columns.at[column] = i;
        else if (!heading.isEmpty())
            columns.unused += headings.at(i).trimmed();
    }
    return columns;
}

struct Dimension
{
    qint64 first = 0;  ///< index in the program of the controller
    qint64 length = 1; ///< below 1 for what is not one run of elements
};

// "10", "[0..9]", "1..10" or "[-5..5]"; one element for an empty text.
Dimension dimensionOf(const QString& text)
{
    static const QRegularExpression form(
        QStringLiteral("^\\[?\\s*(-?\\d{1,18})\\s*(?:\\.\\.\\s*(-?\\d{1,18}))?\\s*\\]?$"));
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

/// A type as a programming tool writes it.
struct TypeText
{
    QString name;      ///< of the elements: "INT"
    QString dimension; ///< that the type names itself: "[0..9]"
};

// "INT", "STRING(40)", "INT[0..9]". The length of a text is left to the controller.
TypeText elementTypeOf(const QString& text)
{
    static const QRegularExpression string(
        QStringLiteral("^(\\w*STRING)\\s*[(\\[]\\s*\\d{1,5}\\s*[)\\]]$"),
        QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression indexed(QStringLiteral("^(\\w+)\\s*(\\[.*\\])$"));
    QRegularExpressionMatch match = string.match(text);
    if (match.hasMatch())
        return {match.captured(1), QString()};
    match = indexed.match(text);
    return match.hasMatch() ? TypeText{match.captured(1), match.captured(2)}
                            : TypeText{text, QString()};
}

// The same, and "ARRAY[0..9] OF INT". An array of arrays has both dimensions, which are not one run
// of elements.
TypeText typeTextOf(const QString& text)
{
    static const QRegularExpression array(QStringLiteral("^ARRAY\\s*(\\[[^\\]]*\\])\\s*OF\\s+"),
                                          QRegularExpression::CaseInsensitiveOption);
    QString rest = text;
    QString dimension;
    for (QRegularExpressionMatch match = array.match(rest); match.hasMatch();
         match = array.match(rest)) {
        dimension += match.captured(1);
        rest = rest.mid(match.capturedLength());
    }
    const TypeText element = elementTypeOf(rest.trimmed());
    return {element.name, dimension + element.dimension};
}

// Other names that tools have for types.
QString typeNameOf(const QString& text)
{
    const QString name = text.toUpper();
    if (name == QLatin1String("TOD"))
        return QStringLiteral("TIME_OF_DAY");
    if (name == QLatin1String("DT"))
        return QStringLiteral("DATE_AND_TIME");
    return name == QLatin1String("BIT") ? QStringLiteral("BOOL") : name;
}

// A comment and a unit stand in one line of a project.
QString lineOf(const QString& text)
{
    return visible(text.simplified());
}

QString problemOfName(const QString& name, const QSet<QString>& names)
{
    static const QRegularExpression element(QStringLiteral("^(.+)\\[[0-9, ]+\\]$"));
    if (names.contains(name))
        return QStringLiteral("is listed twice");
    if (name.size() > kLongestTag)
        return QStringLiteral("a name has at most %1 characters").arg(kLongestTag);
    const QRegularExpressionMatch match = element.match(name);
    if (match.hasMatch() && names.contains(match.captured(1)))
        return QStringLiteral("is an element of %1, which is in the list").arg(match.captured(1));
    return isPlain(name)
               ? QString()
               : QStringLiteral("is not a tag (letters, digits and signs without blanks)");
}

QString problemOfStation(const QString& text, Variable& variable)
{
    bool good = true;
    const int number = text.isEmpty() ? variable.station : text.toInt(&good);
    if (!good || number < 0 || number > kLargestStation)
        return QStringLiteral("the station \"%1\" is not allowed (0 to %2)")
            .arg(text)
            .arg(kLargestStation);
    variable.station = number;
    return QString();
}

/// The dimension of a line: that of its column, or that of its type.
struct LineDimension
{
    QString text;
    Dimension dimension;
    bool agrees = true;
};

LineDimension lineDimensionOf(const QString& column, const QString& ofType)
{
    const QString text = column.isEmpty() ? ofType : column;
    LineDimension found = {text, dimensionOf(text)};
    const Dimension other = dimensionOf(ofType.isEmpty() ? text : ofType);
    found.agrees = other.first == found.dimension.first && other.length == found.dimension.length;
    return found;
}

// Reads the type and the dimension of a line into `variable`. Returns why they cannot be read, or
// an empty text.
QString problemOfType(const TypeText& type, const LineDimension& dimension, Variable& variable)
{
    if (!dimension.agrees)
        return QStringLiteral("its type has the dimension \"%1\", and its dimension is \"%2\"")
            .arg(type.dimension, dimension.text);
    const QString problem = problemOfDimension(dimension.text, dimension.dimension, variable);
    if (!problem.isEmpty())
        return problem;
    const QString name = typeNameOf(type.name);
    const bool untyped = name == QLatin1String("STRING"); // on the wire it may be one of several
    for (const CipType& known : cipTypes()) {
        if (!untyped && name == QLatin1String(known.name))
            variable.type = &known;
    }
    if (!variable.type && !untyped)
        return name.isEmpty() ? QStringLiteral("has no type")
                              : QStringLiteral("\"%1\" is not an elementary type such as INT, and "
                                               "structures are not read")
                                    .arg(name);
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
    CsvReader(const QString& text, std::string file) : m_text(&text), m_file(std::move(file)) {}

    bool atEnd() const { return m_at >= m_text->size(); }
    /// The line on which the next fields begin.
    int line() const { return m_line; }
    void setSeparator(QChar separator) { m_separator = separator; }

    /// The fields up to the end of a line. Throws UserError for a quote that is never closed.
    QStringList fields()
    {
        QStringList fields = {field()};
        while (!atEnd() && m_text->at(m_at) == m_separator) {
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
        if (!atEnd() && m_text->at(m_at) == '"')
            text = quoted();
        while (!atEnd() && m_text->at(m_at) != m_separator && m_text->at(m_at) != '\n')
            text += m_text->at(m_at++);
        return text;
    }
    // Lines within quotes count too, so that messages name the right one.
    QString quoted()
    {
        const int opened = m_line;
        QString text;
        for (++m_at; !atEnd(); ++m_at) {
            const QChar c = m_text->at(m_at);
            if (c == '"') {
                const bool doubled = m_at + 1 < m_text->size() && m_text->at(m_at + 1) == '"';
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

    const QString* m_text;
    std::string m_file;
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

namespace {

QByteArray bytesOf(const QString& path)
{
    QFile file(path);
    if (QFileInfo(path).isDir())
        throw UserError(path.toStdString() + ": is a directory (name the exported list)");
    const bool isOpen = path == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly)
                                                   : file.open(QIODevice::ReadOnly);
    if (!isOpen) {
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
    return bytes;
}

// The name of the codec when the bytes are UTF-16: they begin with its mark, or with an ASCII
// character in two bytes. Else null.
const char* utf16Of(const QByteArray& bytes)
{
    const auto at = [&bytes](int i) { return i < bytes.size() ? bytes.at(i) : '\xFF'; };
    const auto isAscii = [](char c) { return c == '\t' || (c >= ' ' && c < '\x7F'); };
    if (bytes.startsWith("\xFF\xFE") || (isAscii(at(0)) && at(1) == 0 && at(3) == 0))
        return "UTF-16LE";
    if (bytes.startsWith("\xFE\xFF") || (at(0) == 0 && isAscii(at(1)) && at(2) == 0))
        return "UTF-16BE";
    return nullptr;
}

QString fromUtf16(const QByteArray& bytes, const char* codec, const std::string& file)
{
    if (bytes.size() % 2 != 0)
        throw UserError(file + ": is UTF-16, and its last character is cut short (save the list "
                               "again)");
    QTextCodec::ConverterState state;
    return QTextCodec::codecForName(codec)->toUnicode(bytes.constData(), bytes.size(), &state);
}

void refuseZero(const QString& text, const std::string& file)
{
    const int zero = text.indexOf(QChar(0));
    if (zero >= 0)
        throw UserError(file + ": line " + std::to_string(1 + text.leftRef(zero).count('\n')) +
                        ": has a byte 00, so it is not a text (save the list as CSV UTF-8)");
}

using Parser = VariableList (*)(const QString& text, const QString& name);

VariableList parsed(const QByteArray& bytes, const QString& name, Parser parse)
{
    const std::string file = name.toStdString();
    if (bytes.size() > kLargestList)
        throw UserError(file + ": is larger than " + std::to_string(kLargestList >> 20) +
                        " MiB (export fewer variables)");
    if (const char* const codec = utf16Of(bytes)) {
        const QString text = fromUtf16(bytes, codec, file);
        refuseZero(text, file);
        return parse(text, name);
    }
    const int wrong = firstNotUtf8(bytes);
    const QTextCodec* const other = QTextCodec::codecForName("windows-1252");
    const QString text =
        wrong < 0 ? QString::fromUtf8(bytes.constData(), bytes.size()) : other->toUnicode(bytes);
    refuseZero(text, file);
    VariableList list = parse(text, name);
    if (wrong >= 0)
        list.ignored.prepend(
            QStringLiteral("line %1: is not UTF-8, so the file is read as Windows-1252")
                .arg(lineOf(bytes, wrong)));
    return list;
}

} // namespace

VariableList VariableList::fromFile(const QString& path)
{
    return fromBytes(bytesOf(path), path);
}

VariableList VariableList::fromFileOfNames(const QString& path)
{
    const QString name = path == QLatin1String("-") ? QStringLiteral("standard input") : path;
    return parsed(bytesOf(path), name, fromNames);
}

VariableList VariableList::fromBytes(const QByteArray& bytes, const QString& name)
{
    return parsed(bytes, name, fromCsv);
}

namespace {

/// The heading of a list, or of what comes closest to one.
struct Heading
{
    int line = 1;
    Columns columns;
};

// Reads up to the end of the heading, and chooses the separator by it.
Heading findHeading(CsvReader& reader, const std::string& file)
{
    Heading best;
    for (int i = 0; i < kMostLinesBeforeHeading && !reader.atEnd(); ++i) {
        const CsvReader before = reader;
        CsvReader after = reader;
        Heading here = {reader.line(), Columns()};
        for (const char separator : {',', ';', '\t'}) {
            CsvReader trial = before;
            trial.setSeparator(separator);
            const Columns columns = columnsOf(trial.fields());
            if (columns.known() > here.columns.known()) {
                here.columns = columns;
                after = trial;
            }
        }
        if (here.columns.known() > best.columns.known())
            best = here;
        reader = after;
        if (here.columns.isHeading())
            return here;
        if (here.columns.known() == 0)
            reader.fields();
    }
    throw UserError(file + ": line " + std::to_string(best.line) + ": no column \"" +
                    (best.columns.at[Name] < 0 ? "Name" : "Data type") +
                    "\" (a heading names the columns: Name, Data type, Dimension, Comment, Unit, "
                    "Station)");
}

/// Reads the lines after the heading.
class ListReader
{
public:
    explicit ListReader(Columns columns) : m_columns(std::move(columns)) {}

    void read(int line, const QStringList& fields)
    {
        readFields(line, fields);
        tellFieldsBeyond(line, fields);
    }
    VariableList take() { return std::move(m_list); }

private:
    // A separator within a text that is not quoted makes one field too many.
    void tellFieldsBeyond(int line, const QStringList& fields)
    {
        const QStringList beyond = fields.mid(m_columns.count);
        if (!beyond.join(QString()).trimmed().isEmpty())
            m_list.notes +=
                QStringLiteral("line %1: fields that no heading names are left out: %2 (a "
                               "text with a separator needs double quotes)")
                    .arg(line)
                    .arg(beyond.join(QStringLiteral(", ")).trimmed());
    }
    void readFields(int line, const QStringList& fields)
    {
        const QString name = m_columns.of(fields, Name);
        if (name.isEmpty() && fields.join(QString()).trimmed().isEmpty())
            return;
        const QString place = QStringLiteral("line %1: ").arg(line);
        if (name.isEmpty()) {
            m_list.ignored += place + QStringLiteral("has no name (left out)");
            return;
        }
        Variable variable;
        variable.name = variable.tag = name;
        const TypeText type = typeTextOf(m_columns.of(fields, Type));
        const LineDimension dimension =
            lineDimensionOf(m_columns.of(fields, DimensionText), type.dimension);
        QString problem = problemOfName(variable.name, m_names);
        if (problem.isEmpty())
            problem = problemOfType(type, dimension, variable);
        if (problem.isEmpty())
            problem = problemOfStation(m_columns.of(fields, StationNumber), variable);
        m_names.insert(variable.name);
        if (!problem.isEmpty()) {
            m_list.ignored += place + variable.name + QStringLiteral(": ") + problem +
                              QStringLiteral(" (left out)");
            return;
        }
        variable.comment = lineOf(m_columns.of(fields, Comment));
        variable.unit = lineOf(m_columns.of(fields, Unit));
        m_list.variables.append(variable);
        if (dimension.dimension.first != 0)
            m_list.notes += place + variable.name +
                            QStringLiteral(": index %1 of the program is element 0 here")
                                .arg(dimension.dimension.first);
    }

    Columns m_columns;
    VariableList m_list;
    QSet<QString> m_names;
};

} // namespace

VariableList VariableList::fromCsv(const QString& text, const QString& name)
{
    QString whole = text;
    if (whole.startsWith(QChar(0xFEFF)))
        whole.remove(0, 1);
    CsvReader reader(whole, name.toStdString());
    const Heading heading = findHeading(reader, name.toStdString());
    ListReader lines(heading.columns);
    while (!reader.atEnd()) {
        const int line = reader.line();
        lines.read(line, reader.fields());
    }
    VariableList list = lines.take();
    list.hasStations = heading.columns.at[StationNumber] >= 0;
    if (!heading.columns.unused.isEmpty())
        list.notes.prepend(QStringLiteral("line %1: a project has no place for these columns: %2")
                               .arg(heading.line)
                               .arg(heading.columns.unused.join(QStringLiteral(", "))));
    return list;
}

VariableList VariableList::fromNames(const QString& text, const QString& name)
{
    static const QRegularExpression separators(QStringLiteral("[,;\t]"));
    if (text.contains(separators))
        return fromCsv(text, name);
    VariableList list;
    QSet<QString> names;
    int line = 0;
    for (const QString& each : text.split('\n')) {
        ++line;
        Variable variable;
        variable.name = variable.tag = QString(each).remove(QChar(0xFEFF)).trimmed();
        if (variable.name.isEmpty())
            continue;
        const QString problem = problemOfName(variable.name, names);
        names.insert(variable.name);
        if (problem.isEmpty())
            list.variables.append(variable);
        else
            list.ignored += QStringLiteral("line %1: %2: %3 (left out)")
                                .arg(QString::number(line), variable.name, problem);
    }
    return list;
}

} // namespace micro850::host
