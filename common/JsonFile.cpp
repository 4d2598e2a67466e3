#include "JsonFile.h"

#include "VisibleText.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

namespace micro850 {

using nlohmann::json;

namespace {

// The line and the column of a byte, counted from 1.
struct Place
{
    int line;
    std::size_t column;

    std::string text() const { return std::to_string(line) + ':' + std::to_string(column); }
};

Place placeOf(const std::string& text, std::size_t byte)
{
    const std::size_t end = std::min(byte > 0 ? byte - 1 : 0, text.size());
    const auto stop = text.begin() + static_cast<std::ptrdiff_t>(end);
    const auto line = 1 + std::count(text.begin(), stop, '\n');
    const std::size_t start = end == 0 ? std::string::npos : text.rfind('\n', end - 1);
    const std::size_t column = start == std::string::npos ? end + 1 : end - start;
    return {static_cast<int>(line), column};
}

// A key as a JSON pointer has it.
std::string pointerPart(const std::string& key)
{
    std::string part = "/";
    for (const char c : key)
        part += c == '~' ? std::string("~0") : c == '/' ? std::string("~1") : std::string(1, c);
    return part;
}

// A pointer as messages write it: "variables[3].count".
std::string pathOf(const json& root, const std::string& pointer)
{
    std::string path;
    const json* value = &root;
    for (std::size_t at = 0; at < pointer.size();) {
        const std::size_t end = std::min(pointer.find('/', at + 1), pointer.size());
        const json::json_pointer part(pointer.substr(at, end - at));
        if (value->is_array())
            path += '[' + part.back() + ']';
        else
            path += (path.empty() ? "" : ".") + part.back();
        value = &value->at(part);
        at = end;
    }
    return path;
}

// The library's message without the number and the place with which it starts. It quotes the text
// at which it stopped, however long.
std::string reasonOf(const json::exception& error, const char* begin)
{
    const std::size_t kLongestReason = 250;
    const std::string what = error.what();
    const std::size_t at = what.find(begin);
    return shortened(at == std::string::npos ? what : what.substr(at), kLongestReason);
}

// A value or a key came where only a comma or the end of the object or array can be.
bool lacksComma(const std::string& reason)
{
    const auto has = [&reason](const char* text) { return reason.find(text) != std::string::npos; };
    const bool atEnd = has("; expected '}'") || has("; expected ']'");
    return atEnd &&
           (has("unexpected string literal") || has("unexpected number literal") ||
            has("unexpected true literal") || has("unexpected false literal") ||
            has("unexpected null literal") || has("unexpected '{'") || has("unexpected '['"));
}

struct CloseFile
{
    void operator()(std::FILE* file) const { std::fclose(file); }
};

[[noreturn]] void failToRead(const std::string& path)
{
    throw UserError(path + ": cannot be read: " + std::strerror(errno != 0 ? errno : EIO) +
                    " (check the path)");
}

// The parser would take a byte 00 for the end of the file and drop what follows.
void refuseZeroByte(const std::string& text, const std::string& name)
{
    const std::size_t at = text.find('\0');
    if (at == std::string::npos)
        return;
    const Place place = placeOf(text, at + 1);
    throw JsonMistake(name, ':' + place.text() + ": a byte 00 (save the file as UTF-8 text)", "",
                      place.line);
}

/// Builds the value while the parser reads. The library's own builder keeps the last of two equal
/// keys, and with a callback it needs the square of an array's length.
class Builder : public nlohmann::json_sax<json>
{
public:
    Builder(const std::string& text, const std::string& name) : m_text(text), m_name(name) {}

    json takeRoot() { return std::move(m_root); }

    bool null() override { return add(json()) != nullptr; }
    bool boolean(bool value) override { return add(value) != nullptr; }
    bool number_integer(std::int64_t value) override { return add(value) != nullptr; }
    bool number_unsigned(std::uint64_t value) override { return add(value) != nullptr; }
    bool number_float(double value, const std::string&) override { return add(value) != nullptr; }
    bool string(std::string& value) override { return add(std::move(value)) != nullptr; }
    bool binary(json::binary_t&) override { return false; } // not in text
    bool start_object(std::size_t) override { return open(json::object()); }
    bool start_array(std::size_t) override { return open(json::array()); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(std::string& key) override
    {
        const auto [place, isNew] = m_open.back().value->emplace(key, json());
        if (!isNew) {
            const std::string way = pathOf(m_root, pointer());
            throw JsonMistake(m_name,
                              ": " + (way.empty() ? "" : way + ": ") + "the key " + inQuotes(key) +
                                  " is given twice (remove one)",
                              pointer() + pointerPart(key));
        }
        m_open.back().key = std::move(key);
        m_open.back().next = &*place;
        return true;
    }

    bool parse_error(std::size_t byte, const std::string&, const json::exception& error) override
    {
        const bool number = dynamic_cast<const json::out_of_range*>(&error) != nullptr;
        const std::string reason = reasonOf(error, number ? "number overflow" : "syntax error");
        const Place place = placeOf(m_text, byte);
        throw JsonMistake(m_name,
                          ':' + place.text() + ": " + reason +
                              (lacksComma(reason) ? " (is a comma missing?)" : ""),
                          "", place.line);
    }

private:
    /// An array or object that is not closed yet.
    struct Level
    {
        json* value;
        json* next; ///< of an object: where the value of the key goes
        std::string key;
    };

    template<typename Value> json* add(Value&& value)
    {
        if (m_open.empty()) {
            m_root = std::forward<Value>(value);
            return &m_root;
        }
        Level& level = m_open.back();
        if (!level.value->is_array()) {
            *level.next = std::forward<Value>(value);
            return level.next;
        }
        return &level.value->emplace_back(std::forward<Value>(value));
    }
    // No valid file is nested so deep, and the function that prints a value is recursive.
    bool open(json value)
    {
        constexpr std::size_t kDeepest = 64;
        if (m_open.size() == kDeepest)
            throw JsonMistake(
                m_name, ": brackets are nested more than " + std::to_string(kDeepest) + " deep",
                "");
        json* const added = add(std::move(value));
        m_open.push_back({added, nullptr, std::string()});
        return true;
    }
    bool close()
    {
        m_open.pop_back();
        return true;
    }
    // Of the object that was opened last.
    std::string pointer() const
    {
        std::string pointer;
        for (std::size_t i = 0; i + 1 < m_open.size(); ++i) {
            const json& value = *m_open[i].value;
            pointer += value.is_array() ? '/' + std::to_string(value.size() - 1)
                                        : pointerPart(m_open[i].key);
        }
        return pointer;
    }

    const std::string& m_text;
    const std::string& m_name;
    json m_root;
    std::vector<Level> m_open;
};

json parsed(const std::string& text, const std::string& name)
{
    if (text.find_first_not_of(" \t\r\n") == std::string::npos)
        throw JsonMistake(name, ": is empty (a JSON object is expected)", "");
    Builder builder(text, name);
    json::sax_parse(text, &builder, json::input_format_t::json, true, true);
    return builder.takeRoot();
}

} // namespace

// Devices and pipes have no size, so that the bytes are counted as they come.
std::string fileContent(const std::string& path)
{
    constexpr std::size_t kLargestFile = std::size_t{64} << 20;
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "rb"));
    if (!file)
        failToRead(path);
    std::string text;
    std::array<char, 65536> part{};
    std::size_t got = part.size();
    while (got == part.size() && text.size() <= kLargestFile) {
        got = std::fread(part.data(), 1, part.size(), file.get());
        text.append(part.data(), got);
    }
    if (std::ferror(file.get()) != 0)
        failToRead(path);
    if (text.size() > kLargestFile)
        throw UserError(path + ": is longer than 64 MB (divide it into several files)");
    return text;
}

struct JsonNode::Document
{
    json root;
    std::string file;
};

JsonNode::JsonNode(std::shared_ptr<const Document> document, const json* value, std::string pointer)
    : m_document(std::move(document)), m_value(value), m_pointer(std::move(pointer))
{
}

JsonNode JsonNode::fromFile(const std::string& path)
{
    return fromText(fileContent(path), path);
}

JsonNode JsonNode::fromText(const std::string& text, const std::string& name)
{
    refuseZeroByte(text, name);
    const auto document = std::make_shared<const Document>(Document{parsed(text, name), name});
    return JsonNode(document, &document->root, "");
}

JsonMistake JsonNode::mistake(const std::string& what, const std::string& pointer) const
{
    const std::string path = pathOf(m_document->root, m_pointer);
    return {m_document->file, ": " + (path.empty() ? what : path + ": " + what), pointer};
}

void JsonNode::fail(const std::string& what) const
{
    throw JsonMistake(mistake(what, m_pointer));
}

std::string JsonNode::found() const
{
    const std::size_t kLongestQuote = 60;
    return shortened(m_value->dump(-1, ' ', false, json::error_handler_t::replace), kLongestQuote);
}

void JsonNode::expectKeys(const std::vector<std::string>& keys) const
{
    expectKeys(keys, [](const JsonMistake& mistake) { throw JsonMistake(mistake); });
}

void JsonNode::expectKeys(const std::vector<std::string>& keys,
                          const std::function<void(const JsonMistake&)>& report) const
{
    if (!m_value->is_object())
        fail(found() + " is not an object { ... }");
    for (auto item = m_value->begin(); item != m_value->end(); ++item) {
        if (std::find(keys.begin(), keys.end(), item.key()) != keys.end())
            continue;
        std::string allowed;
        for (const std::string& key : keys)
            allowed += (allowed.empty() ? "" : ", ") + key;
        const std::string guess = didYouMean(item.key(), keys);
        report(mistake("unknown key " + inQuotes(item.key()) +
                           (guess.empty() ? " (allowed: " + allowed + ')' : guess),
                       m_pointer + pointerPart(item.key())));
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
    return JsonNode(m_document, &(*m_value)[key], m_pointer + pointerPart(key));
}

JsonNode::Elements JsonNode::elements() const
{
    if (!m_value->is_array())
        fail(found() + " is not an array [ ... ]");
    return Elements(*this);
}

std::size_t JsonNode::Elements::size() const
{
    return m_array.m_value->size();
}

JsonNode JsonNode::Elements::operator[](std::size_t index) const
{
    return JsonNode(m_array.m_document, &(*m_array.m_value)[index],
                    m_array.m_pointer + '/' + std::to_string(index));
}

bool JsonNode::isArray() const
{
    return m_value->is_array();
}

bool JsonNode::isText() const
{
    return m_value->is_string();
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
