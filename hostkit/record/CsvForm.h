#ifndef MICRO850_HOST_CSVFORM_H
#define MICRO850_HOST_CSVFORM_H

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace micro850::host {

/// How the times of a comma-separated file are written.
enum class CsvTime {
    Utc,        ///< "2026-11-22T13:30:00.125Z"
    Local,      ///< "2026-11-22T14:30:00.125+01:00"
    Spreadsheet ///< "2026-11-22 14:30:00.125": local, as spreadsheets take it for a time
};

/// How the fields of a comma-separated file are written.
struct CsvForm
{
    QChar separator = ',';
    QChar decimal = '.';
    bool bom = false; ///< begins with the mark of UTF-8, by which some spreadsheets know it
    CsvTime time = CsvTime::Utc;

    /// The heading of the column of times: times without an offset do not go on in a file of
    /// others.
    QString timeHeading() const;
    /// Of milliseconds since 1970 UTC.
    QString timeText(qint64 milliseconds) const;
    /// The text of a number with the decimal sign.
    QString number(const QString& text) const;
    /// Fields as one line, without its end.
    QString line(const QStringList& fields) const;
};

/// A field of a separated line, quoted where necessary.
QString csvField(const QString& text, QChar separator = ',');
/// A text in its shown form, so that a row is one line. What a spreadsheet would take for a formula
/// is put in double quotes as well, as a text with escapes is.
QString csvText(const QString& text);

/// A variable of a file with a column for each one.
struct WideColumn
{
    QString name;
    QString unit;
    int length = 1;

    /// "Speed [rpm]"; of several elements "Level[0] [mm]", "Level[1] [mm]".
    QStringList headings() const;
};

} // namespace micro850::host

#endif
