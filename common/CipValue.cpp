#include "CipValue.h"

#include "DateText.h"
#include "DurationText.h"
#include "UserError.h"
#include "VisibleText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace micro850 {

namespace {

Bytes littleEndian(std::uint64_t value, int size)
{
    Bytes bytes;
    appendNumber(bytes, value, size);
    return bytes;
}

// ---- From wire bytes ----------------------------------------------------------------------------

// The bytes of one element; those beyond its end are read as 00.
struct Element
{
    const std::uint8_t* bytes;
    std::size_t size;

    std::uint64_t unsignedNumber(std::size_t width) const
    {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < width && i < size; ++i)
            value |= std::uint64_t{bytes[i]} << (8 * i);
        return value;
    }
    std::int64_t signedNumber(std::size_t width) const
    {
        const std::size_t shift = 64 - 8 * width;
        return static_cast<std::int64_t>(unsignedNumber(width) << shift) >> shift;
    }
    template<typename Real, typename Raw> Real real() const
    {
        const Raw raw = static_cast<Raw>(unsignedNumber(sizeof raw));
        Real value;
        std::memcpy(&value, &raw, sizeof value);
        return value;
    }
    std::string text(const CipType& type) const
    {
        const auto start = static_cast<std::size_t>(type.lengthBytes);
        const auto step = static_cast<std::size_t>(type.characterBytes);
        const std::uint64_t length = unsignedNumber(start);
        std::string text;
        for (std::size_t i = 0; i < length && start + i * step < size; ++i)
            text += static_cast<char>(bytes[start + i * step]);
        return text;
    }
};

// ---- From text ----------------------------------------------------------------------------------

[[noreturn]] void refuse(const CipType& type, const std::string& text, const std::string& allowed)
{
    throw UserError(inQuotes(text) + " is not a value of type " + type.name + " (" + allowed + ")");
}

template<typename T> bool parseWhole(const std::string& text, std::size_t start, int base, T& value)
{
    const char* first = text.data() + start;
    const char* last = text.data() + text.size();
    const auto result = std::from_chars(first, last, value, base);
    return first != last && result.ec == std::errc() && result.ptr == last;
}

bool isHexadecimal(const std::string& text)
{
    return text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

std::uint64_t parseUnsigned(const CipType& type, const std::string& text)
{
    const std::uint64_t most = std::numeric_limits<std::uint64_t>::max() >> (64 - 8 * type.size);
    std::uint64_t value = 0;
    const bool good =
        isHexadecimal(text) ? parseWhole(text, 2, 16, value) : parseWhole(text, 0, 10, value);
    if (good && value <= most)
        return value;
    const char* date = dateExample(type);
    refuse(type, text,
           (date ? "ISO 8601 such as " + std::string(date) + " and no time zone, or " : "") +
               "0 to " + std::to_string(most));
}

std::int64_t parseSigned(const CipType& type, const std::string& text)
{
    // A hexadecimal text describes the bits, so the highest one may be set.
    if (isHexadecimal(text)) {
        const Bytes bits = littleEndian(parseUnsigned(type, text), type.size);
        return Element{bits.data(), bits.size()}.signedNumber(bits.size());
    }
    const std::int64_t most = std::numeric_limits<std::int64_t>::max() >> (64 - 8 * type.size);
    std::int64_t value = 0;
    if (!parseWhole(text, 0, 10, value) || value > most || value < -most - 1)
        refuse(type, text, std::to_string(-most - 1) + " to " + std::to_string(most));
    return value;
}

// A number of units, or an ISO 8601 duration.
std::int64_t parseTime(const CipType& type, const std::string& text)
{
    if (text.find('P') == std::string::npos)
        return parseSigned(type, text);
    const int perUnit = microsecondsPerUnit(type);
    const std::optional<std::int64_t> microseconds = parseDuration(text);
    const int bits = 8 * type.size;
    const std::int64_t most = std::numeric_limits<std::int64_t>::max() >> (64 - bits);
    if (!microseconds || *microseconds % perUnit != 0 || *microseconds / perUnit > most ||
        *microseconds / perUnit < -most - 1)
    {
        refuse(type, text,
               std::string("an ISO 8601 duration of whole ") +
                   (perUnit == 1 ? "microseconds" : "milliseconds") + " such as PT2.5S, " +
                   durationText((-most - 1) * perUnit) + " to " + durationText(most * perUnit));
    }
    return *microseconds / perUnit;
}

template<typename Real> std::string realText(Real value)
{
    if (std::isnan(value))
        return "nan"; // whatever its sign
    std::array<char, 64> text{};
    const auto result = std::to_chars(text.data(), text.data() + text.size(), value);
    return {text.data(), result.ptr};
}

template<typename Real> Real parseReal(const CipType& type, const std::string& text)
{
    Real value{};
    const char* last = text.data() + text.size();
    const auto result = std::from_chars(text.data(), last, value);
    if (!text.empty() && result.ec == std::errc::result_out_of_range && result.ptr == last) {
        using Limits = std::numeric_limits<Real>;
        throw UserError(inQuotes(text) + " is out of range for type " + type.name + " (" +
                        realText(Limits::lowest()) + " to " + realText(Limits::max()) +
                        ", and 0 or not nearer to 0 than " + realText(Limits::denorm_min()) + ")");
    }
    if (text.empty() || result.ec != std::errc() || result.ptr != last)
        refuse(type, text, "a number such as 1.5 or -2e10");
    return std::isnan(value) ? std::numeric_limits<Real>::quiet_NaN() : value;
}

bool parseBoolean(const CipType& type, const std::string& text)
{
    std::string word = text;
    std::transform(word.begin(), word.end(), word.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    if (word == "true" || word == "on" || word == "1")
        return true;
    if (word != "false" && word != "off" && word != "0")
        refuse(type, text, "true, false, on, off, 1 or 0");
    return false;
}

// ---- To text and wire bytes ---------------------------------------------------------------------

// The number that the digits of a REAL describe: 0.1, and not 0.100000001490116, which is what 0.1f
// becomes when it is widened.
double decimalValue(float value)
{
    const std::string text = realText(value);
    double decimal = value;
    std::from_chars(text.data(), text.data() + text.size(), decimal);
    return decimal;
}

std::string bitsText(std::uint64_t value, int size)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text = "0x";
    for (int shift = 8 * size - 4; shift >= 0; shift -= 4)
        text += digits[value >> shift & 15];
    return text;
}

template<typename Raw, typename Real> Bytes encodeReal(Real value)
{
    Raw raw;
    static_assert(sizeof raw == sizeof value);
    std::memcpy(&raw, &value, sizeof raw);
    return littleEndian(raw, sizeof raw);
}

Bytes encodeText(const CipType& type, const std::string& text)
{
    Bytes bytes = littleEndian(text.size(), type.lengthBytes);
    for (const char c : text)
        appendNumber(bytes, static_cast<std::uint8_t>(c), type.characterBytes);
    return bytes;
}

} // namespace

CipValue CipValue::decode(const CipType& type, const std::uint8_t* bytes, std::size_t size)
{
    const Element element{bytes, size};
    const auto width = static_cast<std::size_t>(type.size);
    switch (type.kind) {
    case CipKind::Boolean:
        return ofBoolean(element.unsignedNumber(1) != 0);
    case CipKind::Signed:
        return ofSigned(element.signedNumber(width));
    case CipKind::Unsigned:
        return ofUnsigned(element.unsignedNumber(width));
    case CipKind::Bits:
        return ofBits(element.unsignedNumber(width), type.size);
    case CipKind::Real:
        return type.size == 4 ? ofReal(element.real<float, std::uint32_t>())
                              : ofReal(element.real<double, std::uint64_t>());
    case CipKind::String:
        break;
    }
    return ofText(element.text(type));
}

CipValue CipValue::decode(const CipType& type, const Bytes& bytes)
{
    return decode(type, bytes.data(), bytes.size());
}

CipValue CipValue::parse(const CipType& type, const std::string& text)
{
    switch (type.kind) {
    case CipKind::Boolean:
        return ofBoolean(parseBoolean(type, text));
    case CipKind::Signed:
        return ofSigned(microsecondsPerUnit(type) == 0 ? parseSigned(type, text)
                                                       : parseTime(type, text));
    case CipKind::Unsigned:
        if (const std::optional<std::uint64_t> date = parseDate(type, text))
            return ofUnsigned(*date);
        return ofUnsigned(parseUnsigned(type, text));
    case CipKind::Bits:
        return ofBits(parseUnsigned(type, text), type.size);
    case CipKind::Real:
        return type.size == 4 ? ofReal(parseReal<float>(type, text))
                              : ofReal(parseReal<double>(type, text));
    case CipKind::String:
        break;
    }
    if (text.size() > kLongestText)
        refuse(type, text, "at most " + std::to_string(kLongestText) + " characters");
    return ofText(text);
}

CipKind CipValue::kind() const
{
    static const CipKind kinds[] = {CipKind::Boolean, CipKind::Signed, CipKind::Unsigned,
                                    CipKind::Bits,    CipKind::Real,   CipKind::Real,
                                    CipKind::String};
    return kinds[m_value.index()];
}

std::uint64_t CipValue::unsignedNumber() const
{
    const auto* bits = std::get_if<BitField>(&m_value);
    return bits ? bits->value : std::get<std::uint64_t>(m_value);
}

double CipValue::number() const
{
    switch (kind()) {
    case CipKind::Boolean:
        return boolean() ? 1 : 0;
    case CipKind::Signed:
        return static_cast<double>(signedNumber());
    case CipKind::Unsigned:
    case CipKind::Bits:
        return static_cast<double>(unsignedNumber());
    case CipKind::Real:
        break;
    case CipKind::String:
        return std::numeric_limits<double>::quiet_NaN();
    }
    const auto* narrow = std::get_if<float>(&m_value);
    return narrow ? decimalValue(*narrow) : std::get<double>(m_value);
}

Bytes CipValue::encode(const CipType& type) const
{
    switch (kind()) {
    case CipKind::Boolean:
        return {static_cast<std::uint8_t>(boolean() ? 1 : 0)};
    case CipKind::Signed:
        return littleEndian(static_cast<std::uint64_t>(signedNumber()), type.size);
    case CipKind::Unsigned:
    case CipKind::Bits:
        return littleEndian(unsignedNumber(), type.size);
    case CipKind::Real:
        break;
    case CipKind::String:
        return encodeText(type, std::get<std::string>(m_value));
    }
    const auto* narrow = std::get_if<float>(&m_value);
    return narrow ? encodeReal<std::uint32_t>(*narrow)
                  : encodeReal<std::uint64_t>(std::get<double>(m_value));
}

std::string CipValue::text() const
{
    switch (kind()) {
    case CipKind::Boolean:
        return boolean() ? "true" : "false";
    case CipKind::Signed:
        return std::to_string(signedNumber());
    case CipKind::Unsigned:
        return std::to_string(unsignedNumber());
    case CipKind::Bits:
        return bitsText(unsignedNumber(), std::get<BitField>(m_value).size);
    case CipKind::Real:
        break;
    case CipKind::String:
        return std::get<std::string>(m_value);
    }
    const auto* narrow = std::get_if<float>(&m_value);
    return narrow ? realText(*narrow) : realText(std::get<double>(m_value));
}

Bytes valueFromText(const CipType& type, const std::string& text)
{
    return CipValue::parse(type, text).encode(type);
}

std::string textFromValue(const CipType& type, const Bytes& element)
{
    return CipValue::decode(type, element).text();
}

} // namespace micro850
