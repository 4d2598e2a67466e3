#include "Recorder.h"

#include "CipType.h"
#include "Elements.h"
#include "OutputFile.h"
#include "VisibleText.h"

#include <QtCore/QFile>
#include <QtCore/QStringList>

#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace micro850::host {

namespace {

const std::string kHeading = "time,name,station,tag,element,type,value,unit,quality,error\n";
const std::size_t kMostPending = 1 << 16;

// A spreadsheet takes a text that begins so for a formula, blanks before it or not. A sign alone,
// such as the unit "-", is none.
bool isFormula(const QString& text)
{
    static const QString signs = QString::fromUtf8("=+-@\uFF1D\uFF0B\uFF0D\uFF20");
    const QString begin = text.trimmed().left(2);
    return begin.size() > 1 && signs.contains(begin.at(0));
}

// Numbers stay numbers, also those below 0, and so do several of them.
QString valueCell(const Sample& sample)
{
    if (!sample.value)
        return QString();
    const QString text = valueText(*sample.value);
    if (sample.value->kind() != CipKind::String)
        return text;
    for (const CipType& type : cipTypes()) {
        if (type.kind != CipKind::String && sample.type == QLatin1String(type.name))
            return text;
    }
    return csvText(text);
}

/// The rows of a file that a recording goes on with.
class EarlierRows
{
public:
    /// Reads the file. Throws UserError if it cannot be read or has other content than rows.
    explicit EarlierRows(const OutputFile& file) : m_file(file)
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
        if (m_begin.size() < kHeading.size() && c != '\r')
            m_begin += c;
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
        if (m_begin != kHeading.substr(0, m_begin.size()))
            throw UserError(m_file.name() +
                            ": does not have the heading of a recording (name a new file)");
    }

    const OutputFile& m_file;
    std::string m_begin; ///< up to the length of the heading, without carriage returns
    off_t m_size = 0;
    off_t m_end = 0;
    int m_line = 1;
    int m_linesOfTail = 0;
    bool m_quoted = false;
};

class CsvRecorder : public Recorder
{
public:
    /// `continues` for a file that may have rows.
    CsvRecorder(OutputFile file, bool continues, const Note& note) : m_file(std::move(file))
    {
        if (!continues || !m_file.isRegular() || !goOn(note))
            m_file.write(kHeading);
    }
    ~CsvRecorder() override
    {
        try {
            save();
        } catch (const UserError&) {
            // The caller that wants to know calls flush().
        }
    }

    void add(const Sample& sample) override
    {
        const QStringList fields = {sample.time.toUTC().toString(Qt::ISODateWithMs),
                                    csvField(csvText(sample.name)),
                                    QString::number(sample.station),
                                    csvField(csvText(sample.tag)),
                                    QString::number(sample.element),
                                    sample.type,
                                    csvField(valueCell(sample)),
                                    csvField(csvText(sample.unit)),
                                    sample.quality,
                                    csvField(csvText(sample.error))};
        m_pending += fields.join(',').toStdString() + '\n';
        if (m_pending.size() > kMostPending)
            save();
    }

    void flush() override { save(); }

private:
    // Samples are appended, so that a restart loses nothing. A row that a kill or a full disk cut
    // short would become one with the next: it is removed and shown. False without a heading.
    bool goOn(const Note& note)
    {
        m_file.lock();
        const EarlierRows rows(m_file);
        const std::string tail = rows.tail();
        if (!tail.empty() && note)
            note(QString::fromStdString(
                m_file.name() + ": its last row was cut short and is removed: " + visible(tail)));
        if (!tail.empty() && ::ftruncate(m_file.descriptor(), rows.end()) != 0)
            failToWrite(m_file.name(), errno);
        return rows.hasHeading();
    }
    void save()
    {
        const std::string rows = std::exchange(m_pending, std::string());
        try {
            m_file.write(rows);
        } catch (const UserError&) {
            writeEach(rows); // as many as fit
        }
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
};

} // namespace

QString csvText(const QString& text)
{
    const QString shown = QString::fromStdString(visibleValue(text.toStdString()));
    if (shown.startsWith('"') || !isFormula(shown))
        return shown;
    QString quoted = shown;
    quoted.replace('\\', QStringLiteral("\\\\")).replace('"', QStringLiteral("\\\""));
    return '"' + quoted + '"';
}

QString csvField(const QString& text)
{
    const bool plain = !text.contains(',') && !text.contains('"') && !text.contains('\n') &&
                       !text.contains('\r') && text == text.trimmed();
    if (plain)
        return text;
    QString quoted = text;
    return '"' + quoted.replace('"', QStringLiteral("\"\"")) + '"';
}

std::unique_ptr<Recorder> Recorder::csv(const QString& path, const Note& note)
{
    if (path != QLatin1String("-")) {
        const std::string name = QFile::encodeName(path).toStdString();
        requireFile(name, "name a file, or - for standard output");
        return std::make_unique<CsvRecorder>(OutputFile::open(name), true, note);
    }
    const int descriptor = ::dup(STDOUT_FILENO);
    if (descriptor < 0)
        failToWrite("standard output", errno);
    return std::make_unique<CsvRecorder>(OutputFile(descriptor, "standard output"), false, note);
}

} // namespace micro850::host
