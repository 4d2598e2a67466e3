#include "JsonPlaces.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
#include <unordered_map>

namespace micro850 {

namespace {

const std::size_t kDeepest = 64;

/// Walks through a text once. It looks only for where values begin, not whether they are right.
class Walker
{
public:
    Walker(const std::string& text, const std::vector<std::string>& pointers) : m_text(text)
    {
        for (const std::string& pointer : pointers)
            m_lines.emplace(pointer, 0);
    }

    void run()
    {
        skipBlanks();
        note(m_at);
        bool good = value();
        while (good && !m_levels.empty()) {
            const Level& level = m_levels.back();
            skipBlanks();
            m_pointer.resize(level.pointerSize);
            if (here() == level.close) {
                ++m_at;
                m_levels.pop_back();
                continue;
            }
            good = (level.index == 0 || comma()) && (level.close == '}' ? member() : element());
        }
    }
    int line(const std::string& pointer) const { return m_lines.at(pointer); }

private:
    char here() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }

    void skipBlanks()
    {
        for (; m_at < m_text.size(); ++m_at) {
            if (m_text.compare(m_at, 2, "//") == 0)
                m_at = std::min(m_text.find('\n', m_at), m_text.size() - 1);
            else if (m_text.compare(m_at, 2, "/*") == 0)
                m_at = std::min(m_text.find("*/", m_at + 2), m_text.size() - 2) + 1;
            else if (std::isspace(static_cast<unsigned char>(m_text[m_at])) == 0)
                return;
        }
    }

    // The line is counted from where the last one was noted.
    void note(std::size_t at)
    {
        const auto found = m_lines.find(m_pointer);
        if (found == m_lines.end())
            return;
        const auto from = m_text.begin() + static_cast<std::ptrdiff_t>(m_counted);
        const auto to = m_text.begin() + static_cast<std::ptrdiff_t>(at);
        m_line += static_cast<int>(std::count(from, to, '\n'));
        m_counted = at;
        found->second = m_line;
    }

    // A value, or the begin of an array or object. False at a mistake.
    bool value()
    {
        skipBlanks();
        switch (here()) {
        case '{':
            return open('}');
        case '[':
            return open(']');
        case '"':
            return !quoted().empty();
        default:
            return word();
        }
    }

    bool open(char close)
    {
        ++m_at;
        m_levels.push_back({close, 0, m_pointer.size()});
        return m_levels.size() <= kDeepest;
    }

    bool word()
    {
        const std::size_t begin = m_at;
        m_at = std::min(m_text.find_first_of(",]}/ \t\r\n", m_at), m_text.size());
        return m_at > begin;
    }

    // With its quotes; empty when it has no end.
    std::string quoted()
    {
        const std::size_t begin = m_at;
        for (++m_at; m_at < m_text.size() && m_text[m_at] != '"'; ++m_at)
            m_at += m_text[m_at] == '\\' ? 1 : 0;
        if (m_at >= m_text.size())
            return std::string();
        ++m_at;
        return m_text.substr(begin, m_at - begin);
    }

    bool key()
    {
        const std::string text = here() == '"' ? quoted() : std::string();
        const nlohmann::json name = nlohmann::json::parse(text, nullptr, false);
        if (!name.is_string())
            return false;
        for (const char c : name.get_ref<const std::string&>())
            m_pointer += c == '~' ? std::string("~0") : c == '/' ? "~1" : std::string(1, c);
        skipBlanks();
        if (here() != ':')
            return false;
        ++m_at;
        return true;
    }

    bool comma()
    {
        const bool good = here() == ',';
        ++m_at;
        skipBlanks();
        return good;
    }
    bool member()
    {
        const std::size_t begin = m_at;
        ++m_levels.back().index;
        m_pointer += '/';
        if (!key())
            return false;
        note(begin);
        return value();
    }
    bool element()
    {
        m_pointer += '/' + std::to_string(m_levels.back().index++);
        note(m_at);
        return value();
    }

    /// An object or an array that is not closed yet.
    struct Level
    {
        char close;
        int index; ///< of its next value
        std::size_t pointerSize;
    };

    const std::string& m_text;
    std::unordered_map<std::string, int> m_lines;
    std::string m_pointer;
    std::vector<Level> m_levels;
    std::size_t m_at = 0;
    std::size_t m_counted = 0;
    int m_line = 1;
};

} // namespace

std::vector<int> linesOf(const std::string& text, const std::vector<std::string>& pointers)
{
    Walker walker(text, pointers);
    walker.run();
    std::vector<int> lines;
    lines.reserve(pointers.size());
    for (const std::string& pointer : pointers)
        lines.push_back(walker.line(pointer));
    return lines;
}

} // namespace micro850
