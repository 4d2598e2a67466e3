#ifndef MICRO850_HOST_SCREEN_H
#define MICRO850_HOST_SCREEN_H

#include "Key.h"
#include "Page.h"
#include "StopKey.h"

#include <QtCore/QList>

#include <csignal>
#include <optional>

struct screen;

namespace micro850::host {

/// Draws pages on the whole screen of the terminal at standard output, one over the other, and
/// reads its keys and its mouse. Only one at a time.
class Screen
{
public:
    /// The smallest window in which pages are readable.
    static const int kLeastWidth = 40;
    static const int kLeastRows = 10;

    /// Why standard output cannot show pages; empty when it can.
    static QString problem();

    /// Switches to the screen. Throws UserError when the terminal cannot.
    Screen();
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    int width() const;
    int rows() const;
    /// True once after the window has another size.
    bool popResized();
    /// The keys pressed since the last call; does not wait. Ctrl-C remains a signal. At Ctrl-Z it
    /// stops the program and draws again once it goes on.
    QList<Key> keys();
    /// Forgets what was typed and not read yet.
    void dropKeys();
    /// Whatever the lines hold, the terminal only shows it. Without colours when the environment
    /// sets NO_COLOR, or when the terminal has none.
    void draw(const Page& page);
    /// Shows what the terminal showed before.
    void leave();

private:
    void setUpStyles();
    int attributesOf(Style style) const;
    short pairOf(Style style) const;
    void drawLine(int row, const PageLine& line);
    QList<Key> readKeys();
    void stop();

    std::optional<StopKey> m_stop; ///< until the screen is left
    ::screen* m_screen = nullptr;
    bool m_hasKeys;
    bool m_hasColours = false;
    int m_width = 0;
    int m_rows = 0;
    struct sigaction m_before = {}; ///< how a change of the window's size was handled
};

} // namespace micro850::host

#endif
