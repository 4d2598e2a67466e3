#ifndef MICRO850_HOST_RECORDER_H
#define MICRO850_HOST_RECORDER_H

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
    /// Writes what was added. Throws UserError, as add() does, when it does not fit; what was
    /// written before stays whole.
    virtual void flush() = 0;

    /// Is told what the user should know of the file.
    using Note = std::function<void(const QString&)>;
    /// A comma-separated file with a heading, one line for each sample; "-" is standard output. A
    /// text with control characters, or that a spreadsheet would take for a formula, is in its
    /// shown form in double quotes, with escapes. A last row that was cut short is removed, after
    /// `note` is told of it. Throws UserError for a file that cannot be written or has another
    /// heading, and for a device or a pipe.
    static std::unique_ptr<Recorder> csv(const QString& path, const Note& note = nullptr);
    /// The table "samples" of an SQLite database. A number is an INTEGER or a REAL whatever its
    /// type, true is 1, NULL is only for a value that was never read. Unsigned numbers beyond
    /// 9223372036854775807 are text of 20 digits, what is not a number is the text "nan". Rows of
    /// an earlier version are converted; `note` is told before, because that takes some seconds
    /// for a million rows. Throws UserError as well, and for a database that is cut short.
    static std::unique_ptr<Recorder> sqlite(const QString& path, const Note& note = nullptr);
};

/// A field of a comma-separated line, quoted where necessary.
QString csvField(const QString& text);
/// A text in its shown form, so that a row is one line. What a spreadsheet would take for a formula
/// is put in double quotes as well, as a text with escapes is.
QString csvText(const QString& text);

} // namespace micro850::host

#endif
