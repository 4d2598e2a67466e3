#include "Prompt.h"

#include <algorithm>

namespace micro850::host {

QString shellHistoryFile()
{
    QString folder = QString::fromLocal8Bit(qgetenv("XDG_STATE_HOME"));
    const QString home = QString::fromLocal8Bit(qgetenv("HOME"));
    if (!folder.startsWith('/') && home.isEmpty())
        return QString();
    if (!folder.startsWith('/'))
        folder = home + QStringLiteral("/.local/state");
    return folder + QStringLiteral("/micro850/shell-history");
}

QString commonPrefix(const QStringList& words)
{
    QString prefix = words.value(0);
    for (const QString& word : words) {
        const auto differ = std::mismatch(prefix.begin(), prefix.end(), word.begin(), word.end());
        prefix.truncate(static_cast<int>(differ.first - prefix.begin()));
    }
    return prefix;
}

QStringList inColumns(const QStringList& words, int width)
{
    const int gap = 2;
    int longest = 1;
    for (const QString& word : words)
        longest = std::max(longest, word.size() + gap);
    const int columns = std::max(1, width / longest);
    const int rows = (words.size() + columns - 1) / columns;
    QStringList lines;
    for (int row = 0; row < rows; ++row) {
        QString line;
        for (int at = row; at < words.size(); at += rows)
            line += words.at(at).leftJustified(longest);
        while (line.endsWith(' '))
            line.chop(1);
        lines.append(line);
    }
    return lines;
}

} // namespace micro850::host
