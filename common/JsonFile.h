#ifndef MICRO850_COMMON_JSONFILE_H
#define MICRO850_COMMON_JSONFILE_H

#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace micro850 {

/// A value in a JSON file together with its place, so that every message names file and key path.
/// All functions throw UserError: `plant.json: variables[3].count: 0 is not allowed (1 to 1000)`.
class JsonNode
{
public:
    /// The file's top level; // comments are allowed. A syntax error names line and column.
    static JsonNode fromFile(const std::string& path);
    /// The same from a text; messages call it `name`.
    static JsonNode fromText(const std::string& text, const std::string& name);

    /// Throws unless this is an object whose keys are all among `keys`.
    void expectKeys(const std::vector<std::string>& keys) const;
    bool has(const std::string& key) const;
    /// The value of a key that must be there.
    JsonNode at(const std::string& key) const;
    /// The elements of an array.
    std::vector<JsonNode> elements() const;
    bool isArray() const;

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

private:
    JsonNode(std::shared_ptr<const nlohmann::json> root, const nlohmann::json* value,
             std::string file, std::string path);
    JsonNode child(const nlohmann::json& value, const std::string& path) const;
    std::string found() const;

    std::shared_ptr<const nlohmann::json> m_root;
    const nlohmann::json* m_value;
    std::string m_file;
    std::string m_path;
};

} // namespace micro850

#endif
