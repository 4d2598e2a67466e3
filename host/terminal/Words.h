#ifndef MICRO850_HOST_TERMINAL_WORDS_H
#define MICRO850_HOST_TERMINAL_WORDS_H

#include <QtCore/QStringList>

namespace micro850::host {

/// Cuts a line into words at its blanks, with the quotes of a POSIX shell: 'as it is', "with \" and
/// \\", and \ before one character. What begins with # is a comment. Nothing else is special, so
/// that Level[0..9] needs no quotes. Throws UserError for a quote that is not closed.
QStringList wordsOf(const QString& line);

/// What stands before the cursor: whole words, and the one that is being typed.
struct TypedWords
{
    QStringList before;
    QString word;  ///< without quotes; empty after a blank
    int begin = 0; ///< where the word begins in the text, with its quotes
};
TypedWords typedWords(const QString& text);

/// The word as it is typed, so that wordsOf() gives it back.
QString quotedWord(const QString& word);

} // namespace micro850::host

#endif
