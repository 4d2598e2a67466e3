#include "TableView.h"

#include "NamePattern.h"
#include "UserError.h"
#include "Visible.h"

#include <algorithm>

namespace micro850::host {

namespace {

const int kWheelRows = 3;
const int kOrders = 3;

QStringList helpLines()
{
    return {QStringLiteral("arrows, Page\tmove; so do j, k, Home, End, the wheel and a click"),
            QStringLiteral("Enter\tlook into an array, a long text, or an error"),
            QStringLiteral("w\twrite the selected variable: shows old and new value and asks"),
            QStringLiteral("p\tpause: hold the picture; reading goes on"),
            QStringLiteral("e\tonly what has an error, is stale or was never read"),
            QStringLiteral("/\tonly names that contain a text, or match it with * and ?"),
            QStringLiteral("s\torder: project, name, age"),
            QStringLiteral("Escape\tback; then all variables again"),
            QStringLiteral("Ctrl-L\tdraw again"),
            QStringLiteral("q\tquit, and print the whole table"),
            QStringLiteral("h, ?\tthis page"),
            QString(),
            QStringLiteral("\tA value that has just changed is marked for a second.")};
}

QString orderText(SortOrder order)
{
    switch (order) {
    case SortOrder::Name:
        return QStringLiteral("name");
    case SortOrder::Age:
        return QStringLiteral("age");
    case SortOrder::Project:
        break;
    }
    return QStringLiteral("project");
}

} // namespace

void TableView::handle(const Key& key)
{
    m_message.clear();
    if (m_prompt)
        handlePrompt(key);
    else if (m_help && m_help->handle(key))
        return;
    else if (m_help)
        m_help.reset();
    else if (m_typing)
        handleMatch(key);
    else if (m_detail)
        handleDetailKey(key);
    else
        handleTableKey(key);
    // The next key may come before the next picture.
    m_shown = shown();
    follow();
}

void TableView::handleTableKey(const Key& key)
{
    switch (key.code) {
    case Key::Code::Character:
        handleCharacter(key.character);
        break;
    case Key::Code::Enter:
        openDetail();
        break;
    case Key::Code::Escape:
        m_match.clear();
        m_onlyErrors = false;
        break;
    case Key::Code::Click:
        if (key.row >= 1 && key.row <= m_room) // below the heading
            select(m_top + key.row - 1);
        break;
    default:
        move(key);
    }
}

void TableView::handleCharacter(QChar character)
{
    switch (character.toLower().unicode()) {
    case 'q':
        m_quits = true;
        break;
    case 'h':
    case '?':
        m_help.emplace(helpLines());
        break;
    case '/':
        m_typing.emplace();
        m_matchBefore = m_match;
        m_match.clear();
        break;
    case 's':
        m_order = static_cast<SortOrder>((static_cast<int>(m_order) + 1) % kOrders);
        break;
    case 'e':
        m_onlyErrors = !m_onlyErrors;
        break;
    case 'p':
        m_rows.hold(!m_rows.isHeld());
        break;
    case 'w':
        beginWrite();
        break;
    case 'j':
        moveBy(1);
        break;
    case 'k':
        moveBy(-1);
        break;
    default:
        break;
    }
}

// The table follows each letter; Enter keeps the text, Escape the one before.
void TableView::handleMatch(const Key& key)
{
    if (m_typing->handle(key)) {
        m_match = m_typing->text();
    } else if (key.code == Key::Code::Escape) {
        m_match = m_matchBefore;
        m_typing.reset();
    } else if (key.code == Key::Code::Enter) {
        m_typing.reset();
    } else {
        move(key);
    }
}

void TableView::handlePrompt(const Key& key)
{
    m_prompt->handle(key);
    if (m_prompt->state() == WritePrompt::State::Confirmed) {
        m_write = m_prompt->request();
    } else if (m_prompt->state() == WritePrompt::State::Cancelled) {
        m_message = QStringLiteral("nothing was written");
    } else {
        return;
    }
    m_prompt.reset();
}

void TableView::handleDetailKey(const Key& key)
{
    if (key.code == Key::Code::Escape || key.code == Key::Code::Enter) {
        m_detail.reset();
        return;
    }
    if (key.code != Key::Code::Character) {
        m_detail->handle(key);
        return;
    }
    const QString keys = QStringLiteral("qhpw?");
    if (keys.contains(key.character.toLower()))
        handleCharacter(key.character);
    else if (key.character == 'j' || key.character == 'k')
        m_detail->handle({key.character == 'j' ? Key::Code::Down : Key::Code::Up, QChar()});
}

void TableView::move(const Key& key)
{
    switch (key.code) {
    case Key::Code::Up:
        moveBy(-1);
        break;
    case Key::Code::Down:
        moveBy(1);
        break;
    case Key::Code::PageUp:
        moveBy(-m_room);
        break;
    case Key::Code::PageDown:
        moveBy(m_room);
        break;
    case Key::Code::Home:
        select(0);
        break;
    case Key::Code::End:
        select(m_shown.size() - 1);
        break;
    case Key::Code::WheelUp:
        scrollBy(-kWheelRows);
        break;
    case Key::Code::WheelDown:
        scrollBy(kWheelRows);
        break;
    default:
        break;
    }
}

void TableView::moveBy(int rows)
{
    select(m_place + rows);
}

void TableView::scrollBy(int rows)
{
    m_top = std::max(0, std::min(m_top + rows, m_shown.size() - m_room));
    select(std::max(m_top, std::min(m_place, m_top + m_room - 1)));
}

void TableView::select(int place)
{
    if (m_shown.isEmpty())
        return;
    m_place = std::max(0, std::min(place, m_shown.size() - 1));
    m_selected = m_shown.at(m_place);
}

void TableView::openDetail()
{
    if (m_selected >= 0)
        m_detail.emplace(m_rows, m_selected);
}

void TableView::beginWrite()
{
    if (m_selected < 0)
        return;
    try {
        const WritePrompt prompt(m_rows, m_selected, m_detail ? m_detail->index() : 0);
        if (m_detail || m_rows.variable(m_selected).length == 1) {
            m_prompt.emplace(prompt);
            return;
        }
        openDetail();
        m_message = QStringLiteral("choose the element, then press w");
    } catch (const UserError& error) {
        m_message = QString::fromUtf8(error.what());
    }
}

std::optional<WriteRequest> TableView::popWrite()
{
    std::optional<WriteRequest> write;
    write.swap(m_write);
    return write;
}

QVector<int> TableView::sorted(QVector<int> variables) const
{
    if (m_order == SortOrder::Name) {
        std::stable_sort(variables.begin(), variables.end(), [this](int a, int b) {
            return m_rows.at(a).name.compare(m_rows.at(b).name, Qt::CaseInsensitive) < 0;
        });
    } else if (m_order == SortOrder::Age) { // what was never read first
        std::stable_sort(variables.begin(), variables.end(),
                         [this](int a, int b) { return m_rows.age(a) > m_rows.age(b); });
    }
    return variables;
}

QVector<int> TableView::shown() const
{
    QVector<int> variables;
    for (int i = 0; i < m_rows.size(); ++i) {
        const bool isWanted = !m_onlyErrors || !m_rows.at(i).isGood();
        if (isWanted && (m_match.isEmpty() || nameMatches(m_rows.variable(i).name, m_match)))
            variables.append(i);
    }
    return sorted(variables);
}

// The selection stays with its variable, in whatever row that is; when it is not shown any more,
// with its place.
void TableView::follow()
{
    const int place = m_shown.indexOf(m_selected);
    m_place = std::max(0, std::min(place < 0 ? m_place : place, m_shown.size() - 1));
    m_selected = m_shown.value(m_place, -1);
    m_top = std::max(m_place - m_room + 1, std::min(m_top, m_place));
    m_top = std::max(0, std::min(m_top, m_shown.size() - m_room));
}

Page TableView::whole(int width) const
{
    QVector<int> all;
    for (int i = 0; i < m_rows.size(); ++i)
        all.append(i);
    return m_rows.lines(sorted(all), width);
}

QStringList TableView::lineAndStations(Duration now, int most) const
{
    QStringList lines = {QString(), m_table.lineState(), m_table.lineStatistics()};
    if (const QString overload = m_table.overload(); !overload.isEmpty())
        lines += overload;
    lines += m_table.stationLines(now);
    if (lines.size() <= most)
        return lines;
    const int left = lines.size() - most + 1;
    lines = lines.mid(0, std::max(0, most - 1));
    if (most > 0)
        lines += QStringLiteral("%1 more lines in a higher window").arg(left);
    return lines;
}

Page TableView::tablePage(int width, int rows, Duration now)
{
    const int room = std::max(1, rows - 1); // the heading
    const QStringList below = lineAndStations(now, room / 2);
    m_shown = shown();
    m_room = std::max(1, room - below.size());
    follow();
    Page page = m_rows.lines(m_shown.mid(m_top, m_room), width);
    if (m_place - m_top + 1 < page.size())
        page[m_place - m_top + 1].isSelected = true;
    for (const QString& line : below)
        page.append({line});
    return page;
}

Page TableView::page(int width, int rows, Duration now)
{
    Page page;
    if (m_help) {
        page = m_help->page(width, rows);
    } else {
        const Page below = bottom(width);
        const int room = std::max(0, rows - below.size());
        page = m_detail ? m_detail->lines(width, room) : tablePage(width, room, now);
        while (page.size() > room)
            page.removeLast();
        // Questions stay where they are, at the foot of the window.
        while (page.size() < room && (m_prompt || m_detail))
            page.append({QString()});
        page += below;
    }
    while (page.size() > rows)
        page.removeFirst();
    for (PageLine& line : page)
        line.text = cut(visible(line.text), width);
    return page;
}

Page TableView::bottom(int width) const
{
    if (m_prompt)
        return m_prompt->lines(width);
    Page page;
    if (!m_message.isEmpty()) {
        for (const QString& line : wrapped(visible(m_message), width))
            page.append({line, Style::Heading});
    }
    page.append({footer(width), Style::Faint});
    return page;
}

QString TableView::footer(int width) const
{
    if (m_typing)
        return QStringLiteral("match: %1_   Enter keep, Escape back").arg(m_typing->text());
    QString text = m_rows.isHeld() ? QStringLiteral("PAUSED ") : QString();
    if (m_detail)
        return text + m_detail->place() + QStringLiteral("   Escape back, h help, w write, q quit");
    text += QStringLiteral("%1-%2 of %3")
                .arg(m_shown.isEmpty() ? 0 : m_top + 1)
                .arg(std::min(m_shown.size(), m_top + m_room))
                .arg(m_shown.size());
    if (m_onlyErrors)
        text += QStringLiteral(" with errors");
    if (!m_match.isEmpty())
        text += QStringLiteral(" that match \"%1\"").arg(m_match);
    text += QStringLiteral(" by ") + orderText(m_order);
    const QStringList keys = {QStringLiteral("   h help"),    QStringLiteral(", q quit"),
                              QStringLiteral(", Enter look"), QStringLiteral(", w write"),
                              QStringLiteral(", / match"),    QStringLiteral(", e errors"),
                              QStringLiteral(", s sort"),     QStringLiteral(", p pause")};
    for (const QString& key : keys) {
        if (displayWidth(text + key) > width)
            break;
        text += key;
    }
    return text;
}

} // namespace micro850::host
