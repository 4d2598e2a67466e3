#ifndef MICRO850_HOST_RECORDER_H
#define MICRO850_HOST_RECORDER_H

#include <QtCore/QDateTime>
#include <QtCore/QString>
#include <QtCore/QVariant>

#include <memory>

namespace micro850::host {

/// A variable at one time.
struct Sample
{
    QDateTime time;
    QString name;
    int station;
    QString tag;
    int element;
    QString type;
    QVariant value; ///< a number, or a text; null without one
    QString unit;
    QString quality;
    QString error;
};

/// Writes samples to a file, behind those that it has. What was flushed survives the end of the
/// process, however it comes.
class Recorder
{
public:
    virtual ~Recorder() = default;
    virtual void add(const Sample& sample) = 0;
    virtual void flush() = 0;

    /// A comma-separated file with a heading. Throws UserError for a file that cannot be written or
    /// has another heading.
    static std::unique_ptr<Recorder> csv(const QString& path);
    /// The table "samples" of an SQLite database. Throws UserError as well.
    static std::unique_ptr<Recorder> sqlite(const QString& path);
};

/// A field of a comma-separated line: quoted where it has to be.
QString csvField(const QString& text);

} // namespace micro850::host

#endif
