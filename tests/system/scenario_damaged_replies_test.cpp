// One damaged byte at every position of every reply of a session, and replies that are complete but
// arrive in an unusual way.

#include "scenario_fixture.h"

#include <set>

namespace {

const char kFirstValue[] = "34 12";
const char kSecondValue[] = "10 10 02 03";
const char kWritten[] = "05 00";

class DamagedReplies : public ScenarioTest
{
protected:
    DamagedReplies()
    {
        defineTags(R"({"name": "A", "type": "INT", "value": 4660},
                 {"name": "B", "type": "DINT", "value": 50466832},
                 {"name": "W", "type": "INT"})");
    }

    /// Connects, polls two tags and writes a third. Returns the number of calls of the driver until
    /// both tags are read and the write has left the queue; -1 if that does not happen.
    int session(const std::string& rule = "")
    {
        restart();
        faults(rule);
        for (const char* tag : {"A", "B", "W"})
            declareIndexed(tag);
        pollCyclically({{"A", 0, 1}, {"B", 0, 2}});
        write("W", wire::hex(kWritten));
        const bool read =
            transactUntil([&] { return isRead() && PLC_driver.writeList.isEmpty(); }, 60) >= 0;
        return read ? calls : -1;
    }
    bool isRead()
    {
        const std::string first = shown("A");
        const std::string second = shown("B", 2);
        foreignValues += first != "none" && first != kFirstValue;
        foreignValues += second != "none" && second != kSecondValue;
        const std::string written = shown("W");
        foreignValues += written != "none" && written != "00 00" && written != kWritten;
        return first == kFirstValue && second == kSecondValue;
    }
    /// False if a write was reported as done but is not in the controller.
    bool reportIsTrue()
    {
        return finished.empty() || finished[0].status == 2 || inController("W") == kWritten;
    }

    /// What happened in a number of sessions.
    struct Outcome
    {
        int sessions = 0;
        int stuck = 0;   ///< the driver never polled again
        int foreign = 0; ///< the driver showed a value that the controller never had
        int lied = 0;    ///< a write was reported as done but is not in the controller
        int silent = 0;  ///< the result of the write was never reported
        int mostCalls = 0;
        bool operator==(const Outcome& other) const
        {
            return sessions == other.sessions && stuck == other.stuck && foreign == other.foreign &&
                   lied == other.lied && silent == other.silent && mostCalls == other.mostCalls;
        }
        friend std::ostream& operator<<(std::ostream& out, const Outcome& outcome)
        {
            return out << outcome.sessions << " sessions, " << outcome.stuck << " stuck, "
                       << outcome.foreign << " with a foreign value, " << outcome.lied
                       << " with a write reported wrongly, " << outcome.silent
                       << " with a write never reported, " << outcome.mostCalls << " calls at most";
        }
    };
    /// Runs a session for each damage at each byte of each reply of an undisturbed session.
    Outcome disturb(const std::vector<std::string>& damages)
    {
        EXPECT_GT(session(), 0);
        std::vector<int> sizes;
        for (const Exchange& exchange : exchanges)
            sizes.push_back(exchange.reply.size());
        Outcome outcome;
        for (std::size_t reply = 0; reply < sizes.size(); ++reply) {
            for (int byte = 1; byte <= sizes[reply]; ++byte) {
                for (const std::string& damage : damages)
                    note(outcome, "{" + damage + ", \"message\": " + std::to_string(reply + 1) +
                                      ", \"byte\": " + std::to_string(byte) + "}");
            }
        }
        return outcome;
    }

    int foreignValues = 0;

private:
    void note(Outcome& outcome, const std::string& rule)
    {
        const int took = session(rule);
        ++outcome.sessions;
        outcome.stuck += took < 0;
        outcome.lied += !reportIsTrue();
        outcome.silent += finished.empty();
        outcome.foreign += foreignValues != 0;
        foreignValues = 0;
        outcome.mostCalls = std::max(outcome.mostCalls, took);
    }
};

/// Faults that flip each of the eight bits.
std::vector<std::string> flips()
{
    std::vector<std::string> all;
    for (int bit = 0; bit < 8; ++bit)
        all.push_back(R"("fault": "flip", "bit": )" + std::to_string(bit));
    return all;
}

const std::vector<std::string> kLostDoubledInserted = {R"("fault": "lose")", R"("fault": "double")",
                                                       R"("fault": "insert", "bytes": "10")",
                                                       R"("fault": "insert", "bytes": "FF")"};
const std::vector<std::string> kZeroInserted = {R"("fault": "insert", "bytes": "00")"};

// If the damage costs the connection before the write is sent, the write is dropped with it and not
// reported.
TEST_F(DamagedReplies, AHostThatChecksEachReplyRecoversFromAnyFlippedBit)
{
    accepts = isAnswerTo;
    EXPECT_EQ(disturb(flips()), (Outcome{1752, 0, 0, 0, 224, 40}));
}

TEST_F(DamagedReplies, AHostThatChecksEachReplyRecoversFromAnyLostDoubledOrInsertedByte)
{
    accepts = isAnswerTo;
    EXPECT_EQ(disturb(kLostDoubledInserted), (Outcome{876, 0, 0, 0, 111, 40}));
    EXPECT_EQ(disturb(kZeroInserted), (Outcome{219, 0, 0, 0, 28, 40}));
}

// The driver checks only the end of the replies of the connection set-up. With a damaged connection
// identifier the controller answers "connection not found", which counts as an answer.
TEST_F(DamagedReplies, ADamagedConnectionIdentifierStopsADriverWhoseHostDoesNotCheckAsDocumented)
{
    EXPECT_EQ(disturb(flips()), (Outcome{1752, 16, 0, 16, 216, 41}));
}

// In addition to shifted identifiers: in two sessions the second byte of the DLE ACK before a value
// is lost, so that the driver reads the value one byte too late.
TEST_F(DamagedReplies, AShiftedReplyStopsOrMisleadsADriverWhoseHostDoesNotCheckAsDocumented)
{
    EXPECT_EQ(disturb(kLostDoubledInserted), (Outcome{876, 64, 2, 63, 104, 41}));
}

// The CRC starts at 0, so that bytes 00 before a message do not change it.
TEST_F(DamagedReplies, AZeroBeforeTheDataShiftsTheStoredValueWhenTheHostDoesNotCheckAsDocumented)
{
    EXPECT_EQ(disturb(kZeroInserted), (Outcome{219, 19, 2, 18, 27, 41}));
}

TEST_F(DamagedReplies, RepliesInSingleBytesWithPausesAreAcceptedLikeAnyOther)
{
    const int calm = session();
    EXPECT_EQ(session(R"({"fault": "split", "rate": 1, "seconds": 0.004})"), calm);
    EXPECT_EQ(line().counts().size(), 1u);
}

TEST_F(DamagedReplies, TheSecondCopyOfAReplyIsDiscardedBeforeTheNextRequest)
{
    const int calm = session();
    EXPECT_EQ(session(R"({"fault": "duplicate", "rate": 1})"), calm);
    EXPECT_EQ(foreignValues, 0);
}

const char kNakInFront[] = R"({"fault": "nak", "message": 3})";
const char kStrayAck[] = R"({"fault": "insert", "message": 3, "byte": 1, "bytes": "10 06"})";

TEST_F(DamagedReplies, AHostThatSearchesForTheFrameSkipsANakOrAStrayAckBeforeAReply)
{
    const int calm = session();
    looksForFrame = true;
    EXPECT_EQ(session(kNakInFront), calm);
    EXPECT_EQ(session(kStrayAck), calm);
}

// The driver counts offsets from the acknowledgement before the frame.
TEST_F(DamagedReplies, ANakOrAStrayAckBeforeAReplyMakesItCorruptForTheDriverAsDocumented)
{
    EXPECT_EQ(session(kNakInFront), 32);
    EXPECT_EQ(session(kStrayAck), 32);
    EXPECT_EQ(foreignValues, 0);
}

// A full-duplex peer may send a response within its message.
TEST_F(DamagedReplies, AnAckWithinAReplyMakesItCorruptForTheDriverAsDocumented)
{
    EXPECT_EQ(session(R"({"fault": "insert", "message": 3, "byte": 6, "bytes": "10 06"})"), 32);
    EXPECT_EQ(foreignValues, 0);
}

} // namespace
