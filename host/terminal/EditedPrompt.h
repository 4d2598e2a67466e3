#ifndef MICRO850_HOST_TERMINAL_EDITEDPROMPT_H
#define MICRO850_HOST_TERMINAL_EDITEDPROMPT_H

#include "Prompt.h"
#include "StopKey.h"

#include <optional>

struct editline;
struct history;

namespace micro850::host {

/// A prompt on a terminal: the keys edit the line, recall earlier ones and complete words. It
/// handles one key after the other, so that the caller can do other work between them.
class EditedPrompt : public Prompt
{
public:
    EditedPrompt(const QString& text, const QString& historyFile, Completer completer);
    ~EditedPrompt() override;
    EditedPrompt(const EditedPrompt&) = delete;
    EditedPrompt& operator=(const EditedPrompt&) = delete;

    void begin() override;
    bool serve() override;
    void end() override;
    void hide() override;
    void show() override;
    void cancel() override;
    void leave() override;
    bool hasMore() const override;

private:
    static char* promptOf(editline* editor);
    static unsigned char handleTab(editline* editor, int key);
    unsigned char complete();
    void replaceWord(const QString& text, const Completions& found);
    void listCandidates(const QStringList& candidates);
    bool handleKey();
    void handleLine(const QByteArray& bytes);
    void followSize();
    void stop();
    QString beforeCursor() const;
    void loadHistory();
    void saveHistory();

    QByteArray m_text;
    QString m_file; ///< of the history; empty: none
    Completer m_completer;
    editline* m_editor;
    history* m_history;
    int m_columns = 0;
    int m_rows = 0;
    bool m_isShown = false;
    std::optional<StopKey> m_stop; ///< while the prompt is shown
};

} // namespace micro850::host

#endif
