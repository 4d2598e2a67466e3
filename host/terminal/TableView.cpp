#include "TableView.h"

#include "NamePattern.h"
#include "Visible.h"

#include <algorithm>

namespace micro850::host {

void TableView::handle(const Key& key)
{
    if (m_typing) {
        handleMatch(key);
    } else if (key.code != Key::Code::Character) {
        scroll(key);
    } else if (key.character == 'q' || key.character == 'Q') {
        m_quits = true;
    } else if (key.character == '/') {
        m_typing = true;
        m_matchBefore = m_match;
        m_match.clear();
    } else if (key.character == 's') {
        const int orders = 3;
        m_order = static_cast<SortOrder>((static_cast<int>(m_order) + 1) % orders);
    } else if (key.character == 'j') {
        ++m_top;
    } else if (key.character == 'k') {
        --m_top;
    }
}

// The table follows each letter; Enter keeps the text, Escape the one before.
void TableView::handleMatch(const Key& key)
{
    switch (key.code) {
    case Key::Code::Character:
        m_match += key.character;
        break;
    case Key::Code::Backspace:
        m_match.chop(1);
        break;
    case Key::Code::Escape:
        m_match = m_matchBefore;
        m_typing = false;
        break;
    case Key::Code::Enter:
        m_typing = false;
        break;
    default:
        scroll(key);
    }
}

void TableView::scroll(const Key& key)
{
    switch (key.code) {
    case Key::Code::Up:
        --m_top;
        break;
    case Key::Code::Down:
        ++m_top;
        break;
    case Key::Code::PageUp:
        m_top -= m_room;
        break;
    case Key::Code::PageDown:
        m_top += m_room;
        break;
    case Key::Code::Home:
        m_top = 0;
        break;
    case Key::Code::End:
        m_top = m_table.size();
        break;
    case Key::Code::Escape:
        m_match.clear();
        break;
    default:
        break;
    }
}

QVector<int> TableView::shown(Duration now) const
{
    QVector<int> variables;
    for (int i = 0; i < m_table.size(); ++i) {
        if (nameMatches(m_table.name(i), m_match))
            variables.append(i);
    }
    if (m_order == SortOrder::Name) {
        std::stable_sort(variables.begin(), variables.end(), [this](int a, int b) {
            return m_table.name(a).compare(m_table.name(b), Qt::CaseInsensitive) < 0;
        });
    } else if (m_order == SortOrder::Age) { // what was never read first
        std::stable_sort(variables.begin(), variables.end(), [this, now](int a, int b) {
            return m_table.age(a, now) > m_table.age(b, now);
        });
    }
    return variables;
}

Page TableView::values(int width, int rows, Duration now)
{
    const QVector<int> variables = shown(now);
    m_count = variables.size();
    m_room = std::max(1, rows);
    m_top = std::max(0, std::min(m_top, m_count - m_room));
    return m_table.rows(variables.mid(m_top, m_room), width, now);
}

Page TableView::page(int width, int rows, Duration now)
{
    QStringList below = {QString(), m_table.lineState(), m_table.lineStatistics()};
    if (const QString overload = m_table.overload(); !overload.isEmpty())
        below += overload;
    below += m_table.stationLines(now);
    // Heading and footer; in a window that is too small the values go first.
    Page page = values(width, rows - 2 - below.size(), now);
    for (const QString& line : below)
        page.append({line, Style::Plain});
    while (page.size() > std::max(0, rows - 1))
        page.removeLast();
    page.append({footer(), Style::Faint});
    for (PageLine& line : page)
        line.text = cut(visible(line.text), width);
    return page;
}

QString TableView::footer() const
{
    if (m_typing)
        return QStringLiteral("match: %1_   Enter keep, Escape back").arg(m_match);
    const QString orders[] = {QStringLiteral("project"), QStringLiteral("name"),
                              QStringLiteral("age")};
    QString text = QStringLiteral("%1-%2 of %3")
                       .arg(m_count == 0 ? 0 : m_top + 1)
                       .arg(std::min(m_count, m_top + m_room))
                       .arg(m_count);
    if (!m_match.isEmpty())
        text += QStringLiteral(" that match \"%1\"").arg(m_match);
    return text + QStringLiteral(" by %1   q quit, / match, s sort, arrows scroll")
                      .arg(orders[static_cast<int>(m_order)]);
}

} // namespace micro850::host
