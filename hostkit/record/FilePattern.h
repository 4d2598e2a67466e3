#ifndef MICRO850_HOST_FILEPATTERN_H
#define MICRO850_HOST_FILEPATTERN_H

#include <QtCore/QDateTime>
#include <QtCore/QString>
#include <QtCore/QVector>

namespace micro850::host {

/// The names of files that follow each other: in the name of a path, not in its folders, %Y, %m,
/// %d, %H and %M are parts of a time, %N is a number from 1, and %% a percent sign.
class FilePattern
{
public:
    /// Throws UserError for another letter, for a part that is given twice, and for a part of a
    /// time without the larger ones, because such names have no order.
    explicit FilePattern(const QString& pattern);

    /// True when all files would have one name.
    bool isPlain() const { return m_parts.isEmpty(); }
    bool hasNumber() const { return m_parts.contains('N'); }
    QString pathFor(const QDateTime& time, int number) const;
    /// What tells the times of two files apart; the later one has the larger.
    QVector<int> timeKey(const QDateTime& time) const;

    struct File
    {
        QString path;
        QVector<int> time; ///< as timeKey() has it
        int number = 0;
    };
    /// The files that are there, the oldest first. Links and folders are none.
    QVector<File> existing() const;

private:
    QString m_folder; ///< with the last /
    QString m_name;
    QString m_expression; ///< that the names match
    QString m_parts;      ///< their letters, in the order of the name
};

} // namespace micro850::host

#endif
