#include "FilePattern.h"
#include "Recorder.h"
#include "UserError.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <algorithm>

namespace micro850::host {

namespace {

using Open = std::function<std::unique_ptr<Recorder>(const QString& path)>;

// Whether a file begins as a recording does. Others are never deleted.
bool isRecording(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    QByteArray begin = file.read(20);
    if (begin.startsWith("\xEF\xBB\xBF"))
        begin.remove(0, 3);
    const bool isCsv = begin.startsWith("time") && begin.size() > 4 && !isalnum(begin.at(4));
    return isCsv || begin.startsWith("SQLite format 3");
}

class RotatingRecorder : public Recorder
{
public:
    RotatingRecorder(const QString& pattern, const Rotation& rotation, Open open, Note note)
        : m_pattern(pattern), m_rotation(rotation), m_open(std::move(open)), m_note(std::move(note))
    {
        if (m_pattern.isPlain())
            throw UserError(pattern.toStdString() +
                            ": --max-size and --keep need a name with a part that changes, such as "
                            "%Y-%m-%d or %N");
        if (m_pattern.hasNumber() != (rotation.maximumBytes > 0))
            throw UserError(pattern.toStdString() +
                            (m_pattern.hasNumber() ? ": %N counts the files of --max-size (add it)"
                                                   : ": --max-size needs %N in the name"));
        begin(QDateTime::currentDateTimeUtc());
    }

    void add(const Sample& sample) override
    {
        if (!m_inRow)
            prepare(sample.time);
        m_inRow = true;
        m_hasRow = true;
        m_current->add(sample);
    }
    void endRow(const QDateTime& time) override
    {
        m_current->endRow(time);
        m_inRow = false;
    }
    void flush() override { m_current->flush(); }
    qint64 size() const override { return m_current->size(); }
    QStringList files() const override { return m_files; }

private:
    QDateTime shown(const QDateTime& time) const
    {
        return m_rotation.inLocalTime ? time.toLocalTime() : time.toUTC();
    }
    bool isFull(qint64 size) const
    {
        return m_rotation.maximumBytes > 0 && size >= m_rotation.maximumBytes;
    }
    void prepare(const QDateTime& time)
    {
        if (m_pattern.timeKey(shown(time)) != m_time) {
            m_current->flush();
            begin(time);
        } else if (m_hasRow && isFull(m_current->size())) {
            m_current->flush();
            openNumber(shown(time), m_number + 1);
        }
    }
    // Goes on with the last file of this time, unless it is full or has other columns.
    void begin(const QDateTime& time)
    {
        m_time = m_pattern.timeKey(shown(time));
        int last = 0;
        for (const FilePattern::File& file : m_pattern.existing()) {
            if (file.time == m_time)
                last = std::max(last, file.number);
        }
        const QString path = m_pattern.pathFor(shown(time), std::max(1, last));
        if (!m_pattern.hasNumber() || last == 0)
            return openNumber(shown(time), 1);
        if (isFull(QFileInfo(path).size()))
            return openNumber(shown(time), last + 1);
        try {
            openNumber(shown(time), last);
        } catch (const UserError& error) {
            if (error.status() != kExitUsage)
                throw;
            openNumber(shown(time), last + 1);
        }
    }
    void openNumber(const QDateTime& time, int number)
    {
        m_current.reset(); // a database is open once only
        m_path = m_pattern.pathFor(time, number);
        m_current = m_open(m_path);
        m_files += m_path;
        m_number = number;
        m_hasRow = false;
        removeOld();
    }
    void removeOld() const
    {
        QVector<FilePattern::File> files = m_pattern.existing();
        int left = files.size();
        for (const FilePattern::File& file : files) {
            if (m_rotation.keep == 0 || left-- <= m_rotation.keep)
                return;
            if (file.path == m_path || !isRecording(file.path))
                continue;
            const bool removed = QFile::remove(file.path);
            if (m_note)
                m_note(file.path + (removed ? QStringLiteral(": deleted, because of --keep")
                                            : QStringLiteral(": cannot be deleted")));
        }
    }

    FilePattern m_pattern;
    Rotation m_rotation;
    Open m_open;
    Note m_note;
    std::unique_ptr<Recorder> m_current;
    QString m_path;
    QStringList m_files;
    QVector<int> m_time;
    int m_number = 0;
    bool m_inRow = false;
    bool m_hasRow = false; ///< no file is left without one because its heading is long
};

} // namespace

std::unique_ptr<Recorder> Recorder::rotating(const QString& pattern, const Rotation& rotation,
                                             const Open& open, const Note& note)
{
    return std::make_unique<RotatingRecorder>(pattern, rotation, open, note);
}

} // namespace micro850::host
