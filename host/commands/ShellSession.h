#ifndef MICRO850_HOST_COMMANDS_SHELLSESSION_H
#define MICRO850_HOST_COMMANDS_SHELLSESSION_H

#include "BackgroundWatch.h"
#include "Completion.h"
#include "Prompt.h"

#include <memory>
#include <vector>

namespace micro850::host {

/// What a shell with this project completes at its start.
Vocabulary shellVocabulary(const Project& project);

/// Takes commands and carries them out over the line of the shell, until the user ends it.
class ShellSession
{
public:
    /// The arguments must live longer than this object.
    ShellSession(ShellLine& line, const Route& route, const Output& output);
    ~ShellSession();
    ShellSession(const ShellSession&) = delete;
    ShellSession& operator=(const ShellSession&) = delete;

    /// Returns the exit status.
    int run();

private:
    /// What is set for the commands that have such an option.
    struct Settings
    {
        std::string interval; ///< empty: as each command says
        bool json = false;
        bool raw = false;
        bool quiet = false;
    };
    bool takeLine(const Interrupt& interrupt);
    void work();
    void waitForKeys(Duration time);
    void serveKeys();
    void showAgain();
    int execute(const QString& text);
    int executeWords(QStringList words);
    int runCommand(const QStringList& words);
    void givePort();
    void takePort();
    static int parseAndRun(const QStringList& words);
    QStringList withSettings(QStringList words) const;
    bool hasOption(const QString& command, const char* option) const;
    void help() const;
    void set(const QStringList& words);
    void showSettings() const;
    void stop(const QStringList& words);
    void addWatch(WatchOrder order);
    void endWatches();
    void rememberNames(const QStringList& words);
    std::string place() const;

    ShellLine& m_line;
    const Route& m_route;
    const Output& m_output;
    const bool m_isInteractive;
    Vocabulary m_vocabulary;
    std::unique_ptr<Prompt> m_prompt;
    std::vector<std::unique_ptr<BackgroundWatch>> m_watches;
    int m_lastWatch = 0;
    Settings m_settings;
    int m_lineNumber = 0;
    bool m_isTyping = false; ///< a prompt is shown, and keys are served
    bool m_isHidden = false; ///< for output
    bool m_hasLine = false;
    bool m_quits = false;
};

} // namespace micro850::host

#endif
