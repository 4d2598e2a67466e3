#include "JsonFile.h"

#include "UserError.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

namespace micro850 {

using nlohmann::json;

namespace {

std::string placeOf(const std::string& text, std::size_t byte)
{
    const std::size_t end = std::min(byte > 0 ? byte - 1 : 0, text.size());
    const auto stop = text.begin() + static_cast<std::ptrdiff_t>(end);
    const auto line = 1 + std::count(text.begin(), stop, '\n');
    const std::size_t start = end == 0 ? std::string::npos : text.rfind('\n', end - 1);
    const std::size_t column = start == std::string::npos ? end + 1 : end - start;
    return std::to_string(line) + ':' + std::to_string(column);
}

// The library's message without the number and the place with which it starts.
std::string reasonOf(const json::exception& error, const char* begin)
{
    const std::string what = error.what();
    const std::size_t at = what.find(begin);
    return at == std::string::npos ? what : what.substr(at);
}

// No valid file is nested so deep, and the function that prints a value is recursive.
json parsed(const std::string& text)
{
    constexpr int kDeepest = 64;
    const auto bounded = [](int depth, json::parse_event_t, const json&) {
        if (depth > kDeepest)
            throw UserError("brackets are nested more than " + std::to_string(kDeepest) + " deep");
        return true;
    };
    return json::parse(text, bounded, true, true);
}

} // namespace

JsonNode::JsonNode(std::shared_ptr<const json> root, const json* value, std::string file,
                   std::string path)
    : m_root(std::move(root)), m_value(value), m_file(std::move(file)), m_path(std::move(path))
{
}

JsonNode JsonNode::fromFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file || file.bad())
        throw UserError(path + ": cannot be read: " + std::strerror(errno ? errno : EIO) +
                        " (check the path)");
    return fromText(text, path);
}

JsonNode JsonNode::fromText(const std::string& text, const std::string& name)
{
    try {
        auto root = std::make_shared<const json>(parsed(text));
        const json* value = root.get();
        return JsonNode(std::move(root), value, name, "");
    } catch (const json::parse_error& error) {
        throw UserError(name + ':' + placeOf(text, error.byte) + ": " +
                        reasonOf(error, "syntax error"));
    } catch (const json::out_of_range& error) {
        throw UserError(name + ": " + reasonOf(error, "number overflow"));
    } catch (const UserError& error) {
        throw UserError(name + ": " + error.what());
    }
}

JsonNode JsonNode::child(const json& value, const std::string& path) const
{
    return JsonNode(m_root, &value, m_file, path);
}

void JsonNode::fail(const std::string& what) const
{
    throw UserError(m_file + ": " + (m_path.empty() ? what : m_path + ": " + what));
}

std::string JsonNode::found() const
{
    return m_value->dump(-1, ' ', false, json::error_handler_t::replace).substr(0, 60);
}

void JsonNode::expectKeys(const std::vector<std::string>& keys) const
{
    if (!m_value->is_object())
        fail(found() + " is not an object { ... }");
    for (const auto& item : m_value->items()) {
        if (std::find(keys.begin(), keys.end(), item.key()) != keys.end())
            continue;
        std::string allowed;
        for (const std::string& key : keys)
            allowed += (allowed.empty() ? "" : ", ") + key;
        const std::string guess = didYouMean(item.key(), keys);
        fail("unknown key \"" + item.key() + '"' +
             (guess.empty() ? " (allowed: " + allowed + ')' : guess));
    }
}

bool JsonNode::has(const std::string& key) const
{
    return m_value->is_object() && m_value->contains(key);
}

JsonNode JsonNode::at(const std::string& key) const
{
    if (!has(key))
        fail("the key \"" + key + "\" is missing");
    return child((*m_value)[key], m_path.empty() ? key : m_path + '.' + key);
}

std::vector<JsonNode> JsonNode::elements() const
{
    if (!m_value->is_array())
        fail(found() + " is not an array [ ... ]");
    std::vector<JsonNode> nodes;
    for (std::size_t i = 0; i < m_value->size(); ++i)
        nodes.push_back(child((*m_value)[i], m_path + '[' + std::to_string(i) + ']'));
    return nodes;
}

bool JsonNode::isArray() const
{
    return m_value->is_array();
}

std::string JsonNode::text() const
{
    if (!m_value->is_string())
        fail(found() + " is not a text in quotes");
    return m_value->get<std::string>();
}

bool JsonNode::boolean() const
{
    if (!m_value->is_boolean())
        fail(found() + " is not true or false");
    return m_value->get<bool>();
}

double JsonNode::number() const
{
    if (!m_value->is_number())
        fail(found() + " is not a number");
    return m_value->get<double>();
}

std::int64_t JsonNode::integer(std::int64_t least, std::int64_t most) const
{
    const std::string range = std::to_string(least) + " to " + std::to_string(most);
    if (!m_value->is_number_integer())
        fail(found() + " is not a whole number (" + range + ')');
    const bool tooLarge = m_value->is_number_unsigned() &&
                          m_value->get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX);
    const std::int64_t value = tooLarge ? INT64_MAX : m_value->get<std::int64_t>();
    if (tooLarge || value < least || value > most)
        fail(found() + " is not allowed (" + range + ')');
    return value;
}

std::string JsonNode::scalar() const
{
    if (m_value->is_string())
        return m_value->get<std::string>();
    if (!m_value->is_number() && !m_value->is_boolean())
        fail(found() + " is not a single value");
    return m_value->dump();
}

std::string JsonNode::text(const std::string& key, const std::string& absent) const
{
    return has(key) ? at(key).text() : absent;
}

bool JsonNode::boolean(const std::string& key, bool absent) const
{
    return has(key) ? at(key).boolean() : absent;
}

double JsonNode::number(const std::string& key, double absent) const
{
    return has(key) ? at(key).number() : absent;
}

std::int64_t JsonNode::integer(const std::string& key, std::int64_t least, std::int64_t most,
                               std::int64_t absent) const
{
    return has(key) ? at(key).integer(least, most) : absent;
}

} // namespace micro850
