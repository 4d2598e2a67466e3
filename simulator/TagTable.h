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

/// How a tag moves by itself. Numbers go from `least` to `most` within `period`.
struct Motion
{
    enum Kind {
        Ramp,    ///< up, then back to the least at once
        Sine,    ///< around the middle
        Counter, ///< one more each period, from `least`, back to it behind `most`
        Toggle   ///< false and true, each for one period
    };
    Kind kind = Ramp;
    double least = 0;
    double most = 100;
    Duration period{1000000};
};

/// One tag: an array of elements (a scalar has one) of one type, each with its bytes on the wire.
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
    /// Reads a tag file. Throws UserError naming file, key and remedy.
    static TagTable fromFile(const std::string& path);
    static TagTable fromText(const std::string& text, const std::string& name);

    /// The tag, or null.
    const Tag* find(const std::string& name) const;
    Tag* find(const std::string& name);
    const std::map<std::string, Tag>& tags() const { return m_tags; }
    /// Adds a tag, or replaces the one of its name, as a program download does.
    void put(Tag tag);
    void remove(const std::string& name);

    /// Brings the tags that move to their values at `elapsed` since the start.
    void move(Duration elapsed);
    /// All values as they were at the start.
    void reset();

private:
    static TagTable fromNode(const JsonNode& root);

    std::map<std::string, Tag> m_tags;
};

} // namespace micro850::sim

#endif
