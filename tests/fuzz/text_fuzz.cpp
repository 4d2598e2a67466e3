// Values, tags and writes as a user types them, and values as a user reads them.

#include "CipValue.h"
#include "TagAddress.h"
#include "complaint.h"
#include "fuzz_input.h"

namespace {

using namespace micro850;

std::string rest(FuzzInput& input)
{
    return input.bytes(SIZE_MAX).toStdString();
}

const CipType& type(FuzzInput& input)
{
    return cipTypes()[static_cast<std::size_t>(input.below(static_cast<int>(cipTypes().size())))];
}

// A parsed text has the size of its type. Its text, parsed again, has the same bytes.
void checkValue(FuzzInput& input)
{
    const CipType& of = type(input);
    const std::string text = rest(input);
    try {
        const Bytes value = valueFromText(of, text);
        const auto size = static_cast<std::size_t>(of.size);
        FUZZ_CHECK(of.kind == CipKind::String ? value.size() <= size : value.size() == size);
        FUZZ_CHECK(valueFromText(of, textFromValue(of, value)) == value);
    } catch (const UserError& error) {
        fuzz::checkComplaint(error, "\"");
    }
}

// Any bytes of a controller can be shown, and the text of a number can be typed in.
void checkShown(FuzzInput& input)
{
    const CipType& of = type(input);
    const QByteArray given = input.bytes(SIZE_MAX);
    const Bytes element(given.begin(), given.end());
    const std::string text = textFromValue(of, element);
    FUZZ_CHECK(text.size() <= 32 || of.kind == CipKind::String);
    if (of.kind != CipKind::String)
        FUZZ_CHECK(textFromValue(of, valueFromText(of, text)) == text);
}

void checkType(FuzzInput& input)
{
    const std::string name = rest(input);
    try {
        FUZZ_CHECK(cipTypeNamed(name).name == name);
    } catch (const UserError& error) {
        fuzz::checkComplaint(error, "\"");
    }
}

void checkAddress(const micro850::host::TagAddress& address)
{
    FUZZ_CHECK(!address.tag.isEmpty() && address.tag.size() <= micro850::host::kLongestTag);
    FUZZ_CHECK(address.element >= 0 && address.elements >= 1);
    FUZZ_CHECK(address.element + address.elements - 1 <= micro850::host::kLargestElement);
    const micro850::host::TagAddress again =
        micro850::host::TagAddress::fromText(address.elementName(0));
    FUZZ_CHECK(again.tag == address.tag && again.element == address.element);
}

void checkTag(FuzzInput& input)
{
    const bool isWrite = input.flag();
    const QString text = QString::fromUtf8(input.bytes(SIZE_MAX));
    try {
        if (!isWrite)
            return checkAddress(micro850::host::TagAddress::fromText(text));
        const micro850::host::Assignment write = micro850::host::Assignment::fromText(text);
        checkAddress(write.address);
        FUZZ_CHECK(text.endsWith('=' + write.value));
        if (write.address.elements <= 64)
            FUZZ_CHECK(write.valuesFor(write.address).size() == write.address.elements);
    } catch (const UserError& error) {
        fuzz::checkComplaint(error, "\"");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    FuzzInput input(bytes, size);
    switch (input.below(4)) {
    case 0:
        checkValue(input);
        break;
    case 1:
        checkShown(input);
        break;
    case 2:
        checkType(input);
        break;
    default:
        checkTag(input);
    }
    return 0;
}
