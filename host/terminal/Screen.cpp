#include "Screen.h"

#include "PlainText.h"
#include "UserError.h"
#include "Visible.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <cwchar>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

#define NCURSES_NOMACROS
#define NCURSES_WIDECHAR 1
#include <curses.h>
#include <term.h>

namespace micro850::host {

namespace {

// A terminal sends the rest of a key's sequence within this time.
const int kEscapeDelayMs = 25;
const int kEscape = 0x1B;
const int kRedraw = 0x0C; // Ctrl-L
const int kDelete = 0x7F;

struct Shape
{
    Style style;
    chtype attributes;
    short colour; ///< -1: the terminal's own
};

const std::array<Shape, 14> kShapes = {{{Style::Plain, A_NORMAL, -1},
                                        {Style::Heading, A_BOLD, -1},
                                        {Style::Warning, A_NORMAL, COLOR_YELLOW},
                                        {Style::Error, A_NORMAL, COLOR_RED},
                                        {Style::Faint, A_DIM, -1},
                                        {Style::Changed, A_BOLD | A_UNDERLINE, COLOR_GREEN},
                                        {Style::Series1, A_NORMAL, COLOR_CYAN},
                                        {Style::Series2, A_NORMAL, COLOR_YELLOW},
                                        {Style::Series3, A_NORMAL, COLOR_GREEN},
                                        {Style::Series4, A_NORMAL, COLOR_MAGENTA},
                                        {Style::Series5, A_NORMAL, COLOR_BLUE},
                                        {Style::Series6, A_NORMAL, COLOR_RED},
                                        {Style::Series7, A_BOLD, COLOR_CYAN},
                                        {Style::Series8, A_BOLD, COLOR_YELLOW}}};

/// What curses and what this program call a key.
using Code = std::pair<int, Key::Code>;

const std::array<Code, 9> kCodes = {{{KEY_UP, Key::Code::Up},
                                     {KEY_DOWN, Key::Code::Down},
                                     {KEY_PPAGE, Key::Code::PageUp},
                                     {KEY_NPAGE, Key::Code::PageDown},
                                     {KEY_HOME, Key::Code::Home},
                                     {KEY_END, Key::Code::End},
                                     {KEY_ENTER, Key::Code::Enter},
                                     {KEY_BACKSPACE, Key::Code::Backspace},
                                     {KEY_DC, Key::Code::Backspace}}};

winsize windowSize()
{
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        size.ws_col = 80;
        size.ws_row = 24;
    }
    return size;
}

// The character table of the user's locale. A system without that locale has this one.
void setCharacterTable()
{
    const bool isSet = std::setlocale(LC_CTYPE, "") != nullptr;
    if (localeHasUnicode() && (!isSet || MB_CUR_MAX == 1))
        std::setlocale(LC_CTYPE, "C.UTF-8");
}

// What the terminal would not show as one sign is shown as another one.
wchar_t shownCharacter(uint character, bool hasUnicode)
{
    const uint kEllipsis = 0x2026;
    if (!hasUnicode && character > 0x7E)
        return character == kEllipsis ? L'~' : L'?';
    const auto wide = static_cast<wchar_t>(character);
    return ::wcwidth(wide) < 0 ? (hasUnicode ? L'\uFFFD' : L'?') : wide;
}

Key mouseKey()
{
    MEVENT event = {};
    if (::getmouse(&event) != OK)
        return {Key::Code::Other, QChar()};
    if ((event.bstate & BUTTON4_PRESSED) != 0)
        return {Key::Code::WheelUp, QChar()};
    if ((event.bstate & BUTTON5_PRESSED) != 0)
        return {Key::Code::WheelDown, QChar()};
    return {Key::Code::Click, QChar(), event.y};
}

Key functionKey(wint_t code)
{
    if (code == KEY_MOUSE)
        return mouseKey();
    const auto* found = std::find_if(kCodes.begin(), kCodes.end(), [code](const Code& known) {
        return static_cast<wint_t>(known.first) == code;
    });
    return {found == kCodes.end() ? Key::Code::Other : found->second, QChar()};
}

Key characterKey(wint_t character)
{
    if (character == '\r' || character == '\n')
        return {Key::Code::Enter, QChar()};
    if (character == '\b' || character == kDelete)
        return {Key::Code::Backspace, QChar()};
    if (character == kEscape)
        return {Key::Code::Escape, QChar()};
    const QChar sign =
        character <= 0xFFFF ? QChar(static_cast<ushort>(character)) : QChar(QChar::Null);
    return {sign.isPrint() ? Key::Code::Character : Key::Code::Other, sign};
}

} // namespace

QString Screen::problem()
{
    if (::isatty(STDOUT_FILENO) != 1)
        return QStringLiteral("standard output is no terminal");
    const QByteArray type = qgetenv("TERM");
    int found = 0;
    if (type.isEmpty() || ::setupterm(nullptr, STDOUT_FILENO, &found) != OK)
        return QStringLiteral("TERM=%1: the system does not know this terminal")
            .arg(visible(QString::fromLocal8Bit(type)));
    const bool canMove = cursor_address != nullptr;
    ::del_curterm(cur_term);
    if (!canMove)
        return QStringLiteral("TERM=%1: this terminal cannot move its cursor")
            .arg(visible(QString::fromLocal8Bit(type)));
    const winsize size = windowSize();
    if (size.ws_col < kLeastWidth || size.ws_row < kLeastRows)
        return QStringLiteral("the window has %1x%2 characters, and at least %3x%4 are needed")
            .arg(size.ws_col)
            .arg(size.ws_row)
            .arg(kLeastWidth)
            .arg(kLeastRows);
    return QString();
}

// Curses leaves Ctrl-Z to this program, because its signal is caught already; it would ignore one
// that comes while it draws. The size is asked for before each picture. Curses would handle the
// signal of its change, and that would interrupt the waits of the line.
Screen::Screen() : m_hasKeys(::isatty(STDIN_FILENO) == 1)
{
    setCharacterTable();
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGWINCH, &ignore, &m_before);
    m_stop.emplace();
    ::use_env(FALSE);
    ::use_tioctl(TRUE);
    m_screen = ::newterm(nullptr, stdout, stdin);
    if (!m_screen) {
        ::sigaction(SIGWINCH, &m_before, nullptr);
        throw UserError("TERM: the system does not know this terminal (set TERM to what it is)");
    }
    ::set_escdelay(kEscapeDelayMs);
    ::cbreak();
    ::noecho();
    ::nonl();
    ::curs_set(0);
    ::keypad(stdscr, TRUE);
    ::nodelay(stdscr, TRUE);
    ::mouseinterval(0);
    ::mousemask(BUTTON1_PRESSED | BUTTON4_PRESSED | BUTTON5_PRESSED, nullptr);
    setUpStyles();
    popResized();
}

Screen::~Screen()
{
    leave();
}

void Screen::leave()
{
    if (!m_screen)
        return;
    ::mousemask(0, nullptr);
    ::endwin();
    ::delscreen(m_screen);
    m_screen = nullptr;
    ::sigaction(SIGWINCH, &m_before, nullptr);
    m_stop.reset();
}

void Screen::setUpStyles()
{
    m_hasColours = qgetenv("NO_COLOR").isEmpty() && ::has_colors() && ::start_color() == OK;
    if (!m_hasColours)
        return;
    const bool hasDefault = ::use_default_colors() == OK;
    for (const Shape& shape : kShapes) {
        if (shape.colour >= 0)
            ::init_pair(pairOf(shape.style), shape.colour,
                        hasDefault ? static_cast<short>(-1) : static_cast<short>(COLOR_BLACK));
    }
}

// Pair 0 has the terminal's own colours.
short Screen::pairOf(Style style) const
{
    const auto index = static_cast<std::size_t>(style);
    return m_hasColours && kShapes.at(index).colour >= 0 ? static_cast<short>(index)
                                                         : static_cast<short>(0);
}

int Screen::attributesOf(Style style) const
{
    return static_cast<int>(kShapes.at(static_cast<std::size_t>(style)).attributes);
}

int Screen::width() const
{
    return windowSize().ws_col;
}

int Screen::rows() const
{
    return windowSize().ws_row;
}

bool Screen::popResized()
{
    const winsize size = windowSize();
    if (size.ws_col == m_width && size.ws_row == m_rows)
        return false;
    m_width = size.ws_col;
    m_rows = size.ws_row;
    if (::is_term_resized(m_rows, m_width))
        ::resizeterm(m_rows, m_width);
    return true;
}

// Curses is asked only when something is there: it would draw before each look.
QList<Key> Screen::keys()
{
    if (m_stop && m_stop->isPressed())
        stop();
    pollfd wait = {STDIN_FILENO, POLLIN, 0};
    if (!m_hasKeys || ::poll(&wait, 1, 0) != 1 || (wait.revents & POLLIN) == 0)
        return {};
    return readKeys();
}

QList<Key> Screen::readKeys()
{
    QList<Key> keys;
    wint_t code = 0;
    for (int result = 0; (result = ::get_wch(&code)) != ERR;) {
        if (result == KEY_CODE_YES)
            keys.append(functionKey(code));
        else if (code == kRedraw)
            ::clearok(stdscr, TRUE);
        else
            keys.append(characterKey(code));
    }
    return keys;
}

// What the terminal was set to meanwhile is what it gets back at the end.
void Screen::stop()
{
    ::endwin();
    m_stop->stop();
    ::def_shell_mode();
    ::refresh();
}

void Screen::dropKeys()
{
    ::flushinp();
}

void Screen::drawLine(int row, const PageLine& line)
{
    const chtype selected = line.isSelected ? A_REVERSE : A_NORMAL;
    const bool unicode = localeHasUnicode();
    std::wstring text;
    for (const uint character : visible(line.text).toUcs4())
        text += shownCharacter(character, unicode);
    const auto attributes = [&](Style style) {
        return static_cast<attr_t>(attributesOf(style)) | selected;
    };
    ::attr_set(attributes(line.style), pairOf(line.style), nullptr);
    ::mvaddwstr(row, 0, text.c_str());
    if (line.isSelected)
        ::mvchgat(row, 0, -1, attributes(line.style), pairOf(line.style), nullptr);
    for (const Mark& mark : line.marks) {
        if (mark.column < m_width)
            ::mvchgat(row, mark.column, std::min(mark.width, m_width - mark.column),
                      attributes(mark.style), pairOf(mark.style), nullptr);
    }
}

void Screen::draw(const Page& page)
{
    popResized();
    ::attr_set(A_NORMAL, 0, nullptr);
    ::erase();
    for (int row = 0; row < std::min(page.size(), m_rows); ++row)
        drawLine(row, page.at(row));
    ::refresh();
}

} // namespace micro850::host
