#include "Topics.h"

#include <QtCore/QVector>

#include <algorithm>
#include <array>

namespace micro850::gateway {

namespace {

const std::array<const char*, 7> kWords = {"status",  "state", "statistics", "events",
                                           "history", "set",   "result"};
const char kSet[] = "/set";
const char kHistory[] = "/history";

// Characters that a broker may refuse in a topic.
bool isRefused(uint character)
{
    const bool isControl = character < 0x20 || (character >= 0x7F && character < 0xA0);
    const bool isNobodys =
        (character >= 0xFDD0 && character <= 0xFDEF) || (character & 0xFFFE) == 0xFFFE;
    return isControl || isNobodys || character == '/' || character == '+' || character == '#' ||
           character == '%';
}

QByteArray encodedBytes(const QByteArray& utf8)
{
    QByteArray text;
    for (const char byte : utf8)
        text += '%' + QByteArray(1, byte).toHex().toUpper();
    return text;
}

} // namespace

QByteArray topicLevel(const QString& name)
{
    QByteArray level;
    const bool isWord = std::any_of(kWords.begin(), kWords.end(), [&name](const char* word) {
        return name == QLatin1String(word);
    });
    const QVector<uint> characters = name.toUcs4();
    for (int i = 0; i < characters.size(); ++i) {
        const QByteArray utf8 = QString::fromUcs4(&characters.at(i), 1).toUtf8();
        level += isRefused(characters.at(i)) || (isWord && i == 0) ? encodedBytes(utf8) : utf8;
    }
    return level;
}

QByteArray Topics::value(const QString& line, int station, const QString& name) const
{
    return m_prefix + '/' + topicLevel(line) + '/' + QByteArray::number(station) + '/' +
           topicLevel(name);
}

QByteArray Topics::of(const QString& line, int station, const char* word) const
{
    QByteArray topic = m_prefix + '/';
    if (!line.isEmpty())
        topic += topicLevel(line) + '/';
    if (!line.isEmpty() && station >= 0)
        topic += QByteArray::number(station) + '/';
    return topic + word;
}

QByteArray Topics::valueOfOrder(const QByteArray& topic) const
{
    if (!topic.startsWith(m_prefix + '/') || !topic.endsWith(kSet))
        return QByteArray();
    const QByteArray value = topic.left(topic.size() - static_cast<int>(sizeof(kSet)) + 1);
    const int kLevels = 3; // line, station, name
    return value.mid(m_prefix.size()).count('/') == kLevels ? value : QByteArray();
}

bool Topics::fits(const QByteArray& value)
{
    return value.size() + static_cast<int>(sizeof(kHistory)) - 1 <= kLongestTopic;
}

} // namespace micro850::gateway
