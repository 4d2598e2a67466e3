#include "CipType.h"

#include "UserError.h"
#include "VisibleText.h"

namespace micro850 {

namespace {

CipType number(const char* name, std::uint16_t code, int size, CipKind kind)
{
    return {name, code, size, kind, 0, 0};
}

CipType text(const char* name, std::uint16_t code, int lengthBytes, int characterBytes)
{
    const int size = lengthBytes + kLongestText * characterBytes;
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
    throw UserError(inQuotes(name) + " is not a CIP type" + didYouMean(name, names));
}

} // namespace micro850
