#include "VisibleText.h"

#include <algorithm>
#include <cstdint>
#include <functional>

namespace micro850 {

namespace {

struct Character
{
    char32_t code;    ///< 0 and up; of a byte that is not UTF-8 the byte
    std::size_t size; ///< bytes
    bool valid;
};

// Bytes of the sequence that begins with this byte; 0 when none does.
std::size_t lengthOf(std::uint8_t lead)
{
    if (lead < 0x80)
        return 1;
    if (lead < 0xC2 || lead > 0xF4) // a continuation, or longer than necessary, or beyond Unicode
        return 0;
    if (lead < 0xE0)
        return 2;
    return lead < 0xF0 ? 3 : 4;
}

Character characterAt(const std::string& text, std::size_t at)
{
    const auto lead = static_cast<std::uint8_t>(text[at]);
    const Character invalid = {lead, 1, false};
    const std::size_t size = lengthOf(lead);
    if (size == 0 || size > text.size() - at)
        return invalid;
    char32_t code = size == 1 ? lead : lead & (0xFFu >> (size + 1));
    for (std::size_t i = 1; i < size; ++i) {
        const auto byte = static_cast<std::uint8_t>(text[at + i]);
        if ((byte & 0xC0) != 0x80)
            return invalid;
        code = code << 6 | (byte & 0x3F);
    }
    const bool tooLong = (size == 3 && code < 0x800) || (size == 4 && code < 0x10000);
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (tooLong || surrogate || code > 0x10FFFF)
        return invalid;
    return {code, size, true};
}

struct Range
{
    char32_t first;
    char32_t last;
};

// What a terminal obeys or shows as nothing: control characters, and the format characters of
// Unicode except the few signs among them that are drawn.
const Range kHidden[] = {{0x00, 0x1F},       {0x7F, 0x9F},       {0xAD, 0xAD},
                         {0x61C, 0x61C},     {0x180E, 0x180E},   {0x200B, 0x200F},
                         {0x2028, 0x202E},   {0x2060, 0x206F},   {0xFEFF, 0xFEFF},
                         {0xFFF0, 0xFFFB},   {0xFFFE, 0xFFFF},   {0x13430, 0x1343F},
                         {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF}};

bool isHidden(char32_t code)
{
    return std::any_of(std::begin(kHidden), std::end(kHidden),
                       [code](Range range) { return code >= range.first && code <= range.last; });
}

std::string hex(char32_t code, int digits)
{
    static const char all[] = "0123456789abcdef";
    std::string text;
    for (int shift = 4 * digits - 4; shift >= 0; shift -= 4)
        text += all[code >> shift & 15];
    return text;
}

std::string escapeOf(const Character& character)
{
    if (character.code == '\n')
        return "\\n";
    if (character.code == '\r')
        return "\\r";
    if (character.code == '\t')
        return "\\t";
    if (!character.valid || character.code < 0x80)
        return "\\x" + hex(character.code, 2);
    return character.code < 0x10000 ? "\\u" + hex(character.code, 4)
                                    : "\\U" + hex(character.code, 8);
}

std::string jsonEscapeOf(const Character& character)
{
    if (character.code == '\n') // only between the values
        return "\n";
    if (!character.valid)
        return "\\ufffd";
    if (character.code < 0x10000)
        return "\\u" + hex(character.code, 4);
    const char32_t above = character.code - 0x10000;
    return "\\u" + hex(0xD800 + (above >> 10), 4) + "\\u" + hex(0xDC00 + (above & 0x3FF), 4);
}

bool isPlainAscii(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < '\x7F'; });
}

std::string escaped(const std::string& text,
                    const std::function<std::string(const Character&)>& escape)
{
    if (isPlainAscii(text))
        return text;
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const Character character = characterAt(text, at);
        if (character.valid && !isHidden(character.code))
            result.append(text, at, character.size);
        else
            result += escape(character);
        at += character.size;
    }
    return result;
}

bool isContinuation(char c)
{
    return (static_cast<std::uint8_t>(c) & 0xC0) == 0x80;
}

} // namespace

std::string visible(const std::string& utf8)
{
    return escaped(utf8, escapeOf);
}

std::string visibleValue(const std::string& utf8)
{
    if (visible(utf8) == utf8 && (utf8.empty() || utf8.front() != '"'))
        return utf8;
    std::string signs;
    for (const char c : utf8) {
        if (c == '"' || c == '\\')
            signs += '\\';
        signs += c;
    }
    return '"' + visible(signs) + '"';
}

std::string visibleJson(const std::string& utf8)
{
    return escaped(utf8, jsonEscapeOf);
}

std::string inQuotes(const std::string& utf8)
{
    const std::size_t kMost = 60;
    return '"' + visible(shortened(utf8, kMost)) + '"';
}

std::string shortened(const std::string& utf8, std::size_t most)
{
    const std::string mark = "...";
    if (utf8.size() <= most)
        return utf8;
    // Not in the middle of a character; one that is longer than four bytes is none.
    const std::size_t kMostBack = 3;
    const std::size_t kept = most < mark.size() ? 0 : most - mark.size();
    std::size_t begin = kept - kept / 3;
    std::size_t end = utf8.size() - kept / 3;
    for (std::size_t i = 0; i < kMostBack && begin > 0 && isContinuation(utf8[begin]); ++i)
        --begin;
    for (std::size_t i = 0; i < kMostBack && end < utf8.size() && isContinuation(utf8[end]); ++i)
        ++end;
    return utf8.substr(0, begin) + mark + utf8.substr(end);
}

} // namespace micro850
