#include "Recorder.h"

#include "CipType.h"
#include "DateText.h"
#include "Elements.h"
#include "OutputFile.h"
#include "VisibleText.h"

#include <QtCore/QFile>
#include <QtCore/QHash>
#include <QtCore/QStringList>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace micro850::host {

namespace {

// Behind the time.
const QStringList kHeading = {"name",  "station", "tag",     "element", "type",
                              "value", "unit",    "quality", "error"};
const char kBom[] = "\xEF\xBB\xBF";
const std::size_t kBomBytes = sizeof kBom - 1;
const std::size_t kMostPending = 1 << 16;

// Numbers stay numbers, also those below 0, and so do several of them. Dates have no decimal sign.
QString numberText(const CsvForm& form, const QString& type, const QString& text)
{
    for (const CipType& known : cipTypes()) {
        if (type == QLatin1String(known.name))
            return known.kind == CipKind::String ? csvText(text)
                   : dateExample(known)          ? text
                                                 : form.number(text);
    }
    return csvText(text);
}

QString cellOf(const CsvForm& form, const QString& type, const CipValue& value)
{
    const QString text = valueText(value);
    return value.kind() == CipKind::String ? numberText(form, type, text) : form.number(text);
}

/// Which decimal sign the numbers of a file have. The heading does not tell.
class DecimalSigns
{
public:
    explicit DecimalSigns(const CsvForm& form)
        : m_separator(form.separator.toLatin1()), m_decimal(form.decimal.toLatin1())
    {
    }

    void look(char c)
    {
        if (c != m_separator && c != '\n') {
            if (m_field.size() < kMostField)
                m_field += c;
            return;
        }
        const std::size_t sign = m_field.find_first_not_of("-0123456789");
        const bool isNumber =
            sign != std::string::npos && sign > 0 &&
            m_field.find_first_not_of("0123456789", sign + 1) == std::string::npos &&
            sign + 1 < m_field.size();
        if (isNumber && m_field[sign] == m_decimal)
            m_own = true;
        else if (isNumber && (m_field[sign] == '.' || m_field[sign] == ','))
            m_other = true;
        m_field.clear();
    }
    /// True when numbers have the other sign, and none has this one. A text can look like a number.
    bool disagree() const { return m_other && !m_own; }

private:
    static constexpr std::size_t kMostField = 40;
    char m_separator;
    char m_decimal;
    std::string m_field;
    bool m_own = false;
    bool m_other = false;
};

/// The rows of a file that a recording goes on with.
class EarlierRows
{
public:
    /// Reads the file. Throws UserError if it cannot be read or has other content than rows of this
    /// form.
    EarlierRows(const OutputFile& file, std::string heading, const CsvForm& form)
        : m_file(file), m_heading(std::move(heading)), m_signs(form)
    {
        for (;;) {
            const std::string part = read(m_size, 1 << 16);
            if (part.empty())
                break;
            for (const char c : part)
                look(c);
            requireHeading();
        }
        if (m_linesOfTail > 0)
            throw UserError(m_file.name() + ": line " + std::to_string(m_line) +
                            ": a field opens with \" that no other \" closes (mend the row, or "
                            "name a new file)");
        if (m_signs.disagree())
            throw UserError(m_file.name() +
                            ": its numbers have another decimal sign (choose it with "
                            "--decimal, or name a new file)");
    }

    bool hasHeading() const { return m_end > 0; }
    /// Where the last whole row ends.
    off_t end() const { return m_end; }
    /// The beginning of what follows it.
    std::string tail() const { return read(m_end, 1000); }

private:
    std::string read(off_t at, std::size_t most) const
    {
        std::string bytes(most, '\0');
        const ssize_t count = ::pread(m_file.descriptor(), &bytes[0], most, at);
        if (count < 0)
            throw UserError(m_file.name() + ": cannot be read: " + std::strerror(errno),
                            kExitRefused);
        bytes.resize(static_cast<std::size_t>(count));
        return bytes;
    }
    void look(char c)
    {
        ++m_size;
        m_signs.look(c);
        if (m_begin.size() < m_heading.size() && c != '\r')
            m_begin += c;
        if (m_size == off_t(kBomBytes) && m_begin == kBom)
            m_begin.clear();
        m_quoted = m_quoted != (c == '"');
        if (c != '\n')
            return;
        ++m_linesOfTail;
        if (m_quoted)
            return;
        m_line += m_linesOfTail;
        m_linesOfTail = 0;
        m_end = m_size;
    }
    void requireHeading() const
    {
        const bool isBomSoFar =
            m_size < off_t(kBomBytes) && m_begin == std::string(kBom).substr(0, m_begin.size());
        if (!isBomSoFar && m_begin != m_heading.substr(0, m_begin.size()))
            throw UserError(m_file.name() +
                            ": does not have the heading of this recording (name a new file)");
    }

    const OutputFile& m_file;
    const std::string m_heading;
    DecimalSigns m_signs;
    std::string m_begin; ///< up to the length of the heading, without carriage returns
    off_t m_size = 0;
    off_t m_end = 0;
    int m_line = 1;
    int m_linesOfTail = 0;
    bool m_quoted = false;
};

/// A file of lines under a heading. It keeps some lines, and writes them together.
class CsvFile
{
public:
    /// `continues` for a file that may have rows.
    CsvFile(OutputFile file, bool continues, const std::string& heading, const CsvForm& form,
            const Recorder::Note& note)
        : m_file(std::move(file))
    {
        if (!continues || !m_file.isRegular() || !goOn(heading, form, note))
            m_file.write((form.bom ? kBom : "") + heading);
        m_size = m_file.isRegular() ? ::lseek(m_file.descriptor(), 0, SEEK_END) : 0;
    }
    ~CsvFile()
    {
        try {
            save();
        } catch (const UserError&) {
            // The caller that wants to know calls save().
        }
    }
    CsvFile(const CsvFile&) = delete;
    CsvFile& operator=(const CsvFile&) = delete;

    void add(const QString& line)
    {
        m_pending += line.toStdString() + '\n';
        if (m_pending.size() > kMostPending)
            save();
    }
    void save()
    {
        const std::string rows = std::exchange(m_pending, std::string());
        m_size += static_cast<qint64>(rows.size());
        try {
            m_file.write(rows);
        } catch (const UserError&) {
            writeEach(rows); // as many as fit
        }
    }
    qint64 size() const { return m_size + static_cast<qint64>(m_pending.size()); }

private:
    // Samples are appended, so that a restart loses nothing. A row that a kill or a full disk cut
    // short would become one with the next: it is removed and shown. False without a heading.
    bool goOn(const std::string& heading, const CsvForm& form, const Recorder::Note& note)
    {
        m_file.lock();
        const EarlierRows rows(m_file, heading, form);
        const std::string tail = rows.tail();
        if (!tail.empty() && note)
            note(QString::fromStdString(
                m_file.name() + ": its last row was cut short and is removed: " + visible(tail)));
        if (!tail.empty() && ::ftruncate(m_file.descriptor(), rows.end()) != 0)
            failToWrite(m_file.name(), errno);
        return rows.hasHeading();
    }
    void writeEach(const std::string& rows)
    {
        for (std::size_t at = 0; at < rows.size();) {
            const std::size_t end = rows.find('\n', at) + 1;
            m_file.write(rows.substr(at, end - at));
            at = end;
        }
    }

    OutputFile m_file;
    std::string m_pending;
    qint64 m_size = 0;
};

/// The file of this name, or standard output.
std::unique_ptr<CsvFile> openCsv(const QString& path, const QStringList& headings,
                                 const CsvForm& form, const Recorder::Note& note)
{
    const std::string heading = form.line(headings).toStdString() + '\n';
    if (path != QLatin1String("-")) {
        const std::string name = QFile::encodeName(path).toStdString();
        requireFile(name, "name a file, or - for standard output");
        return std::make_unique<CsvFile>(OutputFile::open(name), true, heading, form, note);
    }
    const int descriptor = ::dup(STDOUT_FILENO);
    if (descriptor < 0)
        failToWrite("standard output", errno);
    return std::make_unique<CsvFile>(OutputFile(descriptor, "standard output"), false, heading,
                                     form, note);
}

class CsvRecorder : public Recorder
{
public:
    CsvRecorder(std::unique_ptr<CsvFile> file, const CsvForm& form)
        : m_file(std::move(file)), m_form(form)
    {
    }

    void add(const Sample& sample) override
    {
        m_file->add(m_form.line(
            {m_form.timeText(sample.time.toMSecsSinceEpoch()), csvText(sample.name),
             QString::number(sample.station), csvText(sample.tag), QString::number(sample.element),
             sample.type, sample.value ? cellOf(m_form, sample.type, *sample.value) : QString(),
             csvText(sample.unit), sample.quality, csvText(sample.error)}));
    }
    void endRow(const QDateTime&) override {}
    void flush() override { m_file->save(); }
    qint64 size() const override { return m_file->size(); }

private:
    std::unique_ptr<CsvFile> m_file;
    CsvForm m_form;
};

class WideCsvRecorder : public Recorder
{
public:
    WideCsvRecorder(std::unique_ptr<CsvFile> file, const QVector<WideColumn>& columns,
                    const CsvForm& form)
        : m_file(std::move(file)), m_form(form)
    {
        for (const WideColumn& column : columns) {
            m_places[column.name] = {m_cells.size(), column.length};
            for (int i = 0; i < column.length; ++i)
                m_cells.append(QString());
        }
    }

    void add(const Sample& sample) override
    {
        const Place place = m_places.value(sample.name);
        if (sample.quality != QLatin1String("good"))
            return;
        for (int i = 0; i < std::min(place.length, sample.elements.size()); ++i)
            m_cells[place.first + i] = cellOf(m_form, sample.type, sample.elements.at(i));
    }
    void endRow(const QDateTime& time) override
    {
        m_file->add(m_form.line(QStringList(m_form.timeText(time.toMSecsSinceEpoch())) +
                                QStringList(m_cells.toList())));
        m_cells.fill(QString());
    }
    void flush() override { m_file->save(); }
    qint64 size() const override { return m_file->size(); }

private:
    struct Place
    {
        int first = 0;
        int length = 0;
    };
    std::unique_ptr<CsvFile> m_file;
    CsvForm m_form;
    QHash<QString, Place> m_places;
    QVector<QString> m_cells;
};

} // namespace

std::unique_ptr<Recorder> Recorder::csv(const QString& path, const Note& note, const CsvForm& form)
{
    return std::make_unique<CsvRecorder>(
        openCsv(path, QStringList(form.timeHeading()) + kHeading, form, note), form);
}

std::unique_ptr<Recorder> Recorder::wideCsv(const QString& path, const QVector<WideColumn>& columns,
                                            const Note& note, const CsvForm& form)
{
    QStringList headings = {form.timeHeading()};
    for (const WideColumn& column : columns) {
        for (const QString& heading : column.headings())
            headings += csvText(heading);
    }
    return std::make_unique<WideCsvRecorder>(openCsv(path, headings, form, note), columns, form);
}

} // namespace micro850::host
