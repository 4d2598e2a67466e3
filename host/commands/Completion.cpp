#include "Completion.h"

#include "Words.h"

#include <QtCore/QDir>

#include <algorithm>

namespace micro850::host {

namespace {

bool isOneOf(const QString& word, std::initializer_list<const char*> words)
{
    return std::any_of(words.begin(), words.end(),
                       [&word](const char* each) { return word == QLatin1String(each); });
}

QStringList optionsOf(const QString& command, const Vocabulary& vocabulary)
{
    QStringList options;
    for (const CommandLine::Listed& each : vocabulary.commands) {
        if (command == QString::fromStdString(each.name)) {
            for (const std::string& option : each.options)
                options += QString::fromStdString(option);
        }
    }
    return options;
}

// The files whose paths begin with the word. A folder ends with a slash.
QStringList filesFor(const QString& word)
{
    const int slash = word.lastIndexOf('/');
    const QString folder = word.left(slash + 1);
    QStringList files;
    const QFileInfoList entries =
        QDir(folder.isEmpty() ? QStringLiteral(".") : folder)
            .entryInfoList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    for (const QFileInfo& entry : entries)
        files += folder + entry.fileName() + (entry.isDir() ? QStringLiteral("/") : QString());
    return files;
}

bool namesFile(const QString& option)
{
    return isOneOf(option,
                   {"--project", "--csv", "--sqlite", "--report", "--trace", "--output", "-o"});
}

QStringList wordsFor(const TypedWords& typed, const Vocabulary& vocabulary)
{
    const QString command = typed.before.value(0);
    if (typed.word.startsWith('-'))
        return optionsOf(command, vocabulary);
    if (namesFile(typed.before.last()))
        return filesFor(typed.word);
    if (command == QLatin1String("set"))
        return typed.before.size() == 1 ? vocabulary.settings : QStringList();
    if (isOneOf(command, {"read", "write", "watch"}))
        return vocabulary.names;
    if (command == QLatin1String("help")) {
        QStringList names;
        for (const CommandLine::Listed& each : vocabulary.commands)
            names += QString::fromStdString(each.name);
        return names;
    }
    return filesFor(typed.word);
}

} // namespace

Completions completionsOf(const QString& beforeCursor, const Vocabulary& vocabulary)
{
    const TypedWords typed = typedWords(beforeCursor);
    Completions found;
    found.begin = typed.begin;
    found.word = typed.word;
    QStringList words;
    if (typed.before.isEmpty()) {
        for (const CommandLine::Listed& each : vocabulary.commands)
            words += QString::fromStdString(each.name);
    } else {
        words = wordsFor(typed, vocabulary);
    }
    for (const QString& word : words) {
        if (word.startsWith(typed.word))
            found.candidates += word;
    }
    found.candidates.sort();
    found.candidates.removeDuplicates();
    const QString only = found.candidates.value(0);
    const bool isValue = typed.before.value(0) == QLatin1String("write") && !only.startsWith('-');
    if (!only.endsWith('/'))
        found.after = QString(isValue ? '=' : ' ');
    return found;
}

} // namespace micro850::host
