#include "Page.h"

#include <algorithm>
#include <clocale>
#include <cwchar>

namespace micro850::host {

namespace {

/// The character table of the system for Unicode, whatever the user's locale is, while it lives.
class UnicodeLocale
{
public:
    UnicodeLocale() : m_before(uselocale(unicode())) {}
    ~UnicodeLocale() { uselocale(m_before); }
    UnicodeLocale(const UnicodeLocale&) = delete;
    UnicodeLocale& operator=(const UnicodeLocale&) = delete;

private:
    // Null where the system has no such locale: then the user's locale is used.
    static locale_t unicode()
    {
        static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        return locale;
    }

    locale_t m_before;
};

// What the table does not know is shown as one sign.
int widthOf(uint character)
{
    const int width = wcwidth(static_cast<wchar_t>(character));
    return width < 0 ? 1 : width;
}

bool isAscii(const QString& text)
{
    return std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 0x7F; });
}

} // namespace

int displayWidth(const QString& text)
{
    if (isAscii(text))
        return text.size();
    const UnicodeLocale locale;
    int width = 0;
    for (const uint character : text.toUcs4())
        width += widthOf(character);
    return width;
}

QString cut(const QString& text, int width)
{
    if (displayWidth(text) <= width)
        return text;
    if (width < 1)
        return QString();
    const UnicodeLocale locale;
    const QVector<uint> characters = text.toUcs4();
    int kept = 0;
    int used = 1; // the mark
    for (; used + widthOf(characters.at(kept)) <= width; ++kept)
        used += widthOf(characters.at(kept));
    return QString::fromUcs4(characters.constData(), kept) + QChar(0x2026);
}

QString fitted(const QString& text, int width)
{
    const QString part = cut(text, width);
    return part + QString(std::max(0, width - displayWidth(part)), ' ');
}

QString rightAligned(const QString& text, int width)
{
    const QString part = cut(text, width);
    return QString(std::max(0, width - displayWidth(part)), ' ') + part;
}

QStringList wrapped(const QString& text, int width)
{
    const int most = std::max(2, width); // a wide character fits
    const UnicodeLocale locale;
    const QVector<uint> characters = text.toUcs4();
    QStringList lines;
    int begin = 0;
    int used = 0;
    int blank = -1; // the last one in this line
    const auto endLine = [&](int end, int next) {
        lines += QString::fromUcs4(characters.constData() + begin, end - begin);
        begin = next;
        blank = -1;
        used = 0;
    };
    for (int i = 0; i < characters.size(); ++i) {
        const int columns = widthOf(characters.at(i));
        if (used + columns > most) {
            if (characters.at(i) == ' ') {
                endLine(i, i + 1);
                continue;
            }
            endLine(blank > begin ? blank : i, blank > begin ? blank + 1 : i);
            for (int at = begin; at < i; ++at)
                used += widthOf(characters.at(at));
        }
        used += columns;
        if (characters.at(i) == ' ')
            blank = i;
    }
    endLine(characters.size(), characters.size());
    return lines;
}

} // namespace micro850::host
