// Tag files: any text is read or refused with one line. The tags that are read always hold values
// of their type.

#include "TagTable.h"
#include "complaint.h"

#include <cctype>
#include <cstddef>
#include <cstdint>

namespace {

using namespace micro850;
using namespace micro850::sim;

// Arrays of 1000 elements and more behave like short ones and only cost time.
bool asksForLongArrays(const std::string& text)
{
    const char key[] = "length";
    for (std::size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
        const std::size_t first = text.find_first_of("0123456789", at);
        std::size_t digits = 0;
        while (first + digits < text.size() && std::isdigit(text[first + digits]))
            ++digits;
        if (first != std::string::npos && digits > 3)
            return true;
    }
    return false;
}

void checkElement(const CipType& type, const Bytes& element)
{
    const auto size = static_cast<std::size_t>(type.size);
    FUZZ_CHECK(type.kind == CipKind::String ? element.size() <= size : element.size() == size);
    FUZZ_CHECK(type.kind != CipKind::Boolean || element[0] <= 1);
}

void checkTags(const TagTable& table)
{
    for (const auto& [name, tag] : table.tags()) {
        FUZZ_CHECK(!name.empty() && name.size() <= 255 && tag.name == name);
        FUZZ_CHECK(!tag.elements.empty() && tag.elements.size() == tag.initial.size());
        for (const Bytes& element : tag.elements)
            checkElement(*tag.type, element);
    }
}

void check(TagTable table)
{
    checkTags(table);
    for (const std::int64_t microseconds : {0LL, 1LL, 333333LL, 5000000LL, 1LL << 52}) {
        table.move(Duration(microseconds));
        checkTags(table);
    }
    table.reset();
    for (const auto& [name, tag] : table.tags())
        FUZZ_CHECK(tag.elements == tag.initial);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(bytes), size);
    if (asksForLongArrays(text))
        return -1;
    try {
        check(TagTable::fromText(text, "t.json"));
    } catch (const UserError& error) {
        fuzz::checkComplaint(error, "t.json:");
    }
    return 0;
}
