#include "CsvForm.h"

#include "HistoryRows.h"
#include "LocalTime.h"
#include "VisibleText.h"

namespace micro850::host {

namespace {

// A spreadsheet takes a text that begins so for a formula, blanks before it or not. A sign alone,
// such as the unit "-", is none.
bool isFormula(const QString& text)
{
    static const QString signs = QString::fromUtf8("=+-@\uFF1D\uFF0B\uFF0D\uFF20");
    const QString begin = text.trimmed().left(2);
    return begin.size() > 1 && signs.contains(begin.at(0));
}

} // namespace

QString CsvForm::timeHeading() const
{
    return time == CsvTime::Spreadsheet ? QStringLiteral("time (local)") : QStringLiteral("time");
}

QString CsvForm::timeText(qint64 milliseconds) const
{
    if (time == CsvTime::Utc)
        return utcText(milliseconds);
    // "2026-11-22 14:30:00.125 +01:00"
    const QString local = QString::fromStdString(exactLocalTimeText(milliseconds));
    const int offset = local.lastIndexOf(' ');
    if (time == CsvTime::Spreadsheet)
        return local.left(offset).replace('.', decimal);
    return local.left(offset).replace(' ', 'T') + local.mid(offset + 1);
}

QString CsvForm::number(const QString& text) const
{
    QString number = text;
    return decimal == '.' ? number : number.replace('.', decimal);
}

QString CsvForm::line(const QStringList& fields) const
{
    QStringList quoted;
    for (const QString& field : fields)
        quoted += csvField(field, separator);
    return quoted.join(separator);
}

QString csvText(const QString& text)
{
    const QString shown = QString::fromStdString(visibleValue(text.toStdString()));
    if (shown.startsWith('"') || !isFormula(shown))
        return shown;
    QString quoted = shown;
    quoted.replace('\\', QStringLiteral("\\\\")).replace('"', QStringLiteral("\\\""));
    return '"' + quoted + '"';
}

QString csvField(const QString& text, QChar separator)
{
    const bool plain = !text.contains(separator) && !text.contains('"') && !text.contains('\n') &&
                       !text.contains('\r') && text == text.trimmed();
    if (plain)
        return text;
    QString quoted = text;
    return '"' + quoted.replace('"', QStringLiteral("\"\"")) + '"';
}

QStringList WideColumn::headings() const
{
    const QString end = unit.isEmpty() ? QString() : QStringLiteral(" [") + unit + ']';
    if (length == 1)
        return {name + end};
    QStringList headings;
    for (int i = 0; i < length; ++i)
        headings += name + '[' + QString::number(i) + ']' + end;
    return headings;
}

} // namespace micro850::host
