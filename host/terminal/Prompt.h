#ifndef MICRO850_HOST_TERMINAL_PROMPT_H
#define MICRO850_HOST_TERMINAL_PROMPT_H

#include <QtCore/QByteArray>
#include <QtCore/QStringList>

#include <functional>

namespace micro850::host {

/// What a word that is being typed may become.
struct Completions
{
    int begin = 0; ///< where the word begins in the text before the cursor
    QString word;  ///< as far as it is typed
    QStringList candidates;
    QString after; ///< what follows the word when there is one candidate
};

/// Takes command lines from standard input, one after the other, without waiting for them.
class Prompt
{
public:
    using Completer = std::function<Completions(const QString& beforeCursor)>;

    virtual ~Prompt() = default;
    /// Shows the prompt for the next line.
    virtual void begin() = 0;
    /// Handles what was typed so far. True when the line is complete, or at the end of the input.
    /// Call it when standard input has bytes; it need not wait then.
    virtual bool serve() = 0;
    /// Ends the line, so that a command can use the terminal.
    virtual void end() {}
    bool isAtEnd() const { return m_isAtEnd; }
    /// The complete line.
    const QString& line() const { return m_line; }
    /// The line that is being typed makes room for output, and is shown again below it.
    virtual void hide() {}
    virtual void show() {}
    /// Drops what was typed of the line, and shows a new prompt.
    virtual void cancel() {}
    /// Leaves the line as it is; what is printed next begins a new one.
    virtual void leave() {}
    /// True when there is something to serve that standard input does not show.
    virtual bool hasMore() const { return false; }

protected:
    QString m_line;
    bool m_isAtEnd = false;
};

/// Where the history of the shell is kept: in $XDG_STATE_HOME, else in ~/.local/state. Empty when
/// neither is known.
QString shellHistoryFile();

/// What all candidates begin with.
QString commonPrefix(const QStringList& words);
/// The words in columns of a window of this width, without blanks at the ends of lines.
QStringList inColumns(const QStringList& words, int width);

} // namespace micro850::host

#endif
