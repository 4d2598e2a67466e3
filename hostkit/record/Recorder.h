#ifndef MICRO850_HOST_RECORDER_H
#define MICRO850_HOST_RECORDER_H

#include "CsvForm.h"
#include "Sample.h"

#include <functional>
#include <memory>

namespace micro850::host {

/// Appends samples to a file. What was flushed survives the end of the process, even when it is
/// killed.
class Recorder
{
public:
    virtual ~Recorder() = default;
    virtual void add(const Sample& sample) = 0;
    /// Ends the samples of one moment.
    virtual void endRow(const QDateTime& time) = 0;
    /// Writes what was added. Throws UserError, as add() does, when it does not fit; what was
    /// written before stays whole.
    virtual void flush() = 0;
    /// Bytes of the file, with what was added.
    virtual qint64 size() const = 0;
    /// The files so far, where one follows the other; else none.
    virtual QStringList files() const { return QStringList(); }

    /// Is told what the user should know of the file.
    using Note = std::function<void(const QString&)>;
    /// A comma-separated file with a heading, one line for each sample; "-" is standard output. A
    /// text with control characters, or that a spreadsheet would take for a formula, is in its
    /// shown form in double quotes, with escapes. A last row that was cut short is removed, after
    /// `note` is told of it. Throws UserError for a file that cannot be written or has another
    /// heading, and for a device or a pipe.
    static std::unique_ptr<Recorder> csv(const QString& path, const Note& note = nullptr,
                                         const CsvForm& form = CsvForm());
    /// The same with one row for all samples of a moment: the time, and a column for each element
    /// of each variable. A value that is not good is an empty cell.
    static std::unique_ptr<Recorder> wideCsv(const QString& path,
                                             const QVector<WideColumn>& columns,
                                             const Note& note = nullptr,
                                             const CsvForm& form = CsvForm());
    /// The table "samples" of an SQLite database. A number is an INTEGER or a REAL whatever its
    /// type, true is 1, NULL is only for a value that was never read. Unsigned numbers beyond
    /// 9223372036854775807 are text of 20 digits, what is not a number is the text "nan". Rows of
    /// an earlier version are converted; `note` is told before, because that takes some seconds
    /// for a million rows. Throws UserError as well, and for a database that is cut short.
    static std::unique_ptr<Recorder> sqlite(const QString& path, const Note& note = nullptr);

    /// When a new file begins, and how many stay.
    struct Rotation
    {
        qint64 maximumBytes = 0; ///< 0: no limit
        int keep = 0;            ///< 0: all
        bool inLocalTime = false;
    };
    /// A file after the other, named by a FilePattern, each made by `open`: another one when the
    /// name for the time of a row is another one, or when the file has reached its size. The
    /// oldest ones are deleted; nothing but a recording is.
    static std::unique_ptr<Recorder>
    rotating(const QString& pattern, const Rotation& rotation,
             const std::function<std::unique_ptr<Recorder>(const QString& path)>& open,
             const Note& note = nullptr);
};

} // namespace micro850::host

#endif
