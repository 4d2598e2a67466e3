#include "HelpPage.h"

#include <algorithm>

namespace micro850::host {

namespace {

const int kKeyWidth = 12;

} // namespace

bool HelpPage::handle(const Key& key)
{
    switch (key.code) {
    case Key::Code::Up:
    case Key::Code::PageUp:
    case Key::Code::WheelUp:
        --m_top;
        return true;
    case Key::Code::Down:
    case Key::Code::PageDown:
    case Key::Code::WheelDown:
        ++m_top;
        return true;
    default:
        return false;
    }
}

// A line is a key, a tab, and what it does.
Page HelpPage::page(int width, int rows)
{
    QStringList all;
    for (const QString& line : m_lines) {
        const QStringList parts = wrapped(line.section('\t', 1), width - kKeyWidth - 1);
        for (int i = 0; i < parts.size(); ++i)
            all += fitted(i == 0 ? line.section('\t', 0, 0) : QString(), kKeyWidth) + ' ' +
                   parts.at(i);
    }
    const int room = std::max(1, rows - 2);
    m_top = std::max(0, std::min(m_top, all.size() - room));
    Page page = {{fitted(QStringLiteral("KEYS"), width), Style::Heading}};
    for (const QString& line : all.mid(m_top, room))
        page.append({line});
    page.append({all.size() > room ? QStringLiteral("arrows scroll, any other key back")
                                   : QStringLiteral("any key back"),
                 Style::Faint});
    return page;
}

} // namespace micro850::host
