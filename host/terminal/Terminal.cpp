#include "Terminal.h"

#include "Visible.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace micro850::host {

namespace {

winsize sizeOf(std::FILE* stream)
{
    winsize size = {};
    if (ioctl(fileno(stream), TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        size.ws_col = 80;
        size.ws_row = 24;
    }
    return size;
}

const char* sequenceOf(Style style)
{
    switch (style) {
    case Style::Heading:
        return "\x1b[1m";
    case Style::Warning:
        return "\x1b[33m";
    case Style::Error:
        return "\x1b[31m";
    case Style::Faint:
        return "\x1b[2m";
    case Style::Plain:
        break;
    }
    return "";
}

} // namespace

Terminal::Terminal(std::FILE* stream)
    : m_stream(stream), m_isTerminal(isatty(fileno(stream)) == 1),
      m_styled(qgetenv("NO_COLOR").isEmpty() && qgetenv("TERM") != "dumb")
{
}

int Terminal::width() const
{
    return sizeOf(m_stream).ws_col;
}

int Terminal::rows() const
{
    return sizeOf(m_stream).ws_row;
}

void Terminal::draw(const Page& page)
{
    if (!m_isTerminal)
        return;
    // Switch to the alternate screen and hide the cursor; then overwrite each line.
    QByteArray bytes = m_entered ? "\x1b[H" : "\x1b[?1049h\x1b[?25l\x1b[H";
    m_entered = true;
    m_last.clear();
    for (const PageLine& line : page) {
        if (!m_last.isEmpty())
            bytes += "\r\n";
        const char* style = m_styled ? sequenceOf(line.style) : "";
        const QString text = visible(line.text);
        bytes += style + text.toUtf8() + (*style != 0 ? "\x1b[0m" : "") + "\x1b[K";
        m_last += text;
    }
    bytes += "\x1b[J";
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), m_stream);
    std::fflush(m_stream);
}

void Terminal::restore()
{
    if (!m_entered)
        return;
    m_entered = false;
    const QByteArray page = "\x1b[?25h\x1b[?1049l" + m_last.join('\n').toUtf8() + '\n';
    std::fwrite(page.constData(), 1, static_cast<std::size_t>(page.size()), m_stream);
    std::fflush(m_stream);
}

} // namespace micro850::host
