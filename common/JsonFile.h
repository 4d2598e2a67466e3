#ifndef MICRO850_COMMON_JSONFILE_H
#define MICRO850_COMMON_JSONFILE_H

#include "UserError.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace micro850 {

/// What is wrong in a JSON file, with its place: `FILE: variables[3].count: 0 is not allowed`.
class JsonMistake : public UserError
{
public:
    /// `text` follows the file's name. `line` is 0 where only the pointer is known.
    JsonMistake(const std::string& file, const std::string& text, std::string pointer, int line = 0)
        : UserError(file + text), m_text(text), m_pointer(std::move(pointer)), m_line(line)
    {
    }

    /// The message after the name of the file: ": variables[3].count: 0 is not allowed".
    const std::string& text() const { return m_text; }
    /// The JSON pointer of the value: "/variables/3/count".
    const std::string& pointer() const { return m_pointer; }
    /// Of a mistake in the syntax, whose text names it; else 0.
    int line() const { return m_line; }

private:
    std::string m_text;
    std::string m_pointer;
    int m_line;
};

/// A value in a JSON file together with its place, so that every message names file and key path.
/// All functions throw JsonMistake: `plant.json: variables[3].count: 0 is not allowed (1 to 1000)`.
///
/// A file is read only as a whole and only if it has one meaning: a key that is given twice in an
/// object, a byte 00, deep nesting and a file of more than 64 MB are refused.
class JsonNode
{
public:
    class Elements;

    /// The file's top level; // comments are allowed. A syntax error names line and column.
    static JsonNode fromFile(const std::string& path);
    /// The same from a text; messages call it `name`.
    static JsonNode fromText(const std::string& text, const std::string& name);

    /// Throws unless this is an object whose keys are all among `keys`.
    void expectKeys(const std::vector<std::string>& keys) const;
    /// The same, and every key that is not among them is reported.
    void expectKeys(const std::vector<std::string>& keys,
                    const std::function<void(const JsonMistake&)>& report) const;
    bool has(const std::string& key) const;
    /// The value of a key that must be there.
    JsonNode at(const std::string& key) const;
    /// The elements of an array.
    Elements elements() const;
    bool isArray() const;
    bool isText() const;
    /// The value itself; lives as long as the node.
    const nlohmann::json& value() const { return *m_value; }

    std::string text() const;
    bool boolean() const;
    double number() const;
    std::int64_t integer(std::int64_t least, std::int64_t most) const;
    /// A text without its quotes; a number or true/false as the file writes it.
    std::string scalar() const;

    /// The same for a key, or the default where the key is absent.
    std::string text(const std::string& key, const std::string& absent) const;
    bool boolean(const std::string& key, bool absent) const;
    double number(const std::string& key, double absent) const;
    std::int64_t integer(const std::string& key, std::int64_t least, std::int64_t most,
                         std::int64_t absent) const;

    /// Throws `FILE: PATH: what`.
    [[noreturn]] void fail(const std::string& what) const;
    /// The value as the file writes it, shortened for a message.
    std::string found() const;

private:
    struct Document;
    JsonNode(std::shared_ptr<const Document> document, const nlohmann::json* value,
             std::string pointer);
    JsonMistake mistake(const std::string& what, const std::string& pointer) const;

    std::shared_ptr<const Document> m_document;
    const nlohmann::json* m_value;
    std::string m_pointer;
};

/// The content of a file, a device or a pipe. Throws UserError when it cannot be read or is longer
/// than 64 MB.
std::string fileContent(const std::string& path);

/// The elements of an array. Each node is made when it is asked for: an array may have millions.
class JsonNode::Elements
{
public:
    class Iterator
    {
    public:
        Iterator(const Elements& elements, std::size_t at) : m_elements(elements), m_at(at) {}
        JsonNode operator*() const { return m_elements[m_at]; }
        Iterator& operator++()
        {
            ++m_at;
            return *this;
        }
        bool operator!=(const Iterator& other) const { return m_at != other.m_at; }

    private:
        const Elements& m_elements;
        std::size_t m_at;
    };

    explicit Elements(JsonNode array) : m_array(std::move(array)) {}

    std::size_t size() const;
    bool empty() const { return size() == 0; }
    JsonNode operator[](std::size_t index) const;
    Iterator begin() const { return {*this, 0}; }
    Iterator end() const { return {*this, size()}; }

private:
    JsonNode m_array;
};

} // namespace micro850

#endif
