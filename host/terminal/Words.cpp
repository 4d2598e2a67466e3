#include "Words.h"

#include "UserError.h"

#include <algorithm>

namespace micro850::host {

namespace {

/// Cuts a text into words, character by character.
class Cutter
{
public:
    void read(const QString& text)
    {
        for (m_at = 0; m_at < text.size() && !m_isComment; ++m_at)
            take(text.at(m_at));
    }
    /// The quote that is open; null without one.
    QChar quote() const { return m_quote; }
    void endWord()
    {
        if (m_inWord)
            m_words.append(m_word);
        m_word.clear();
        m_inWord = false;
    }
    const QStringList& words() const { return m_words; }
    TypedWords typed() const { return {m_words, m_word, m_inWord ? m_begin : m_at}; }

private:
    void take(QChar c)
    {
        if (m_escaped) {
            // In double quotes a backslash is itself, but before these.
            if (m_quote == '"' && c != '"' && c != '\\')
                m_word += '\\';
            m_word += c;
            m_escaped = false;
        } else if (c == '\\' && m_quote != '\'') {
            begin();
            m_escaped = true;
        } else if (!m_quote.isNull()) {
            takeQuoted(c);
        } else {
            takePlain(c);
        }
    }
    void takeQuoted(QChar c)
    {
        if (c == m_quote)
            m_quote = QChar();
        else
            m_word += c;
    }
    void takePlain(QChar c)
    {
        if (c.isSpace()) {
            endWord();
        } else if (c == '#' && !m_inWord) {
            m_isComment = true;
        } else {
            begin();
            if (c == '\'' || c == '"')
                m_quote = c;
            else
                m_word += c;
        }
    }
    void begin()
    {
        if (!m_inWord)
            m_begin = m_at;
        m_inWord = true;
    }

    QStringList m_words;
    QString m_word;
    int m_at = 0;
    int m_begin = 0;
    QChar m_quote;
    bool m_inWord = false;
    bool m_escaped = false;
    bool m_isComment = false;
};

bool needsNoQuotes(QChar c)
{
    return c.isLetterOrNumber() || QStringLiteral("_-./:=[],@+%*?~").contains(c);
}

} // namespace

QStringList wordsOf(const QString& line)
{
    Cutter cutter;
    cutter.read(line);
    if (!cutter.quote().isNull())
        throw UserError("\"" + line.toStdString() + "\": the quote " +
                        QString(cutter.quote()).toStdString() +
                        " is not closed (write it a second time)");
    cutter.endWord();
    return cutter.words();
}

TypedWords typedWords(const QString& text)
{
    Cutter cutter;
    cutter.read(text);
    return cutter.typed();
}

QString quotedWord(const QString& word)
{
    if (!word.isEmpty() && std::all_of(word.begin(), word.end(), needsNoQuotes))
        return word;
    QString inside = word;
    return '\'' + inside.replace('\'', QLatin1String("'\\''")) + '\'';
}

} // namespace micro850::host
