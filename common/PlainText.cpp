#include "PlainText.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>
#include <unistd.h>
#include <utility>

namespace micro850 {

namespace {

/// UTF-8, and what is shown in its place.
using Substitute = std::pair<const char*, const char*>;

const Substitute kSubstitutes[] = {
    {"\u00B0", "deg "}, {"\u00B2", "2"},    {"\u00B3", "3"},     {"\u00B5", "u"},
    {"\u03BC", "u"},    {"\u00B7", "."},    {"\u00D7", "x"},     {"\u00F7", "/"},
    {"\u00B1", "+-"},   {"\u00BD", "1/2"},  {"\u00BC", "1/4"},   {"\u00BE", "3/4"},
    {"\u03A9", "Ohm"},  {"\u2126", "Ohm"},  {"\u2030", "o/oo"},  {"\u20AC", "EUR"},
    {"\u00A3", "GBP"},  {"\u00A7", "par."}, {"\u0394", "Delta"}, {"\u03C0", "pi"},
    {"\u2192", "->"},   {"\u2190", "<-"},   {"\u2264", "<="},    {"\u2265", ">="},
    {"\u2026", "..."},  {"\u2013", "-"},    {"\u2014", "-"},     {"\u2212", "-"},
    {"\u2011", "-"},    {"\u2018", "'"},    {"\u2019", "'"},     {"\u201C", "\""},
    {"\u201D", "\""},   {"\u201E", "\""},   {"\u00AB", "\""},    {"\u00BB", "\""},
    {"\u2022", "*"},    {"\u00E4", "ae"},   {"\u00F6", "oe"},    {"\u00FC", "ue"},
    {"\u00C4", "Ae"},   {"\u00D6", "Oe"},   {"\u00DC", "Ue"},    {"\u00DF", "ss"},
    {"\u00E0", "a"},    {"\u00E1", "a"},    {"\u00E2", "a"},     {"\u00E3", "a"},
    {"\u00E5", "a"},    {"\u00E6", "ae"},   {"\u00E7", "c"},     {"\u00E8", "e"},
    {"\u00E9", "e"},    {"\u00EA", "e"},    {"\u00EB", "e"},     {"\u00EC", "i"},
    {"\u00ED", "i"},    {"\u00EE", "i"},    {"\u00EF", "i"},     {"\u00F1", "n"},
    {"\u00F2", "o"},    {"\u00F3", "o"},    {"\u00F4", "o"},     {"\u00F5", "o"},
    {"\u00F8", "o"},    {"\u00F9", "u"},    {"\u00FA", "u"},     {"\u00FB", "u"},
    {"\u00C5", "A"},    {"\u00C6", "Ae"},   {"\u00C7", "C"},     {"\u00C8", "E"},
    {"\u00C9", "E"},    {"\u00CA", "E"},    {"\u00D1", "N"},     {"\u00D8", "O"},
    {"\u00D3", "O"},    {"\u00C1", "A"},    {"\u2103", "deg C"}, {"\u00A0", " "},
};

// So many bytes has the character that begins here.
std::size_t sizeAt(const std::string& utf8, std::size_t at)
{
    std::size_t size = 1;
    while (at + size < utf8.size() && (static_cast<unsigned char>(utf8[at + size]) & 0xC0) == 0x80)
        ++size;
    return size;
}

std::string plainCharacter(const std::string& character)
{
    const auto* const found =
        std::find_if(std::begin(kSubstitutes), std::end(kSubstitutes),
                     [&](const Substitute& each) { return character == each.first; });
    return found == std::end(kSubstitutes) ? "?" : found->second;
}

} // namespace

bool localeHasUnicode()
{
    for (const char* const name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* const set = std::getenv(name);
        if (!set || *set == '\0')
            continue;
        std::string value = set;
        std::transform(value.begin(), value.end(), value.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return value.find("utf-8") != std::string::npos || value.find("utf8") != std::string::npos;
    }
    return false;
}

std::string plainText(const std::string& utf8)
{
    std::string text;
    for (std::size_t at = 0; at < utf8.size();) {
        const std::size_t size = sizeAt(utf8, at);
        const bool isAscii = static_cast<unsigned char>(utf8[at]) < 0x80;
        text += isAscii ? utf8.substr(at, size) : plainCharacter(utf8.substr(at, size));
        at += size;
    }
    return text;
}

std::string textFor(int stream, const std::string& utf8)
{
    return localeHasUnicode() || ::isatty(stream) != 1 ? utf8 : plainText(utf8);
}

} // namespace micro850
