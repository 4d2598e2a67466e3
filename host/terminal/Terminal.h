#ifndef MICRO850_HOST_TERMINAL_H
#define MICRO850_HOST_TERMINAL_H

#include "Page.h"

#include <QtCore/QStringList>

#include <cstdio>

namespace micro850::host {

/// Draws pages on the alternate screen of a terminal, one over the other. Does nothing when the
/// stream is not a terminal.
class Terminal
{
public:
    explicit Terminal(std::FILE* stream);
    ~Terminal() { restore(); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    bool isTerminal() const { return m_isTerminal; }
    int width() const;
    int rows() const;
    /// Whatever the lines hold, the terminal only shows it (VisibleText). Without styles when the
    /// environment sets NO_COLOR, or when TERM is dumb.
    void draw(const Page& page);
    /// Restores the screen as it was, with the last page below it.
    void restore();

private:
    std::FILE* m_stream;
    bool m_isTerminal;
    bool m_entered = false;
    bool m_styled;
    QStringList m_last;
};

} // namespace micro850::host

#endif
