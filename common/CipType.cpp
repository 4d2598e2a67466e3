#include "CipType.h"

#include "UserError.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace micro850 {

namespace {

// The longest text of a SHORT_STRING here: what a reply of the controller holds with room to spare.
constexpr int kLongestString = 80;

CipType number(const char* name, std::uint16_t code, int size, CipKind kind)
{
    return {name, code, size, kind, 0, 0};
}

CipType text(const char* name, std::uint16_t code, int lengthBytes, int characterBytes)
{
    const int size = lengthBytes + kLongestString * characterBytes;
    return {name, code, size, CipKind::String, lengthBytes, characterBytes};
}

std::vector<CipType> allTypes()
{
    using K = CipKind;
    return {number("BOOL", 0xC1, 1, K::Boolean),
            number("SINT", 0xC2, 1, K::Signed),
            number("INT", 0xC3, 2, K::Signed),
            number("DINT", 0xC4, 4, K::Signed),
            number("LINT", 0xC5, 8, K::Signed),
            number("USINT", 0xC6, 1, K::Unsigned),
            number("UINT", 0xC7, 2, K::Unsigned),
            number("UDINT", 0xC8, 4, K::Unsigned),
            number("ULINT", 0xC9, 8, K::Unsigned),
            number("REAL", 0xCA, 4, K::Real),
            number("LREAL", 0xCB, 8, K::Real),
            number("STIME", 0xCC, 4, K::Signed),
            number("DATE", 0xCD, 2, K::Unsigned),
            number("TIME_OF_DAY", 0xCE, 4, K::Unsigned),
            number("DATE_AND_TIME", 0xCF, 8, K::Unsigned),
            text("STRING", 0xD0, 2, 1),
            number("BYTE", 0xD1, 1, K::Bits),
            number("WORD", 0xD2, 2, K::Bits),
            number("DWORD", 0xD3, 4, K::Bits),
            number("LWORD", 0xD4, 8, K::Bits),
            text("STRING2", 0xD5, 2, 2),
            number("FTIME", 0xD6, 4, K::Signed),
            number("LTIME", 0xD7, 8, K::Signed),
            number("ITIME", 0xD8, 2, K::Signed),
            text("STRINGN", 0xD9, 2, 1),
            text("SHORT_STRING", 0xDA, 1, 1),
            number("TIME", 0xDB, 4, K::Signed)};
}

Bytes little(std::uint64_t value, int size)
{
    Bytes bytes;
    for (int i = 0; i < size; ++i)
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    return bytes;
}

std::uint64_t unsignedOf(const Bytes& bytes, std::size_t at, std::size_t size)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size && at + i < bytes.size(); ++i)
        value |= std::uint64_t{bytes[at + i]} << (8 * i);
    return value;
}

std::int64_t signedOf(const Bytes& bytes, int size)
{
    const int shift = 64 - 8 * size;
    return static_cast<std::int64_t>(unsignedOf(bytes, 0, static_cast<std::size_t>(size))
                                     << shift) >>
           shift;
}

[[noreturn]] void refuse(const CipType& type, const std::string& text, const std::string& allowed)
{
    throw UserError('"' + text + "\" is not a value of type " + type.name + " (" + allowed + ")");
}

template<typename T> bool parsed(const std::string& text, std::size_t skip, int base, T& value)
{
    const char* first = text.data() + skip;
    const char* last = text.data() + text.size();
    const auto result = std::from_chars(first, last, value, base);
    return first != last && result.ec == std::errc() && result.ptr == last;
}

bool isHexadecimal(const std::string& text)
{
    return text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

Bytes unsignedFromText(const CipType& type, const std::string& text)
{
    const std::uint64_t most = std::numeric_limits<std::uint64_t>::max() >> (64 - 8 * type.size);
    std::uint64_t value = 0;
    const bool good = isHexadecimal(text) ? parsed(text, 2, 16, value) : parsed(text, 0, 10, value);
    if (!good || value > most)
        refuse(type, text, "0 to " + std::to_string(most));
    return little(value, type.size);
}

Bytes signedFromText(const CipType& type, const std::string& text)
{
    const std::int64_t most = std::numeric_limits<std::int64_t>::max() >> (64 - 8 * type.size);
    // A hexadecimal text gives the bits, so that the highest one may be set.
    if (isHexadecimal(text)) {
        const CipType bits = number(type.name, type.code, type.size, CipKind::Bits);
        return unsignedFromText(bits, text);
    }
    std::int64_t value = 0;
    if (!parsed(text, 0, 10, value) || value > most || value < -most - 1)
        refuse(type, text, std::to_string(-most - 1) + " to " + std::to_string(most));
    return little(static_cast<std::uint64_t>(value), type.size);
}

template<typename Real, typename Raw>
Bytes realFromText(const CipType& type, const std::string& text)
{
    Real value{};
    const char* last = text.data() + text.size();
    const auto result = std::from_chars(text.data(), last, value);
    if (text.empty() || result.ec != std::errc() || result.ptr != last)
        refuse(type, text, "a number such as 1.5 or -2e10");
    Raw raw;
    std::memcpy(&raw, &value, sizeof raw);
    return little(raw, type.size);
}

Bytes stringFromText(const CipType& type, const std::string& text)
{
    if (text.size() > kLongestString)
        refuse(type, text, "at most " + std::to_string(kLongestString) + " characters");
    Bytes bytes = little(text.size(), type.lengthBytes);
    for (char c : text) {
        bytes.push_back(static_cast<std::uint8_t>(c));
        bytes.insert(bytes.end(), static_cast<std::size_t>(type.characterBytes - 1), 0);
    }
    return bytes;
}

Bytes booleanFromText(const CipType& type, const std::string& text)
{
    if (text == "true" || text == "1")
        return {1};
    if (text != "false" && text != "0")
        refuse(type, text, "true, false, 1 or 0");
    return {0};
}

template<typename Real, typename Raw> std::string realToText(const Bytes& element)
{
    const Raw raw = static_cast<Raw>(unsignedOf(element, 0, sizeof(Raw)));
    Real value;
    std::memcpy(&value, &raw, sizeof value);
    std::array<char, 64> text{};
    const auto result = std::to_chars(text.data(), text.data() + text.size(), value);
    return {text.data(), result.ptr};
}

std::string bitsToText(std::uint64_t value, int size)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text = "0x";
    for (int shift = 8 * size - 4; shift >= 0; shift -= 4)
        text += digits[value >> shift & 15];
    return text;
}

std::string stringToText(const CipType& type, const Bytes& element)
{
    std::string text;
    const auto start = static_cast<std::size_t>(type.lengthBytes);
    const auto step = static_cast<std::size_t>(type.characterBytes);
    const std::uint64_t length = unsignedOf(element, 0, start);
    for (std::size_t i = 0; i < length && start + i * step < element.size(); ++i)
        text += static_cast<char>(element[start + i * step]);
    return text;
}

} // namespace

const std::vector<CipType>& cipTypes()
{
    static const std::vector<CipType> types = allTypes();
    return types;
}

const CipType* cipTypeOf(std::uint16_t code)
{
    for (const CipType& type : cipTypes()) {
        if (type.code == code)
            return &type;
    }
    return nullptr;
}

const CipType& cipTypeNamed(const std::string& name)
{
    std::vector<std::string> names;
    for (const CipType& type : cipTypes()) {
        if (name == type.name)
            return type;
        names.emplace_back(type.name);
    }
    throw UserError('"' + name + "\" is not a CIP type" + didYouMean(name, names));
}

Bytes valueFromText(const CipType& type, const std::string& text)
{
    switch (type.kind) {
    case CipKind::Boolean:
        return booleanFromText(type, text);
    case CipKind::Signed:
        return signedFromText(type, text);
    case CipKind::Unsigned:
    case CipKind::Bits:
        return unsignedFromText(type, text);
    case CipKind::Real:
        return type.size == 4 ? realFromText<float, std::uint32_t>(type, text)
                              : realFromText<double, std::uint64_t>(type, text);
    case CipKind::String:
        return stringFromText(type, text);
    }
    return {};
}

std::string textFromValue(const CipType& type, const Bytes& element)
{
    const auto size = static_cast<std::size_t>(type.size);
    switch (type.kind) {
    case CipKind::Boolean:
        return unsignedOf(element, 0, 1) != 0 ? "true" : "false";
    case CipKind::Signed:
        return std::to_string(signedOf(element, type.size));
    case CipKind::Unsigned:
        return std::to_string(unsignedOf(element, 0, size));
    case CipKind::Bits:
        return bitsToText(unsignedOf(element, 0, size), type.size);
    case CipKind::Real:
        return type.size == 4 ? realToText<float, std::uint32_t>(element)
                              : realToText<double, std::uint64_t>(element);
    case CipKind::String:
        return stringToText(type, element);
    }
    return {};
}

} // namespace micro850
