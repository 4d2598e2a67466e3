#ifndef MICRO850_HOST_HELPPAGE_H
#define MICRO850_HOST_HELPPAGE_H

#include "Key.h"
#include "Page.h"

namespace micro850::host {

/// A text on keys, scrolled when the window is too small for it.
class HelpPage
{
public:
    explicit HelpPage(const QStringList& lines) : m_lines(lines) {}

    /// Scrolls; false for a key that ends the help.
    bool handle(const Key& key);
    Page page(int width, int rows);

private:
    QStringList m_lines;
    int m_top = 0;
};

} // namespace micro850::host

#endif
