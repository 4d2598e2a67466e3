#ifndef MICRO850_HOST_TERMINAL_PROMPTFACTORY_H
#define MICRO850_HOST_TERMINAL_PROMPTFACTORY_H

#include "Prompt.h"

#include <memory>

namespace micro850::host {

/// A prompt with editing, history and completion for a terminal that can do it; else one that only
/// reads lines, which shows `text` when a person can see it. The history is kept in the file.
std::unique_ptr<Prompt> makePrompt(const QString& text, const QString& historyFile,
                                   const Prompt::Completer& completer);

} // namespace micro850::host

#endif
