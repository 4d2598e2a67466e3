#include "WritePrompt.h"

#include "TagAddress.h"
#include "UserError.h"
#include "Visible.h"
#include "Writable.h"
#include "WriteLimits.h"

namespace micro850::host {

WritePrompt::WritePrompt(const TableRows& rows, int variable, int index) : m_rows(rows)
{
    const Variable& asked = rows.variable(variable);
    const QString name = shownName(asked.name);
    m_request.variable = variable;
    m_request.index = index;
    m_request.type = rows.latest().type(variable);
    m_request.name =
        visible(asked.length > 1 ? QStringLiteral("%1[%2]").arg(name).arg(index) : name);
    const std::string shown = visible(name).toStdString();
    if (!rows.isEnabled(variable))
        throw UserError(shown +
                        ": its station is disabled in the project, so it cannot be written");
    if (asked.isProtected)
        throw UserError(shown +
                        ": the project says \"writable\": false, so it is not written here");
    if (!m_request.type || !rows.latest().wasRead(variable))
        throw UserError(shown + ": it was never read, so its type is not known (wait for its first "
                                "value)");
    requireWritable(*m_request.type, m_request.name);
}

QString WritePrompt::withUnit(const QString& text) const
{
    const QString unit = visible(m_rows.variable(m_request.variable).unit);
    return unit.isEmpty() ? text : text + ' ' + unit;
}

// One that the controller may have changed since is no value of now.
QString WritePrompt::oldText() const
{
    const QString text =
        withUnit(visible(m_rows.latest().elementText(m_request.variable, m_request.index)));
    return m_rows.latestQuality(m_request.variable) == Quality::Stale
               ? text + QStringLiteral(" (stale)")
               : text;
}

void WritePrompt::handle(const Key& key)
{
    if (m_state == State::Asking) {
        const bool agrees = key.code == Key::Code::Character && key.character.toLower() == 'y';
        m_state = agrees ? State::Confirmed : State::Cancelled;
        m_request.oldText = oldText();
    } else if (m_edit.handle(key)) {
        m_problem.clear();
    } else if (key.code == Key::Code::Enter) {
        take();
    } else if (key.code == Key::Code::Escape) {
        m_state = State::Cancelled;
    }
}

// Rounding to what the controller can store must not bring a number into the limits.
void WritePrompt::requireLimits(const StoredValue& stored) const
{
    const Variable& variable = m_rows.variable(m_request.variable);
    const CipValue number = limitedNumber(*m_request.type, stored.value, variable);
    std::string problem = limitsProblem(number, number.text(), variable);
    if (problem.empty() && stored.rounded)
        problem = limitsProblem(CipValue::ofReal(m_edit.text().toDouble()),
                                m_edit.text().toStdString(), variable);
    if (!problem.empty())
        throw UserError(problem);
}

void WritePrompt::take()
{
    const Scaling scaling(m_rows.variable(m_request.variable));
    const CipType& type = *m_request.type;
    try {
        const StoredValue stored = scaling.stored(type, m_edit.text());
        requireLimits(stored);
        m_request.value = encodeElement(type, stored.value);
        m_request.newText =
            withUnit(visible(scaling.text(type, decodeElement(type, m_request.value))));
        m_note =
            stored.rounded ? scaling.roundingNote(type, m_edit.text(), stored.value) : QString();
        m_state = State::Asking;
    } catch (const UserError& error) {
        m_problem = QString::fromUtf8(error.what());
    }
}

WriteRequest WritePrompt::request() const
{
    return m_request;
}

Page WritePrompt::lines(int width) const
{
    QStringList above;
    QString keys;
    if (m_state == State::Asking) {
        if (!m_note.isEmpty())
            above += wrapped(visible(m_note), width);
        above += wrapped(QStringLiteral("Write %1: %2 -> %3 ?")
                             .arg(m_request.name, oldText(), m_request.newText),
                         width);
        keys = QStringLiteral("y writes, any other key does not");
    } else {
        if (!m_problem.isEmpty())
            above += wrapped(visible(m_problem), width);
        const QString limits =
            QString::fromStdString(limitsText(m_rows.variable(m_request.variable)));
        above += wrapped(QStringLiteral("%1 (%2%3) is %4, new value: %5_")
                             .arg(m_request.name, QLatin1String(m_request.type->name),
                                  limits.isEmpty() ? limits : QStringLiteral(", ") + limits,
                                  oldText(), visible(m_edit.text())),
                         width);
        keys = QStringLiteral("Enter next, Escape back");
    }
    Page page;
    for (const QString& line : qAsConst(above))
        page.append({line, Style::Heading});
    page.append({keys, Style::Faint});
    return page;
}

} // namespace micro850::host
