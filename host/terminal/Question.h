#ifndef MICRO850_HOST_TERMINAL_QUESTION_H
#define MICRO850_HOST_TERMINAL_QUESTION_H

#include <QtCore/QString>

#include <functional>

namespace micro850::host {

/// Whether a person can be asked: standard input and standard error are a terminal.
bool canAsk();

/// Asks on standard error and waits for a line on standard input. Only y and yes, in capitals or
/// not, confirm. Whatever the question holds, the terminal only shows it (VisibleText). False as
/// soon as `isInterrupted` is true.
bool isConfirmed(const QString& question, const std::function<bool()>& isInterrupted);

} // namespace micro850::host

#endif
