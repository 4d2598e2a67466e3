#include "TagTable.h"

#include "CipValue.h"
#include "JsonFile.h"
#include "UserError.h"
#include "VisibleText.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>

namespace micro850::sim {

namespace {

constexpr std::int64_t kLongestArray = 65536;
constexpr std::size_t kLongestName = 255;
// Of all tags together: what a file of a few lines asks for fits into the memory.
constexpr std::size_t kMostElements = 4000000;
constexpr double kPi = 3.14159265358979323846;

// A text of the controller has one byte a character: the first 256 of Unicode, in Latin-1. A node
// has valid UTF-8.
std::string latin1Of(const JsonNode& node)
{
    const std::string utf8 = node.scalar();
    std::string latin1;
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        const auto byte = static_cast<std::uint8_t>(utf8[i]);
        if (byte < 0x80) {
            latin1 += utf8[i];
            continue;
        }
        if (byte > 0xC3)
            node.fail(inQuotes(utf8) + " has a character that a text of the controller cannot hold "
                                       "(U+0000 to U+00FF)");
        latin1 += static_cast<char>(byte << 6 | (static_cast<std::uint8_t>(utf8[++i]) & 0x3F));
    }
    return latin1;
}

Bytes parseElement(const JsonNode& node, const CipType& type)
{
    try {
        return valueFromText(type, type.kind == CipKind::String ? latin1Of(node) : node.scalar());
    } catch (const UserError& error) {
        const std::string what = error.what();
        // A message of the node itself already names its place.
        if (what.front() != '"')
            throw;
        node.fail(what);
    }
}

Motion::Kind parseMotionKind(const JsonNode& node)
{
    const std::string name = node.text();
    const std::array<std::pair<const char*, Motion::Kind>, 4> kinds = {
        {{"ramp", Motion::Ramp},
         {"sine", Motion::Sine},
         {"counter", Motion::Counter},
         {"toggle", Motion::Toggle}}};
    for (const auto& [text, kind] : kinds) {
        if (name == text)
            return kind;
    }
    node.fail(inQuotes(name) + " is not a motion" +
              didYouMean(name, {"ramp", "sine", "counter", "toggle"}) +
              " (ramp, sine, counter or toggle)");
}

bool holds(const CipType& type, double position)
{
    const int bits = 8 * type.size;
    const double whole = std::round(position);
    switch (type.kind) {
    case CipKind::Signed:
        return whole >= -std::ldexp(1, bits - 1) && whole < std::ldexp(1, bits - 1);
    case CipKind::Unsigned:
    case CipKind::Bits:
        return whole >= 0 && whole < std::ldexp(1, bits);
    case CipKind::Real:
        return type.size == 8 || std::abs(position) <= std::numeric_limits<float>::max();
    default:
        return true;
    }
}

Motion parseMotion(const JsonNode& node, const CipType& type)
{
    node.expectKeys({"kind", "min", "max", "period"});
    Motion motion;
    motion.kind = parseMotionKind(node.at("kind"));
    motion.least = node.number("min", 0);
    motion.most = node.number("max", 100);
    const double seconds = node.number("period", 10);
    if (!(seconds >= 0.001 && seconds <= 1e6))
        node.at("period").fail("a period is 0.001 to 1000000 seconds");
    if (!(motion.least <= motion.most))
        node.fail("min is greater than max");
    if (type.kind == CipKind::String)
        node.fail(std::string("a ") + type.name + " cannot move; remove the motion");
    if (!holds(type, motion.least) || !holds(type, motion.most) ||
        !std::isfinite(motion.most - motion.least))
        node.fail(std::string("min or max is beyond what a ") + type.name + " holds");
    motion.period = fromSeconds(seconds);
    return motion;
}

std::vector<Bytes> parseInitialValues(const JsonNode& node, const CipType& type, std::size_t length)
{
    const std::string zero = type.kind == CipKind::String ? "" : "0";
    std::vector<Bytes> elements(length, valueFromText(type, zero));
    if (!node.has("value"))
        return elements;
    const JsonNode value = node.at("value");
    if (!value.isArray()) {
        elements.assign(length, parseElement(value, type));
        return elements;
    }
    const JsonNode::Elements values = value.elements();
    if (values.size() > length)
        value.fail(std::to_string(values.size()) + " values for " + std::to_string(length) +
                   " elements");
    for (std::size_t i = 0; i < values.size(); ++i)
        elements[i] = parseElement(values[i], type);
    return elements;
}

const CipType& parseType(const JsonNode& node)
{
    try {
        return cipTypeNamed(node.text());
    } catch (const UserError& error) {
        const std::string what = error.what();
        if (what.front() != '"')
            throw;
        node.fail(what);
    }
}

// `elements` counts those of all tags so far.
Tag parseTag(const JsonNode& node, std::size_t& elements)
{
    node.expectKeys({"name", "type", "length", "value", "readOnly", "motion"});
    Tag tag;
    tag.name = node.at("name").text();
    if (tag.name.empty() || tag.name.size() > kLongestName)
        node.at("name").fail("a tag name has 1 to 255 characters");
    tag.type = &parseType(node.at("type"));
    const auto length = static_cast<std::size_t>(node.integer("length", 1, kLongestArray, 1));
    elements += length;
    if (elements > kMostElements)
        node.fail("the tags have more than " + std::to_string(kMostElements) +
                  " elements together (leave some out)");
    tag.initial = parseInitialValues(node, *tag.type, length);
    tag.elements = tag.initial;
    tag.readOnly = node.boolean("readOnly", false);
    if (node.has("motion"))
        tag.motion = parseMotion(node.at("motion"), *tag.type);
    return tag;
}

// The value at `elapsed`, within the motion's bounds. Each element of an array is a tenth of a
// period ahead of the one before it.
double positionOf(const Motion& motion, Duration elapsed, std::size_t index)
{
    const double periods =
        static_cast<double>(elapsed.count()) / static_cast<double>(motion.period.count()) +
        static_cast<double>(index) * 0.1;
    const double range = motion.most - motion.least;
    switch (motion.kind) {
    case Motion::Ramp:
        return std::min(motion.least + range * (periods - std::floor(periods)), motion.most);
    case Motion::Sine:
        return std::clamp(motion.least + range / 2 * (1 + std::sin(2 * kPi * periods)),
                          motion.least, motion.most);
    case Motion::Counter:
        return motion.least + std::fmod(std::floor(periods), std::floor(range) + 1);
    case Motion::Toggle:
        return std::fmod(std::floor(periods), 2);
    }
    return 0;
}

// The position as the bits of the type, in the low bytes of the result.
std::uint64_t bitsOf(const CipType& type, double position)
{
    std::uint64_t bits = 0;
    if (type.kind == CipKind::Real && type.size == 8) {
        std::memcpy(&bits, &position, sizeof position);
    } else if (type.kind == CipKind::Real) {
        const auto single = static_cast<float>(position);
        std::uint32_t raw = 0;
        std::memcpy(&raw, &single, sizeof single);
        bits = raw;
    } else if (type.kind == CipKind::Boolean) {
        bits = position >= 0.5 ? 1 : 0;
    } else {
        const double whole = std::round(position);
        bits = whole < 0 ? static_cast<std::uint64_t>(static_cast<std::int64_t>(whole))
                         : static_cast<std::uint64_t>(whole);
    }
    return bits;
}

Bytes movedElement(const CipType& type, double position)
{
    const std::uint64_t bits = bitsOf(type, position);
    Bytes bytes;
    for (int i = 0; i < type.size; ++i)
        bytes.push_back(static_cast<std::uint8_t>(bits >> (8 * i)));
    return bytes;
}

} // namespace

TagTable TagTable::fromFile(const std::string& path)
{
    return fromNode(JsonNode::fromFile(path));
}

TagTable TagTable::fromText(const std::string& text, const std::string& name)
{
    return fromNode(JsonNode::fromText(text, name));
}

TagTable TagTable::fromNode(const JsonNode& root)
{
    root.expectKeys({"tags"});
    TagTable table;
    std::size_t elements = 0;
    for (const JsonNode& node : root.at("tags").elements()) {
        Tag tag = parseTag(node, elements);
        if (table.find(tag.name))
            node.at("name").fail("the tag " + inQuotes(tag.name) +
                                 " is defined twice; remove or rename one");
        table.put(std::move(tag));
    }
    return table;
}

const Tag* TagTable::find(const std::string& name) const
{
    const auto tag = m_tags.find(name);
    return tag == m_tags.end() ? nullptr : &tag->second;
}

Tag* TagTable::find(const std::string& name)
{
    const auto tag = m_tags.find(name);
    return tag == m_tags.end() ? nullptr : &tag->second;
}

void TagTable::put(Tag tag)
{
    m_tags[tag.name] = std::move(tag);
}

void TagTable::remove(const std::string& name)
{
    m_tags.erase(name);
}

void TagTable::move(Duration elapsed)
{
    for (auto& [name, tag] : m_tags) {
        for (std::size_t i = 0; tag.motion && i < tag.elements.size(); ++i)
            tag.elements[i] = movedElement(*tag.type, positionOf(*tag.motion, elapsed, i));
    }
}

void TagTable::reset()
{
    for (auto& [name, tag] : m_tags)
        tag.elements = tag.initial;
}

} // namespace micro850::sim
