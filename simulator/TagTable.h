#ifndef MICRO850_SIMULATOR_TAGTABLE_H
#define MICRO850_SIMULATOR_TAGTABLE_H

#include "CipType.h"
#include "Clock.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace micro850 {
class JsonNode;
}

namespace micro850::sim {

/// How a tag changes by itself. Its values are between `least` and `most`.
struct Motion
{
    enum Kind {
        Ramp,    ///< rises to `most` within each period, then jumps back to `least`
        Sine,    ///< swings around the middle once each period
        Counter, ///< rises by 1 each period; after `most` it starts again at `least`
        Toggle   ///< false and true, each for one period
    };
    Kind kind = Ramp;
    double least = 0;
    double most = 100;
    Duration period{1000000};
};

/// One tag: its elements, as bytes in the order of the wire. A scalar has one element.
struct Tag
{
    std::string name;
    const CipType* type = nullptr;
    std::vector<Bytes> elements;
    std::vector<Bytes> initial;
    bool readOnly = false;
    std::optional<Motion> motion;
};

/// The tags of one controller.
class TagTable
{
public:
    /// Parses a tag file. Throws UserError that names file, key and remedy.
    static TagTable fromFile(const std::string& path);
    static TagTable fromText(const std::string& text, const std::string& name);

    /// Returns null when there is no such tag.
    const Tag* find(const std::string& name) const;
    Tag* find(const std::string& name);
    const std::map<std::string, Tag>& tags() const { return m_tags; }
    /// Adds a tag, or replaces the one with its name.
    void put(Tag tag);
    void remove(const std::string& name);

    /// Sets the tags that move to their values `elapsed` after the start.
    void move(Duration elapsed);
    /// Sets all tags to their initial values.
    void reset();

private:
    static TagTable fromNode(const JsonNode& root);

    std::map<std::string, Tag> m_tags;
};

} // namespace micro850::sim

#endif
