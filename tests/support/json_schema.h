#ifndef MICRO850_TESTS_JSON_SCHEMA_H
#define MICRO850_TESTS_JSON_SCHEMA_H

// Published schemas and the parsers of the same files have to accept and refuse the same. Documents
// are made from the schema itself, so that a key or a limit that only one of them knows is found.

#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

namespace schema {

using nlohmann::json;

/// The content of a schema in share/micro850/.
json fileNamed(const char* name);

/// Whether the schema accepts the value. A keyword that this does not know is a failure.
bool accepts(const json& schema, const json& value);

/// Values for a property, good and bad, at its limits and of every other type.
std::vector<json> candidates(const json& property);

/// What the parser says of a document; empty when it accepts it.
using Parser = std::function<std::string(const json& document)>;
/// Whether it is beyond a schema what the parser demands of this value of a property.
using Beyond = std::function<bool(const std::string& key, const json& value)>;

/// Puts each candidate of each property into the object at `place` of the document, and compares.
void compareAll(const json& schema, const json& objectSchema, const json& document,
                const json::json_pointer& place, const Parser& complaint, const Beyond& isBeyond);

/// Checks that the keys which the parser names as allowed for the object at `place` are those of
/// the schema.
void compareKeys(const json& objectSchema, const json& document, const json::json_pointer& place,
                 const Parser& complaint);

} // namespace schema

#endif
