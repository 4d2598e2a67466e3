#include "DetailView.h"

#include "PlantTexts.h"
#include "TagAddress.h"
#include "Visible.h"

#include <algorithm>

namespace micro850::host {

namespace {

const int kWheelRows = 3;

QString tagText(const Variable& variable)
{
    TagAddress address;
    address.tag = variable.tag;
    address.element = variable.element;
    address.elements = variable.length;
    address.indexed = variable.length > 1 || variable.element > 0;
    return QStringLiteral("tag %1 of station %2").arg(address.text()).arg(variable.station);
}

} // namespace

void DetailView::handle(const Key& key)
{
    switch (key.code) {
    case Key::Code::Up:
        --m_index;
        break;
    case Key::Code::Down:
        ++m_index;
        break;
    case Key::Code::PageUp:
        m_index -= m_room;
        break;
    case Key::Code::PageDown:
        m_index += m_room;
        break;
    case Key::Code::WheelUp:
        m_index -= kWheelRows;
        break;
    case Key::Code::WheelDown:
        m_index += kWheelRows;
        break;
    case Key::Code::Home:
        m_index = 0;
        break;
    case Key::Code::End:
        m_index = m_count - 1;
        break;
    default:
        break;
    }
    m_index = std::max(0, std::min(m_index, m_count - 1));
}

void DetailView::follow()
{
    m_index = std::max(0, std::min(m_index, m_count - 1));
    m_top = std::max(m_index - m_room + 1, std::min(m_top, m_index));
    m_top = std::max(0, std::min(m_top, m_count - m_room));
}

Page DetailView::heading(int width) const
{
    const TableRow& row = m_rows.at(m_variable);
    Page page;
    page.append({QStringLiteral("%1  %2").arg(row.name, row.type), Style::Heading});
    const Duration age = m_rows.age(m_variable);
    const QString read =
        row.refreshedAt
            ? QStringLiteral("%1, read %2 ago").arg(qualityText(row.quality), ageText(age))
            : QStringLiteral("never read");
    for (const QString& line : wrapped(
             visible(tagText(m_rows.variable(m_variable))) + QStringLiteral(", ") + read, width))
        page.append({line});
    if (!row.error.isEmpty()) {
        for (const QString& line : wrapped(row.error, width))
            page.append({line, Style::Error});
    }
    page.append({QString()});
    return page;
}

// An element that was not shown before has not changed before the user's eyes.
void DetailView::noteChanges(const QStringList& texts)
{
    QMap<int, Seen> seen;
    for (int i = 0; i < texts.size(); ++i) {
        const auto before = m_seen.constFind(m_top + i);
        Seen now = {texts.at(i), std::nullopt};
        if (before != m_seen.constEnd())
            now.changedAt = before->text == now.text ? before->changedAt : m_rows.now();
        seen.insert(m_top + i, now);
    }
    m_seen = seen;
}

Page DetailView::elements(int width, int room)
{
    const Variable& variable = m_rows.variable(m_variable);
    const ValueStore& values = m_rows.values();
    m_count = variable.length;
    m_room = room;
    follow();
    const int last = std::min(m_count, m_top + m_room);
    const QString unit = m_rows.at(m_variable).unit;
    const CipType* type = values.type(m_variable);
    QStringList texts;
    int widest = 0;
    for (int i = m_top; i < last; ++i) {
        texts += visible(values.elementText(m_variable, i));
        widest = std::max(widest, displayWidth(texts.last()));
    }
    noteChanges(texts);
    const int indexWidth = QString::number(m_count - 1).size() + 2;
    Page page;
    for (int i = m_top; i < last; ++i) {
        const QString& text = texts.at(i - m_top);
        const QString value = type && isNumber(*type) ? rightAligned(text, widest) : text;
        PageLine line = {rightAligned(QStringLiteral("[%1]").arg(i), indexWidth) + ' ' + value};
        if (!unit.isEmpty())
            line.text += ' ' + unit;
        line.text = cut(line.text, width);
        line.isSelected = i == m_index;
        if (m_rows.isMarked(m_seen.value(i).changedAt))
            line.marks.append({indexWidth + 1 + displayWidth(value) - displayWidth(text),
                               displayWidth(text), Style::Changed});
        page.append(line);
    }
    return page;
}

Page DetailView::text(int width, int room)
{
    const ValueStore& values = m_rows.values();
    const QString unit = m_rows.at(m_variable).unit;
    QString text = visible(values.bareText(m_variable));
    if (!unit.isEmpty() && !text.isEmpty())
        text += ' ' + unit;
    const QStringList all = wrapped(text, width);
    m_count = all.size();
    m_room = room;
    m_top = m_index = std::max(0, std::min(m_index, m_count - m_room));
    Page page;
    for (const QString& line : all.mid(m_top, m_room))
        page.append({line});
    return page;
}

Page DetailView::lines(int width, int rows)
{
    Page page = heading(width);
    const int room = std::max(1, rows - page.size());
    page += m_rows.variable(m_variable).length > 1 ? elements(width, room) : text(width, room);
    return page;
}

QString DetailView::place() const
{
    return QStringLiteral("%1-%2 of %3")
        .arg(m_top + 1)
        .arg(std::min(m_count, m_top + m_room))
        .arg(m_count);
}

} // namespace micro850::host
