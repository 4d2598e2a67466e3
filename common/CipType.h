#ifndef MICRO850_COMMON_CIPTYPE_H
#define MICRO850_COMMON_CIPTYPE_H

#include "Bytes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace micro850 {

/// The most characters that a string is written with: a reply of the controller has room for more.
constexpr int kLongestText = 80;

/// How a value of a type is written as text.
enum class CipKind {
    Boolean,
    Signed,
    Unsigned,
    Bits, ///< shown in hexadecimal
    Real,
    String
};

/// An elementary data type of the controller.
struct CipType
{
    const char* name;
    std::uint16_t code; ///< CIP type code
    int size;           ///< bytes of an element on the wire; of a string: of the longest one
    CipKind kind;
    int lengthBytes;    ///< of a string: bytes of the length in front of the characters
    int characterBytes; ///< of a string: bytes of one character
};

/// True for a type whose values are shown as numbers.
inline bool isNumber(CipKind kind)
{
    return kind == CipKind::Signed || kind == CipKind::Unsigned || kind == CipKind::Real;
}
inline bool isNumber(const CipType& type)
{
    return isNumber(type.kind);
}

/// Every type, in the order of its code.
const std::vector<CipType>& cipTypes();
/// The type of a code, or null.
const CipType* cipTypeOf(std::uint16_t code);
/// The type of a name in capitals. Throws UserError: `"INTT" is not a CIP type (did you mean
/// INT?)`.
const CipType& cipTypeNamed(const std::string& name);

} // namespace micro850

#endif
