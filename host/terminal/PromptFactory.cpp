#include "PromptFactory.h"

#include "EditedPrompt.h"
#include "UserError.h"
#include "Visible.h"

#include <array>
#include <cstdio>
#include <unistd.h>

namespace micro850::host {

namespace {

// Longer than any command.
const int kMostBytes = 65536;

/// Reads lines as they come.
class PlainPrompt : public Prompt
{
public:
    explicit PlainPrompt(const QString& text)
        : m_text(visible(text).toUtf8()),
          m_isShown(isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1)
    {
    }

    void begin() override { show(); }
    bool serve() override
    {
        if (popLine())
            return true;
        std::array<char, 4096> buffer;
        const ssize_t count = ::read(STDIN_FILENO, buffer.data(), buffer.size());
        if (count > 0)
            m_bytes.append(buffer.data(), static_cast<int>(count));
        if (popLine())
            return true;
        if (m_bytes.size() > kMostBytes)
            throw UserError("a command has more than " + std::to_string(kMostBytes) +
                            " bytes (end it with a new line)");
        if (count != 0)
            return false;
        // The last line may lack its end.
        m_isAtEnd = m_bytes.isEmpty();
        m_line = QString::fromLocal8Bit(std::exchange(m_bytes, QByteArray()));
        return true;
    }
    void show() override
    {
        if (m_isShown)
            ::fprintf(stderr, "%s", m_text.constData());
    }
    void cancel() override
    {
        m_bytes.clear();
        show();
    }
    void leave() override
    {
        if (m_isShown)
            ::fprintf(stderr, "\n");
    }
    bool hasMore() const override { return m_bytes.contains('\n'); }

private:
    bool popLine()
    {
        const int end = m_bytes.indexOf('\n');
        if (end < 0)
            return false;
        m_line = QString::fromLocal8Bit(m_bytes.left(end));
        m_bytes.remove(0, end + 1);
        return true;
    }

    QByteArray m_text;
    bool m_isShown;
    QByteArray m_bytes;
};

bool canEdit()
{
    const QByteArray terminal = qgetenv("TERM");
    return isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1 && !terminal.isEmpty() &&
           terminal != "dumb";
}

} // namespace

std::unique_ptr<Prompt> makePrompt(const QString& text, const QString& historyFile,
                                   const Prompt::Completer& completer)
{
    if (canEdit())
        return std::make_unique<EditedPrompt>(text, historyFile, completer);
    return std::make_unique<PlainPrompt>(text);
}

} // namespace micro850::host
