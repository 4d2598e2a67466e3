#include "EditedPrompt.h"

#include "Visible.h"
#include "Words.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cwchar>
#include <histedit.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace micro850::host {

namespace {

const int kMostLines = 1000; ///< of the history
const int kMostListed = 200; ///< candidates

winsize windowSize()
{
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        size.ws_col = 80;
    return size;
}

// How many cells of the terminal the text takes.
int cellsOf(const QString& text)
{
    int cells = 0;
    for (const uint character : text.toUcs4())
        cells += std::max(1, ::wcwidth(static_cast<wchar_t>(character)));
    return cells;
}

bool hasInput()
{
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    return ::poll(&input, 1, 0) == 1;
}

void print(const QByteArray& bytes)
{
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

} // namespace

EditedPrompt::EditedPrompt(const QString& text, const QString& historyFile, Completer completer)
    : m_text(visible(text).toLocal8Bit()), m_file(historyFile), m_completer(std::move(completer)),
      m_editor(el_init("micro850-host", stdin, stdout, stderr)), m_history(history_init())
{
    HistEvent event = {};
    ::history(m_history, &event, H_SETSIZE, kMostLines);
    ::history(m_history, &event, H_SETUNIQUE, 1);
    el_set(m_editor, EL_CLIENTDATA, this);
    el_set(m_editor, EL_PROMPT, &EditedPrompt::promptOf);
    el_set(m_editor, EL_EDITOR, "emacs");
    el_set(m_editor, EL_HIST, &::history, m_history);
    // The library would copy narrow texts and never free them.
    el_wset(m_editor, EL_ADDFN, L"micro850-complete", L"Complete a word", &EditedPrompt::handleTab);
    el_set(m_editor, EL_BIND, "^I", "micro850-complete", nullptr);
    el_set(m_editor, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    el_source(m_editor, nullptr); // the keys that the user wants
    loadHistory();
}

EditedPrompt::~EditedPrompt()
{
    EditedPrompt::end();
    saveHistory();
    el_end(m_editor);
    history_end(m_history);
}

char* EditedPrompt::promptOf(EditLine* editor)
{
    EditedPrompt* self = nullptr;
    el_get(editor, EL_CLIENTDATA, &self);
    return self->m_text.data();
}

unsigned char EditedPrompt::handleTab(EditLine* editor, int)
{
    EditedPrompt* self = nullptr;
    el_get(editor, EL_CLIENTDATA, &self);
    return self->complete();
}

void EditedPrompt::begin()
{
    const winsize size = windowSize();
    m_columns = size.ws_col;
    m_rows = size.ws_row;
    el_resize(m_editor);
    m_stop.emplace();
    // From now on a call handles one key. This also shows the prompt.
    el_set(m_editor, EL_UNBUFFERED, 1);
    m_isShown = true;
}

void EditedPrompt::end()
{
    if (m_isShown) {
        el_set(m_editor, EL_UNBUFFERED, 0);
        m_stop.reset();
    }
    m_isShown = false;
}

bool EditedPrompt::hasMore() const
{
    return m_stop && m_stop->isPressed();
}

// Ctrl-Z: the shell that started the program finds the terminal as it was. Once this program goes
// on, the line is edited further.
void EditedPrompt::stop()
{
    el_set(m_editor, EL_PREP_TERM, 0);
    m_stop->stop();
    el_set(m_editor, EL_PREP_TERM, 1);
    el_set(m_editor, EL_REFRESH);
}

bool EditedPrompt::serve()
{
    if (hasMore())
        stop();
    followSize();
    while (hasInput()) {
        if (handleKey())
            return true;
    }
    return false;
}

// True when the line is complete, or at the end of the input.
bool EditedPrompt::handleKey()
{
    int count = 0;
    errno = 0;
    const char* const text = el_gets(m_editor, &count);
    if (text && count > 0 && text[count - 1] == '\n') {
        handleLine(QByteArray(text, count - 1));
        return true;
    }
    const int ctrlD = 4; // comes as a character, on an empty line only
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    const bool gone = ::poll(&input, 1, 0) == 1 && (input.revents & (POLLHUP | POLLERR)) != 0;
    m_isAtEnd = gone || (text && count == 1 && text[0] == ctrlD);
    return m_isAtEnd;
}

void EditedPrompt::handleLine(const QByteArray& bytes)
{
    m_line = QString::fromLocal8Bit(bytes);
    HistEvent event = {};
    if (!m_line.trimmed().isEmpty())
        ::history(m_history, &event, H_ENTER, bytes.constData());
}

void EditedPrompt::followSize()
{
    const winsize size = windowSize();
    if (size.ws_col == m_columns && size.ws_row == m_rows)
        return;
    m_columns = size.ws_col;
    m_rows = size.ws_row;
    el_resize(m_editor);
}

QString EditedPrompt::beforeCursor() const
{
    const LineInfo* const info = el_line(m_editor);
    return QString::fromLocal8Bit(info->buffer, static_cast<int>(info->cursor - info->buffer));
}

void EditedPrompt::hide()
{
    if (!m_isShown)
        return;
    const int cells = cellsOf(QString::fromLocal8Bit(m_text)) + cellsOf(beforeCursor());
    const int above = cells / std::max(1, m_columns);
    QByteArray bytes = "\r";
    if (above > 0)
        bytes += "\x1b[" + QByteArray::number(above) + 'A';
    print(bytes + "\x1b[J");
}

void EditedPrompt::show()
{
    if (m_isShown)
        el_set(m_editor, EL_REFRESH);
}

void EditedPrompt::cancel()
{
    print("^C\n");
    end();
    begin();
}

void EditedPrompt::leave()
{
    print("\n");
}

unsigned char EditedPrompt::complete()
{
    const Completions found = m_completer(beforeCursor());
    if (found.candidates.isEmpty())
        return CC_REFRESH_BEEP;
    if (found.candidates.size() == 1) {
        replaceWord(quotedWord(found.candidates.first()) + found.after, found);
        return CC_REFRESH;
    }
    const QString common = commonPrefix(found.candidates);
    if (common.size() > found.word.size()) {
        QString text = quotedWord(common);
        if (text.startsWith('\''))
            text.chop(1); // the word goes on
        replaceWord(text, found);
        return CC_REFRESH;
    }
    listCandidates(found.candidates);
    return CC_REDISPLAY;
}

void EditedPrompt::replaceWord(const QString& text, const Completions& found)
{
    el_deletestr(m_editor, beforeCursor().mid(found.begin).toUcs4().size());
    el_insertstr(m_editor, text.toLocal8Bit().constData());
}

void EditedPrompt::listCandidates(const QStringList& candidates)
{
    QStringList shown;
    for (const QString& candidate : candidates.mid(0, kMostListed))
        shown += visible(candidate);
    QByteArray text = "\n";
    for (const QString& line : inColumns(shown, m_columns))
        text += line.toLocal8Bit() + '\n';
    if (candidates.size() > kMostListed)
        text += QByteArray::number(candidates.size() - kMostListed) + " more\n";
    print(text);
}

void EditedPrompt::loadHistory()
{
    HistEvent event = {};
    if (!m_file.isEmpty())
        ::history(m_history, &event, H_LOAD, QFile::encodeName(m_file).constData());
}

// Values that were written are nobody else's business. A history that cannot be kept is no reason
// to fail.
void EditedPrompt::saveHistory()
{
    if (m_file.isEmpty())
        return;
    const mode_t before = ::umask(077);
    QDir().mkpath(QFileInfo(m_file).path());
    HistEvent event = {};
    ::history(m_history, &event, H_SAVE, QFile::encodeName(m_file).constData());
    ::umask(before);
}

} // namespace micro850::host
