#ifndef MICRO850_HOST_TERMINAL_H
#define MICRO850_HOST_TERMINAL_H

#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <cstdio>

namespace micro850::host {

enum class Style { Plain, Heading, Warning, Error, Faint };

struct PageLine
{
    QString text;
    Style style;
};
using Page = QVector<PageLine>;

/// A terminal on which a page is drawn again and again, on its alternate screen. Does nothing on
/// what is no terminal.
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
    /// Styles are left out where the environment has NO_COLOR, or TERM is dumb.
    void draw(const Page& page);
    /// Gives back the screen as it was, the last page below it.
    void restore();

private:
    std::FILE* m_stream;
    bool m_isTerminal;
    bool m_entered = false;
    bool m_styled;
    QStringList m_last;
};

/// Notices Ctrl-C and termination while it lives, so that the caller can end in order.
class Interrupt
{
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    bool requested() const;
    /// Ends a command that has not done its work.
    void throwIfRequested() const;
};

} // namespace micro850::host

#endif
