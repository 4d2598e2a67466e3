#include "sessions.h"

#include "world.h"

#include <array>
#include <functional>
#include <string_view>
#include <unordered_set>

namespace sessions {

namespace {

enum class Start { Fresh, ClassKnown, ClassUnknown, HalfSetUp, LastNumber, OneFailure, LongBursts };

const char* nameOf(Start start)
{
    static const char* names[] = {"fresh",        "class known", "class unknown", "half set up",
                                  "number 65535", "one failure", "long bursts"};
    return names[static_cast<int>(start)];
}

/// What the sessions of one job have in common.
struct Plan
{
    int stations;
    std::string tags;
    int length;
    Start start;
    bool stationsPerVariable;
    int writeMode;
};

// Two hashes of all bytes of a state.
struct Key
{
    std::size_t first, second;
    bool operator==(const Key& o) const { return first == o.first && second == o.second; }
};

struct KeyHash
{
    std::size_t operator()(const Key& key) const { return key.first; }
};

Key keyOf(const std::string& bytes)
{
    static std::string salted;
    salted.assign(bytes).append("salt");
    const std::hash<std::string_view> hash;
    return {hash(bytes), hash(salted)};
}

/// A state, and the steps that led to it.
struct Node
{
    State state;
    std::vector<unsigned char> path;
};

class Search
{
public:
    explicit Search(const Plan& plan)
        : m_plan(plan), m_world(plan.tags, plan.stationsPerVariable, plan.writeMode),
          m_steps(allSteps(plan.stations, plan.tags)), m_counts(Counts)
    {
    }

    workers::Outcome run()
    {
        if (prepare())
            searchFrom({m_world.state(), {}});
        if (m_difference.empty()) {
            m_counts[Sessions] = 1;
            for (int i = 0; i < m_plan.length; ++i)
                m_counts[Sessions] *= m_steps.size();
        }
        return {m_counts, m_difference};
    }

private:
    // ---- Where the sessions start

    bool prepare()
    {
        switch (m_plan.start) {
        case Start::Fresh:
            return true;
        case Start::HalfSetUp:
            return make({Act::ReadCyclically, 1, m_plan.tags[0]}) && make({Act::Good});
        case Start::ClassUnknown:
            return connectAll();
        case Start::ClassKnown:
            return connectAll() && learnAll();
        case Start::LastNumber:
            if (!connectAll() || !learnAll())
                return false;
            m_world.setNumbers(0xFFFF);
            return true;
        case Start::OneFailure:
            return connectAll() && learnAll() && failOnce();
        default:
            return connectAll() && learnAll() && burst(Act::Write) && burst(Act::ReadOnce);
        }
    }
    bool connectAll()
    {
        for (int station = 1; station <= m_plan.stations; ++station) {
            if (!make({Act::ReadCyclically, station, m_plan.tags[0]}) || !make({Act::Good}) ||
                !make({Act::Good}) || !make({Act::RebuildEmpty}))
                return false;
        }
        return true;
    }
    bool learnAll()
    {
        for (int station = 1; station <= m_plan.stations; ++station) {
            for (char tag : m_plan.tags) {
                if (!make({Act::ReadCyclically, station, tag}) || !make({Act::Good}) ||
                    !make({Act::RebuildEmpty}))
                    return false;
            }
        }
        return true;
    }
    // A reply is intact when it is looked at, gone when it is to be taken, and there again.
    bool failOnce()
    {
        return make({Act::ReadCyclically, 1, m_plan.tags[0]}) && make({Act::GoodLook}) &&
               make({Act::Silence}) && make({Act::Good}) && make({Act::RebuildEmpty});
    }
    // One less than are served in a row.
    bool burst(Act act)
    {
        for (int i = 0; i < 4; ++i) {
            if (!make({act, 1, m_plan.tags[0]}) || !make({Act::Good}))
                return false;
        }
        return true;
    }
    bool make(const Step& step)
    {
        const State from = m_world.state();
        if (!m_world.take(from, step))
            return differ(from, step, {}, false);
        m_made.push_back(step);
        return true;
    }

    // ---- All that follow

    // Breadth first: a state that was reached with fewer steps is not searched again.
    void searchFrom(const Node& start)
    {
        std::vector<Node> level{start};
        for (int depth = 0; depth < m_plan.length && m_difference.empty(); ++depth) {
            std::vector<Node> next;
            for (const Node& node : level) {
                if (!takeAll(node, depth + 1 < m_plan.length ? &next : nullptr))
                    return;
            }
            level.swap(next);
        }
    }
    bool takeAll(const Node& node, std::vector<Node>* next)
    {
        for (std::size_t i = 0; i < m_steps.size(); ++i) {
            ++m_counts[Steps];
            if (!m_world.take(node.state, m_steps[i]))
                return differ(node.state, m_steps[i], node.path, false);
            if (!m_known.insert(keyOf(m_world.key())).second)
                continue;
            ++m_counts[States];
            if (!m_world.fetch(m_plan.stations, m_plan.tags, m_counts[Fetched]))
                return differ(node.state, m_steps[i], node.path, true);
            if (next) {
                next->push_back({m_world.state(), node.path});
                next->back().path.push_back(static_cast<unsigned char>(i));
            }
        }
        return true;
    }

    // Makes the step again, to say what differs.
    bool differ(const State& from, const Step& step, const std::vector<unsigned char>& path,
                bool fetching)
    {
        m_difference = std::string("Driver and model differ. Start: ") + nameOf(m_plan.start) +
                       (m_plan.stationsPerVariable ? ", stations per variable" : ", one station") +
                       (m_plan.writeMode == 2 ? ", writes queued" : ", writes not queued") +
                       "\nSteps:";
        for (const Step& made : m_made)
            m_difference += " " + ::nameOf(made) + ";";
        for (unsigned char made : path)
            m_difference += " " + ::nameOf(m_steps[made]) + ";";
        m_difference += " " + ::nameOf(step) + (fetching ? "; fetch\n" : "\n");
        m_world.makeReadable();
        m_world.take(from, step);
        std::uint64_t fetched = 0;
        if (fetching)
            m_world.fetch(m_plan.stations, m_plan.tags, fetched);
        m_difference += m_world.difference();
        return false;
    }

    const Plan m_plan;
    World m_world;
    const std::vector<Step> m_steps;
    std::vector<Step> m_made;
    std::unordered_set<Key, KeyHash> m_known;
    std::vector<std::uint64_t> m_counts;
    std::string m_difference;
};

} // namespace

std::vector<workers::Job> jobs(int stations, const std::string& tags, int length)
{
    std::vector<workers::Job> jobs;
    for (Start start : {Start::Fresh, Start::ClassKnown, Start::ClassUnknown, Start::HalfSetUp,
                        Start::LastNumber, Start::OneFailure, Start::LongBursts})
    {
        for (bool perVariable : {false, true}) {
            for (int writeMode : {2, 0}) {
                const Plan plan = {stations, tags, length, start, perVariable, writeMode};
                jobs.emplace_back([plan] { return Search(plan).run(); });
            }
        }
    }
    return jobs;
}

} // namespace sessions
