// Values, tags and writes as a user types them, and values, names and units as a user reads them.

#include "CipValue.h"
#include "Elements.h"
#include "Page.h"
#include "TagAddress.h"
#include "ValueStore.h"
#include "Visible.h"
#include "complaint.h"
#include "fuzz_input.h"
#include "shown_text.h"

#include <nlohmann/json.hpp>

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

// What an escape stands for, as UTF-8 or as the byte that is none. `at` moves behind it.
std::string meaningOf(const std::string& text, std::size_t& at)
{
    const char kind = text.at(at + 1);
    const std::size_t digits = kind == 'x' ? 2 : kind == 'u' ? 4 : kind == 'U' ? 8 : 0;
    const std::string number = text.substr(at + 2, digits);
    at += 2 + digits;
    if (digits == 0)
        return std::string(1, kind == 'n' ? '\n' : kind == 'r' ? '\r' : kind == 't' ? '\t' : kind);
    const uint code = static_cast<uint>(std::stoul(number, nullptr, 16));
    return kind == 'x' ? std::string(1, static_cast<char>(code))
                       : QString::fromUcs4(&code, 1).toStdString();
}

// The value that a shown value stands for: what is in quotes is escaped, anything else is itself.
std::string meaningOf(const std::string& shown)
{
    if (shown.empty() || shown.front() != '"')
        return shown;
    FUZZ_CHECK(shown.size() >= 2 && shown.back() == '"');
    std::string value;
    for (std::size_t at = 1; at + 1 < shown.size();) {
        FUZZ_CHECK(shown[at] != '"');
        if (shown[at] == '\\')
            value += meaningOf(shown, at);
        else
            value += shown[at++];
    }
    return value;
}

// A value that is shown: nothing that a terminal obeys, and for a string no second meaning.
void checkShownValue(const CipType& of, const Bytes& value)
{
    const CipValue decoded = CipValue::decode(of, value);
    const QString shown = micro850::host::shownText(of, decoded);
    fuzz::checkShownText(shown);
    if (of.kind == CipKind::String)
        FUZZ_CHECK(meaningOf(shown.toStdString()) ==
                   micro850::host::valueText(decoded).toStdString());
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
        checkShownValue(of, value);
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
    checkShownValue(of, element);
}

// Any bytes can be made visible, once and for all; JSON keeps its characters.
void checkVisible(FuzzInput& input)
{
    const std::string text = rest(input);
    const std::string shown = visible(text);
    fuzz::checkShownText(shown);
    FUZZ_CHECK(visible(shown) == shown);
    const std::string value = visibleValue(text);
    fuzz::checkShownText(value);
    FUZZ_CHECK(meaningOf(value) == text);
    fuzz::checkShownText(inQuotes(text));
    using nlohmann::json;
    const std::string plain = json(text).dump(-1, ' ', false, json::error_handler_t::replace);
    fuzz::checkShownText(visibleJson(plain));
    FUZZ_CHECK(json::parse(visibleJson(plain)) == json::parse(plain));
}

// A cell of the table has exactly its columns, whatever is in it.
void checkCell(const QString& text, int width)
{
    const QString cell = micro850::host::fitted(micro850::host::visible(text), width);
    fuzz::checkShownText(cell);
    FUZZ_CHECK(micro850::host::displayWidth(cell) == width);
}

// The variable of a project: what its name, its unit and its value look like in a table.
void checkTable(FuzzInput& input)
{
    const CipType& of = type(input);
    const int width = input.byte();
    const std::string name = input.block().toStdString();
    const std::string unit = input.block().toStdString();
    const nlohmann::json variable = {{"tag", "T"}, {"name", name}, {"unit", unit}};
    const nlohmann::json file = {{"variables", {variable}}};
    try {
        const auto project = micro850::host::Project::fromText(
            QString::fromStdString(
                file.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)),
            QStringLiteral("p.json"));
        const micro850::host::Variable& only = project.variables.first();
        fuzz::checkShownText(only.name + only.unit);
        checkCell(only.name, width);
        micro850::host::ValueStore values(project);
        values.store({only.station, only.tag}, 0, of, input.bytes(SIZE_MAX), Duration(0));
        fuzz::checkShownText(values.text(0));
        checkCell(values.text(0), width);
    } catch (const UserError& error) {
        fuzz::checkComplaint(error, "p.json");
    }
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
    FUZZ_CHECK(again.bit == address.bit && address.bit < 64);
    const micro850::host::TagAddress all = micro850::host::TagAddress::fromText(address.text());
    FUZZ_CHECK(all.tag == address.tag && all.element == address.element);
    FUZZ_CHECK(all.elements == address.elements && all.toEnd == address.toEnd);
    FUZZ_CHECK(all.bit == address.bit && all.text() == address.text());
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
    switch (input.below(6)) {
    case 0:
        checkValue(input);
        break;
    case 1:
        checkShown(input);
        break;
    case 2:
        checkType(input);
        break;
    case 3:
        checkTag(input);
        break;
    case 4:
        checkVisible(input);
        break;
    default:
        checkTable(input);
    }
    return 0;
}
