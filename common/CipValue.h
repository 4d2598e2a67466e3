#ifndef MICRO850_COMMON_CIPVALUE_H
#define MICRO850_COMMON_CIPVALUE_H

#include "Bytes.h"
#include "CipType.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <variant>

namespace micro850 {

/// The value of one element: true or false, a number, a group of bits, or a text.
class CipValue
{
public:
    static CipValue ofBoolean(bool value) { return CipValue(value); }
    static CipValue ofSigned(std::int64_t value) { return CipValue(value); }
    static CipValue ofUnsigned(std::uint64_t value) { return CipValue(value); }
    /// Bits of a type that is `size` bytes wide.
    static CipValue ofBits(std::uint64_t value, int size)
    {
        return CipValue(BitField{value, size});
    }
    static CipValue ofReal(float value) { return CipValue(value); }
    static CipValue ofReal(double value) { return CipValue(value); }
    /// One byte for each character, as on the wire.
    static CipValue ofText(const std::string& value) { return CipValue(value); }

    /// The value in the wire bytes of one element; bytes that are missing count as 00.
    static CipValue decode(const CipType& type, const std::uint8_t* bytes, std::size_t size);
    static CipValue decode(const CipType& type, const Bytes& bytes);
    /// The value that a text describes: decimal or 0x numbers, true/false, real numbers, plain text
    /// for strings; for the time types also an ISO 8601 duration, for dates and times of day also
    /// their ISO 8601 form. Throws UserError naming text, type and range.
    static CipValue parse(const CipType& type, const std::string& text);

    /// The wire bytes of an element of this type. The value must be one that decode() or parse()
    /// returned for the type.
    Bytes encode(const CipType& type) const;
    /// Real numbers in the fewest digits that parse to the same value, bits in hexadecimal.
    std::string text() const;

    CipKind kind() const;
    bool isNumber() const { return micro850::isNumber(kind()); }
    /// True for a real number of 32 bits.
    bool isSingle() const { return std::holds_alternative<float>(m_value); }
    bool boolean() const { return std::get<bool>(m_value); }
    std::int64_t signedNumber() const { return std::get<std::int64_t>(m_value); }
    /// Of an unsigned number or of bits.
    std::uint64_t unsignedNumber() const;
    /// Of any kind: true counts as 1; a text is not a number (NaN).
    double number() const;

private:
    struct BitField
    {
        std::uint64_t value;
        int size;
    };
    using Value =
        std::variant<bool, std::int64_t, std::uint64_t, BitField, float, double, std::string>;
    explicit CipValue(Value value) : m_value(std::move(value)) {}

    Value m_value;
};

/// The value of a text as wire bytes: parse(), then encode().
Bytes valueFromText(const CipType& type, const std::string& text);
/// Wire bytes as text: decode(), then text().
std::string textFromValue(const CipType& type, const Bytes& element);

} // namespace micro850

#endif
