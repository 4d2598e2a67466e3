#include "NamePattern.h"

#include <QtCore/QRegularExpression>

namespace micro850::host {

bool nameMatches(const QString& name, const QString& pattern)
{
    if (!pattern.contains('*') && !pattern.contains('?'))
        return name.contains(pattern, Qt::CaseInsensitive);
    // Brackets have no special meaning: they are part of many names.
    QString expression = QRegularExpression::escape(pattern);
    expression.replace(QStringLiteral("\\*"), QStringLiteral(".*"));
    expression.replace(QStringLiteral("\\?"), QStringLiteral("."));
    const QRegularExpression whole(QRegularExpression::anchoredPattern(expression),
                                   QRegularExpression::CaseInsensitiveOption);
    return whole.match(name).hasMatch();
}

} // namespace micro850::host
