// The reference host with one damaged byte at every position of every request and reply of a
// session, on virtual time.

#include "simulated_line.h"

#include "DriverLibrary.h"
#include "PollLoop.h"
#include "fixed_time_of_day.h"

#include <gtest/gtest.h>

namespace {

using namespace micro850;
using micro850::host::Quality;

const char kTags[] = R"({"tags": [{"name": "A", "type": "INT", "value": 4660},
                                  {"name": "B", "type": "DINT", "value": 50466832},
                                  {"name": "W", "type": "INT", "value": 7}]})";
// A session that takes longer is stuck.
const std::chrono::seconds kLimit(60);
// Replies of a session on a good line: two to connect, three for the types, a write, two cyclic
// reads.
const unsigned kReplies = 8;

/// The driver freshly loaded, a new host and a new controller. The session connects, learns the
/// types of three tags, writes the third, and reads the other two cyclically. Only one can exist at
/// a time.
class Session
{
public:
    explicit Session(const std::string& fault)
        : m_line(m_clock, m_controller,
                 sim::faultsFromText("{\"faults\": [" + fault + "]}", "session")),
          m_project(micro850::host::Project::fromText(
              R"({"port": {"timeoutMs": 200}, "stations": [{"number": 1}],
                  "variables": [{"tag": "A"}, {"tag": "B"}]})",
              "session")),
          m_loop(m_library.api(), m_port, m_clock, m_project)
    {
    }

    /// True when everything was read and written.
    bool run()
    {
        const micro850::host::TagKey tag = {1, QStringLiteral("W")};
        const int write = m_loop.write(tag, 0, QByteArray("\x05\x00", 2));
        const Duration begun = m_clock.now();
        while (!(isRead() && m_loop.outcome(write)) && m_clock.now() < begun + kLimit)
            m_loop.step();
        const Duration written = m_clock.now();
        while (!(isRead() && isFreshSince(written)) && m_clock.now() < begun + kLimit)
            m_loop.step();
        m_took = m_clock.now() - begun;
        const micro850::host::Operation* outcome = m_loop.outcome(write);
        const bool present = m_controller.tags().find("W")->elements[0] == Bytes{0x05, 0x00};
        m_lied = outcome && outcome->state == micro850::host::Operation::State::Done && !present;
        return isRead() && isFreshSince(written) && outcome;
    }

    bool showedForeign() const { return m_foreign; }
    bool lied() const { return m_lied; }
    Duration time() const { return m_took; }
    unsigned replies() const { return m_line.messages(sim::Side::Replies); }
    bool wasStruck() const { return !m_line.counts().empty(); }

private:
    bool isRead()
    {
        const std::string first = shown(0);
        const std::string second = shown(1);
        m_foreign = m_foreign || (first != "" && first != "4660");
        m_foreign = m_foreign || (second != "" && second != "50466832");
        return m_loop.quality(0) == Quality::Good && m_loop.quality(1) == Quality::Good;
    }
    bool isFreshSince(Duration time) const
    {
        return m_loop.values().refreshedAt(0) > time && m_loop.values().refreshedAt(1) > time;
    }
    std::string shown(int variable)
    {
        return m_loop.values().wasRead(variable) ? m_loop.values().text(variable).toStdString()
                                                 : "";
    }

    FixedTimeOfDay m_timeOfDay{QTime(12, 0)}; // seeds the driver's random numbers
    micro850::VirtualClock m_clock;
    sim::Controller m_controller{m_clock, sim::TagTable::fromText(kTags, "session")};
    sim::FaultyLine m_line;
    SimulatedLine m_port{m_clock, m_line};
    micro850::host::DriverLibrary m_library{QStringLiteral(MICRO850_LIBRARY)};
    micro850::host::Project m_project;
    micro850::host::PollLoop m_loop;
    bool m_foreign = false;
    bool m_lied = false;
    Duration m_took{0};
};

struct Outcome
{
    int sessions = 0;
    int stuck = 0;   ///< sessions that did not end
    int foreign = 0; ///< sessions that showed a value that the controller never had
    int lied = 0;    ///< a write was reported as done but is not in the controller
    Duration longest{0};
};

/// Runs a session for the damage at each byte of each message of that side.
Outcome disturbed(const std::string& damage, const std::string& side)
{
    Outcome outcome;
    for (unsigned message = 1; message <= kReplies; ++message) {
        for (int byte = 1;; ++byte) {
            Session session("{" + damage + ", \"on\": \"" + side + "\", \"message\": " +
                            std::to_string(message) + ", \"byte\": " + std::to_string(byte) + "}");
            const bool ended = session.run();
            if (!session.wasStruck()) // after the message's end
                break;
            ++outcome.sessions;
            outcome.stuck += !ended;
            outcome.foreign += session.showedForeign();
            outcome.lied += session.lied();
            outcome.longest = std::max(outcome.longest, session.time());
        }
    }
    return outcome;
}

class HostWithADamagedByte : public ::testing::TestWithParam<std::pair<const char*, const char*>>
{
};

TEST_P(HostWithADamagedByte, InAReplyShowsNoForeignValueAndRecovers)
{
    const Outcome outcome = disturbed(GetParam().second, "replies");
    EXPECT_EQ(outcome.sessions, 279);
    EXPECT_EQ(outcome.stuck, 0);
    EXPECT_EQ(outcome.foreign, 0);
    EXPECT_EQ(outcome.lied, 0);
    // The host repeats the request within one time-out of 200 ms.
    EXPECT_LE(outcome.longest, std::chrono::milliseconds(250));
}

TEST_P(HostWithADamagedByte, InARequestNeverExecutesAnotherRequestAndRecovers)
{
    const Outcome outcome = disturbed(GetParam().second, "requests");
    EXPECT_EQ(outcome.sessions, 280);
    EXPECT_EQ(outcome.stuck, 0);
    EXPECT_EQ(outcome.foreign, 0);
    EXPECT_EQ(outcome.lied, 0);
    // The host repeats a refused request after one time-out at most.
    EXPECT_LE(outcome.longest, std::chrono::milliseconds(250));
}

using Damage = std::pair<const char*, const char*>;

INSTANTIATE_TEST_SUITE_P(
    EveryByte, HostWithADamagedByte,
    ::testing::Values(Damage("LowBitFlipped", R"("fault": "flip", "bit": 0)"),
                      Damage("HighBitFlipped", R"("fault": "flip", "bit": 7)"),
                      Damage("BitThatMakesADleFlipped", R"("fault": "flip", "bit": 4)"),
                      Damage("Lost", R"("fault": "lose")"),
                      Damage("Doubled", R"("fault": "double")"),
                      Damage("ZeroInserted", R"("fault": "insert", "bytes": "00")"),
                      Damage("DleInserted", R"("fault": "insert", "bytes": "10")"),
                      Damage("EtxInserted", R"("fault": "insert", "bytes": "10 03")"),
                      Damage("StxInserted", R"("fault": "insert", "bytes": "10 02")")),
    [](const auto& given) { return std::string(given.param.first); });

TEST(HostSession, NeedsEightRepliesOnAGoodLine)
{
    Session calm("");
    EXPECT_TRUE(calm.run());
    // The values of the last reply are shown while the next request is on its way.
    EXPECT_EQ(calm.replies(), kReplies + 1);
    EXPECT_LE(calm.time(), std::chrono::milliseconds(20));
}

} // namespace
