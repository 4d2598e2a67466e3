#ifndef MICRO850_COMMON_CIPTYPE_H
#define MICRO850_COMMON_CIPTYPE_H

#include "Bytes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace micro850 {

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
    int size;           ///< bytes of an element on the wire; of a string its longest form
    CipKind kind;
    int lengthBytes;    ///< of a string: bytes of the length in front of the characters
    int characterBytes; ///< of a string: bytes of one character
};

/// Every type, in the order of its code.
const std::vector<CipType>& cipTypes();
/// The type of a code, or null.
const CipType* cipTypeOf(std::uint16_t code);
/// The type of a name in capitals. Throws UserError: `"INTT" is not a CIP type (did you mean
/// INT?)`.
const CipType& cipTypeNamed(const std::string& name);

/// The wire bytes of one element from a text: decimal or 0x numbers, true/false, real numbers,
/// plain text for strings. Throws UserError naming text, type and range.
Bytes valueFromText(const CipType& type, const std::string& text);
/// One element as text; bytes that are missing count as 00. Real numbers in the fewest digits that
/// read back to the same value.
std::string textFromValue(const CipType& type, const Bytes& element);

} // namespace micro850

#endif
