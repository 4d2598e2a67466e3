#ifndef MICRO850_HOST_COMMANDS_COMPLETION_H
#define MICRO850_HOST_COMMANDS_COMPLETION_H

#include "CommandLine.h"
#include "Prompt.h"

namespace micro850::host {

/// What a shell can complete.
struct Vocabulary
{
    std::vector<CommandLine::Listed> commands; ///< with those of the shell itself
    QStringList settings;
    /// Of variables and tags, as commands take them.
    QStringList names;
};

/// The words that the one before the cursor may become: commands, options of the command, names of
/// variables and tags, settings, and files of the folder. Names of variables follow in the order of
/// the alphabet.
Completions completionsOf(const QString& beforeCursor, const Vocabulary& vocabulary);

} // namespace micro850::host

#endif
