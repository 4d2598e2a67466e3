#ifndef MICRO850_TESTS_FUZZ_SHOWNTEXT_H
#define MICRO850_TESTS_FUZZ_SHOWNTEXT_H

#include "fuzz_check.h"

#include <QtCore/QString>
#include <QtCore/QVector>

#include <string>

namespace fuzz {

/// Checks that a terminal only shows the text: no control character, line separator or half of a
/// character, and none of the format characters except the Arabic and Kaithi signs that are drawn.
inline void checkShownText(const QString& text)
{
    for (const uint c : text.toUcs4()) {
        const QChar::Category category = QChar::category(c);
        const bool sign = (c >= 0x600 && c <= 0x605) || c == 0x6DD || c == 0x70F ||
                          (c >= 0x890 && c <= 0x891) || c == 0x8E2 || c == 0x110BD || c == 0x110CD;
        FUZZ_CHECK(category != QChar::Other_Control && category != QChar::Other_Surrogate);
        FUZZ_CHECK(category != QChar::Separator_Line && category != QChar::Separator_Paragraph);
        FUZZ_CHECK(category != QChar::Other_Format || sign);
    }
}

/// The same of bytes, which are UTF-8.
inline void checkShownText(const std::string& utf8)
{
    const QByteArray bytes = QByteArray::fromStdString(utf8);
    const QString text = QString::fromUtf8(bytes);
    FUZZ_CHECK(text.toUtf8() == bytes);
    checkShownText(text);
}

} // namespace fuzz

#endif
