// One damaged byte at every position of every reply of a session, and replies that come oddly but
// whole.

#include "scenario_fixture.h"

#include <set>

namespace {

const char kFirstValue[] = "34 12";
const char kSecondValue[] = "10 10 02 03";
const char kWritten[] = "05 00";

class CorruptionScenario : public ScenarioTest
{
protected:
    CorruptionScenario()
    {
        defineTags(R"({"name": "A", "type": "INT", "value": 4660},
                 {"name": "B", "type": "DINT", "value": 50466832},
                 {"name": "W", "type": "INT"})");
    }

    /// Connects, polls two tags and writes a third. The number of calls of the driver's entry
    /// points until all is read, the write reported, and both tags read once more; -1 when it never
    /// comes to that.
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
    /// A write that was reported done is in the controller.
    bool writeIsTold()
    {
        return finished.empty() || finished[0].status == 2 || inController("W") == kWritten;
    }

    /// Runs a session for each fault at each byte of each reply of an undisturbed one.
    struct Outcome
    {
        int sessions = 0;
        int stuck = 0;   ///< never polling again
        int foreign = 0; ///< showed a value that the controller does not have
        int lied = 0;    ///< told that a write is done that is not in the controller
        int silent = 0;  ///< never told what became of the write
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
                       << " with a write told wrongly, " << outcome.silent << " never told, "
                       << outcome.mostCalls << " calls at most";
        }
    };
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
        outcome.lied += !writeIsTold();
        outcome.silent += finished.empty();
        outcome.foreign += foreignValues != 0;
        foreignValues = 0;
        outcome.mostCalls = std::max(outcome.mostCalls, took);
    }
};

/// Each bit of the byte.
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

// Wherever the damage costs the connection before the write has gone out, the write is dropped with
// it and nothing is told.
TEST_F(CorruptionScenario, AHostThatChecksEachReplyIsPollingAgainAfterAnyFlippedBit)
{
    accepts = isAnswerTo;
    EXPECT_EQ(disturb(flips()), (Outcome{1752, 0, 0, 0, 224, 40}));
}

TEST_F(CorruptionScenario, AHostThatChecksEachReplyIsPollingAgainAfterAnyLostDoubledOrInsertedByte)
{
    accepts = isAnswerTo;
    EXPECT_EQ(disturb(kLostDoubledInserted), (Outcome{876, 0, 0, 0, 111, 40}));
    EXPECT_EQ(disturb(kZeroInserted), (Outcome{219, 0, 0, 0, 28, 40}));
}

// The replies of the connection set-up are taken by their end alone. A damaged connection
// identifier makes the controller answer "connection not found", which counts as an answer.
TEST_F(CorruptionScenario, ADamagedConnectionIdentifierStopsADriverWhoseHostDoesNotCheckAsIsKnown)
{
    EXPECT_EQ(disturb(flips()), (Outcome{1752, 16, 0, 16, 216, 41}));
}

// Beside the identifiers that are shifted: two sessions in which the second byte of the DLE ACK in
// front of a value is lost, so that the value is looked for one place too far.
TEST_F(CorruptionScenario, AShiftedReplyStopsOrMisleadsADriverWhoseHostDoesNotCheckAsIsKnown)
{
    EXPECT_EQ(disturb(kLostDoubledInserted), (Outcome{876, 64, 2, 63, 104, 41}));
}

// The CRC begins with 0, so that bytes 00 in front of a message do not change it.
TEST_F(CorruptionScenario,
       AZeroInFrontOfTheDataIsStoredAsAShiftedValueWhenTheHostDoesNotCheckAsIsKnown)
{
    EXPECT_EQ(disturb(kZeroInserted), (Outcome{219, 19, 2, 18, 27, 41}));
}

TEST_F(CorruptionScenario, RepliesInSingleBytesWithPausesAreTakenLikeAnyOther)
{
    const int calm = session();
    EXPECT_EQ(session(R"({"fault": "split", "rate": 1, "seconds": 0.004})"), calm);
    EXPECT_EQ(line().counts().size(), 1u);
}

TEST_F(CorruptionScenario, ARepliesSecondCopyIsThrownAwayBeforeTheNextRequest)
{
    const int calm = session();
    EXPECT_EQ(session(R"({"fault": "duplicate", "rate": 1})"), calm);
    EXPECT_EQ(foreignValues, 0);
}

const char kNakInFront[] = R"({"fault": "nak", "message": 3})";
const char kStrayAck[] = R"({"fault": "insert", "message": 3, "byte": 1, "bytes": "10 06"})";

TEST_F(CorruptionScenario, ANakOrAStrayAckInFrontOfAReplyIsPassedOverByAHostThatLooksForTheFrame)
{
    const int calm = session();
    looksForFrame = true;
    EXPECT_EQ(session(kNakInFront), calm);
    EXPECT_EQ(session(kStrayAck), calm);
}

// Offsets count from the acknowledgement in front of the frame.
TEST_F(CorruptionScenario, ANakOrAStrayAckInFrontOfAReplyMakesItCorruptToTheDriverAsIsKnown)
{
    EXPECT_EQ(session(kNakInFront), 32);
    EXPECT_EQ(session(kStrayAck), 32);
    EXPECT_EQ(foreignValues, 0);
}

// A full-duplex peer may put a response into the message that it is sending.
TEST_F(CorruptionScenario, AnAckWithinAReplyMakesItCorruptToTheDriverAsIsKnown)
{
    EXPECT_EQ(session(R"({"fault": "insert", "message": 3, "byte": 6, "bytes": "10 06"})"), 32);
    EXPECT_EQ(foreignValues, 0);
}

} // namespace
