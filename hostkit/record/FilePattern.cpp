#include "FilePattern.h"

#include "UserError.h"
#include "VisibleText.h"

#include <QtCore/QDir>
#include <QtCore/QRegularExpression>

#include <algorithm>
#include <tuple>

namespace micro850::host {

namespace {

// From the largest part of a time to the smallest.
const QString kTimeParts = QStringLiteral("YmdHM");

int valueOf(QChar part, const QDateTime& time)
{
    switch (part.unicode()) {
    case 'Y':
        return time.date().year();
    case 'm':
        return time.date().month();
    case 'd':
        return time.date().day();
    case 'H':
        return time.time().hour();
    default:
        return time.time().minute();
    }
}

int digitsOf(QChar part)
{
    return part == 'Y' ? 4 : 2;
}

[[noreturn]] void fail(const QString& pattern, const std::string& what)
{
    throw UserError(pattern.toStdString() + ": " + what);
}

void requireOrder(const QString& pattern, const QString& parts)
{
    for (const QChar part : parts) {
        if (parts.count(part) > 1)
            fail(pattern, std::string("%") + part.toLatin1() + " is given twice");
        const int place = kTimeParts.indexOf(part);
        if (place > 0 && !parts.contains(kTimeParts.at(place - 1)))
            fail(pattern, std::string("%") + part.toLatin1() + " needs %" +
                              kTimeParts.at(place - 1).toLatin1() +
                              " as well, so that the names have an order");
    }
}

} // namespace

FilePattern::FilePattern(const QString& pattern)
    : m_folder(pattern.left(pattern.lastIndexOf('/') + 1)), m_name(pattern.mid(m_folder.size()))
{
    for (int i = 0; i < m_name.size(); ++i) {
        if (m_name.at(i) != '%') {
            m_expression += QRegularExpression::escape(m_name.mid(i, 1));
            continue;
        }
        const QChar part = i + 1 < m_name.size() ? m_name.at(++i) : QChar('\0');
        if (part == '%') {
            m_expression += '%';
            continue;
        }
        if (part != 'N' && !kTimeParts.contains(part))
            fail(pattern,
                 "in the name of a file % is followed by Y, m, d, H, M or N (year to minute, and a "
                 "number), and %% is a percent sign");
        m_expression += part == 'N' ? QStringLiteral("([1-9][0-9]{0,8})")
                                    : QStringLiteral("([0-9]{%1})").arg(digitsOf(part));
        m_parts += part;
    }
    requireOrder(pattern, m_parts);
}

QString FilePattern::pathFor(const QDateTime& time, int number) const
{
    QString name;
    for (int i = 0; i < m_name.size(); ++i) {
        if (m_name.at(i) != '%') {
            name += m_name.at(i);
            continue;
        }
        const QChar part = m_name.at(++i);
        if (part == '%')
            name += part;
        else if (part == 'N')
            name += QString::number(number);
        else
            name += QString::number(valueOf(part, time)).rightJustified(digitsOf(part), '0');
    }
    return m_folder + name;
}

QVector<int> FilePattern::timeKey(const QDateTime& time) const
{
    QVector<int> key;
    for (const QChar part : kTimeParts) {
        if (m_parts.contains(part))
            key += valueOf(part, time);
    }
    return key;
}

QVector<FilePattern::File> FilePattern::existing() const
{
    const QRegularExpression expression('^' + m_expression + '$');
    const QDir folder(m_folder.isEmpty() ? QStringLiteral(".") : m_folder);
    QVector<File> files;
    for (const QString& name :
         folder.entryList(QDir::Files | QDir::Hidden | QDir::NoSymLinks, QDir::Unsorted))
    {
        const QRegularExpressionMatch match = expression.match(name);
        if (!match.hasMatch())
            continue;
        File file = {m_folder + name, {}, 0};
        for (const QChar part : kTimeParts) {
            if (m_parts.contains(part))
                file.time += match.captured(1 + m_parts.indexOf(part)).toInt();
        }
        if (hasNumber())
            file.number = match.captured(1 + m_parts.indexOf('N')).toInt();
        files += file;
    }
    std::sort(files.begin(), files.end(), [](const File& a, const File& b) {
        return a.time == b.time ? a.number < b.number
                                : std::lexicographical_compare(a.time.begin(), a.time.end(),
                                                               b.time.begin(), b.time.end());
    });
    return files;
}

} // namespace micro850::host
