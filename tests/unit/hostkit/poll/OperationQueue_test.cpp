#include "OperationQueue.h"

#include "fake_driver.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;
using State = Operation::State;
using Queued = std::vector<std::string>;

namespace {

const quint16 kInt = 0xC3;
const TagKey kA = {1, "A"};
const TagKey kB = {1, "B"};

class OperationQueueTest : public ::testing::Test
{
protected:
    OperationQueueTest()
    {
        for (const int number : {1, 2}) {
            StationSettings settings;
            settings.number = number;
            stations.insert(number, Station(settings));
        }
    }

    int add(Operation::Kind kind, const TagKey& key, int element = 0)
    {
        Operation operation;
        operation.kind = kind;
        operation.tag = key;
        operation.element = element;
        operation.value = QByteArray("\x07\x00", 2);
        operation.awaited = true;
        return queue.add(operation);
    }
    int read(const TagKey& key, int element = 0)
    {
        return add(Operation::Kind::Read, key, element);
    }
    int write(const TagKey& key, int element = 0)
    {
        return add(Operation::Kind::Write, key, element);
    }
    int readOnce(int variable, int element)
    {
        Operation operation;
        operation.tag = kA;
        operation.element = element;
        operation.variable = variable;
        return queue.add(operation);
    }
    // Gives what is possible to the driver and returns what it got.
    Queued pump()
    {
        queue.pump(stations);
        return driver.popQueued();
    }
    void finish(int id, bool succeeded, const ReplyStatus& status = ReplyStatus())
    {
        driver.report(id, succeeded);
        queue.endFinished(status);
    }
    std::string outcome(int id) const
    {
        const Operation* operation = queue.outcome(id);
        if (!operation)
            return "under way";
        const std::string error = operation->error.toStdString();
        return operation->state == State::Done      ? "done"
               : operation->state == State::Refused ? "refused: " + error
                                                    : "failed: " + error;
    }

    FakeDriver driver;
    Driver calls{driver.api(), 1, 2};
    micro850::VirtualClock clock;
    Project project;
    ValueStore values{project};
    TypeRegistry types{project, clock, values};
    OperationQueue queue{calls, types};
    QMap<int, Station> stations;
};

} // namespace

TEST_F(OperationQueueTest, DeclaresANameToTheDriverOnce)
{
    queue.declare(kA);
    read(kA);
    queue.declare(kB);
    EXPECT_EQ(driver.declared, (Queued{"A", "B"}));
}

TEST_F(OperationQueueTest, GivesTheDriverOneOperationOfAStationAtATime)
{
    for (const TagKey& key : {kA, kB, TagKey{2, "C"}}) {
        queue.declare(key);
        types.learn(key, kInt);
    }
    const int first = read(kA, 3);
    write(kB);
    read({2, "C"});
    EXPECT_EQ(pump(), (Queued{"read A[3] x1 #1", "read C[0] x1 #3"}));
    EXPECT_EQ(pump(), Queued());
    finish(first, true);
    EXPECT_EQ(outcome(first), "done");
    EXPECT_EQ(pump(), Queued{"write B[0] x1 #2"});
}

TEST_F(OperationQueueTest, LearnsTheTypeBeforeTheOperationThatNeedsIt)
{
    const int wanted = write(kA, 5);
    const int other = write(kA, 6);
    EXPECT_EQ(pump(), Queued{"learn A[0] x1 #3"});
    EXPECT_EQ(types.tag(kA).state, Tag::State::Asking);
    types.learn(kA, kInt);
    finish(3, true);
    EXPECT_EQ(queue.find(3, kA), nullptr) << "nobody awaits it";
    EXPECT_EQ(pump(), Queued{"write A[5] x1 #1"});
    finish(wanted, true);
    EXPECT_EQ(pump(), Queued{"write A[6] x1 #2"});
    EXPECT_EQ(outcome(other), "under way");
}

TEST_F(OperationQueueTest, RefusesAnOperationWhoseTagWasRefused)
{
    const int id = read(kA);
    pump();
    types.refuseTag(kA, "not there");
    finish(2, true, {"not there", false, Failure()});
    pump();
    EXPECT_EQ(outcome(id), "refused: not there");
}

TEST_F(OperationQueueTest, FailsAnOperationWhoseTypeIsNotLearntInThreeAttempts)
{
    const int id = read(kA);
    for (const int learn : {2, 3, 4}) {
        EXPECT_EQ(pump(), Queued{"learn A[0] x1 #" + std::to_string(learn)});
        finish(learn, false);
    }
    EXPECT_EQ(pump(), Queued());
    EXPECT_EQ(outcome(id), "failed: no answer");
}

TEST_F(OperationQueueTest, LetsTheTypeBeAskedForAgainAfterNoAnswer)
{
    queue.askForType(kA);
    pump();
    finish(1, false);
    EXPECT_EQ(types.tag(kA).state, Tag::State::Unknown);
    EXPECT_EQ(types.tag(kA).retryAt, 1s);
}

TEST_F(OperationQueueTest, RefusesAnOperationThatTheControllerRefused)
{
    queue.declare(kA);
    types.learn(kA, kInt);
    const int id = write(kA);
    pump();
    finish(id, true, {"too much data (status 15)", false, Failure()});
    EXPECT_EQ(outcome(id), "refused: too much data (status 15)");
}

TEST_F(OperationQueueTest, TriesAnOperationThreeTimesWhoseConnectionIsLost)
{
    queue.declare(kA);
    types.learn(kA, kInt);
    const int id = read(kA);
    ReplyStatus lost;
    lost.connectionLost = true;
    for (int attempt = 1; attempt <= 3; ++attempt) {
        EXPECT_EQ(outcome(id), "under way");
        EXPECT_EQ(pump(), Queued{"read A[0] x1 #1"}) << attempt;
        finish(id, false, lost);
    }
    EXPECT_EQ(outcome(id), "failed: no answer");
}

TEST_F(OperationQueueTest, QueuesAWriteAgainThatTheDriverDroppedUnsent)
{
    queue.declare(kA);
    types.learn(kA, kInt);
    write(kA);
    write(kA, 1);
    pump();
    queue.handleDroppedConnection(1, ReplyStatus());
    EXPECT_EQ(pump(), Queued{"write A[0] x1 #1"}) << "before the ones that wait";
}

TEST_F(OperationQueueTest, FailsAWriteThatTheDriverReportsWithTheDroppedConnection)
{
    queue.declare(kA);
    types.learn(kA, kInt);
    const int id = write(kA);
    pump();
    driver.report(id, false);
    queue.handleDroppedConnection(1, ReplyStatus());
    EXPECT_EQ(outcome(id), "failed: no answer");
    EXPECT_EQ(pump(), Queued());
}

TEST_F(OperationQueueTest, LeavesAReadInTheDriverWhenItsConnectionIsDropped)
{
    queue.declare(kA);
    types.learn(kA, kInt);
    const int id = read(kA);
    pump();
    queue.handleDroppedConnection(1, ReplyStatus());
    EXPECT_EQ(pump(), Queued());
    finish(id, true);
    EXPECT_EQ(outcome(id), "done");
}

TEST_F(OperationQueueTest, FailsAllOperationsOfAStationWithTheReason)
{
    queue.declare(kA);
    types.learn(kA, kInt);
    const int inDriver = read(kA);
    const int waiting = read(kA, 1);
    const int elsewhere = read({2, "C"});
    const Failure refusal = {Failure::Cause::Refusal, "refused", "wait"};
    pump();
    queue.failAll(1, refusal);
    EXPECT_EQ(outcome(inDriver), "failed: refused");
    EXPECT_EQ(outcome(waiting), "failed: refused");
    EXPECT_EQ(queue.outcome(waiting)->failure.cause, Failure::Cause::Refusal);
    EXPECT_EQ(queue.outcome(waiting)->failure.remedy, QString("wait"));
    EXPECT_EQ(outcome(elsewhere), "under way");
    finish(inDriver, true); // too late
    EXPECT_EQ(outcome(inDriver), "failed: refused");
}

TEST_F(OperationQueueTest, FailsOperationsOfStationsThatAreOutOfService)
{
    StationSettings off;
    off.enabled = false;
    stations[1] = Station(off);
    StationSettings second;
    second.number = 2;
    stations[2] = Station(second);
    stations[2].failSetUp(false, {Failure::Cause::Refusal, "refused", "wait"});
    stations[2].markDead(clock.now());
    const int disabled = read(kA);
    const int dead = read({2, "C"});
    EXPECT_EQ(pump(), Queued());
    EXPECT_EQ(outcome(disabled), "failed: station 1 is disabled");
    EXPECT_EQ(outcome(dead), "failed: refused");
}

TEST_F(OperationQueueTest, RemovesTheReadsOfAVariableThatWait)
{
    types.declare(kA);
    types.learn(kA, kInt);
    readOnce(0, 10);
    readOnce(1, 20);
    readOnce(1, 21);
    const int last = write(kA, 30);
    const Queued first = pump();
    queue.removeReads(1, 0); // the driver has it
    queue.removeReads(1, 1);
    readOnce(1, 22);
    EXPECT_EQ(first, Queued{"read A[10] x1 #1"});
    finish(1, true);
    EXPECT_EQ(pump(), Queued{"write A[30] x1 #4"});
    finish(last, true);
    EXPECT_EQ(pump(), Queued{"read A[22] x1 #5"});
}

TEST_F(OperationQueueTest, ReadsEachOfManyVariablesOnceThatAreAskedForAgainAndAgain)
{
    const int variables = 500;
    types.declare(kA);
    types.learn(kA, kInt);
    std::vector<int> ids(variables);
    for (int round = 0; round < 5; ++round) {
        for (int i = 0; i < variables; ++i) {
            queue.removeReads(1, i);
            ids[i] = readOnce(i, i);
        }
    }
    for (int i = 0; i < variables; ++i) {
        ASSERT_EQ(pump(),
                  Queued{"read A[" + std::to_string(i) + "] x1 #" + std::to_string(ids[i])});
        finish(ids[i], true);
    }
    EXPECT_EQ(pump(), Queued{});
}

TEST_F(OperationQueueTest, KeepsAnAwaitedOutcomeUntilItIsForgotten)
{
    queue.declare(kA);
    types.learn(kA, kInt);
    const int id = read(kA);
    EXPECT_EQ(queue.find(id, kB), nullptr);
    pump();
    ASSERT_NE(queue.find(id, kA), nullptr);
    queue.setResult(id, QByteArray("\x09\x00", 2));
    finish(id, true);
    ASSERT_NE(queue.outcome(id), nullptr);
    EXPECT_EQ(queue.outcome(id)->result, QByteArray("\x09\x00", 2));
    queue.forget(id);
    EXPECT_EQ(queue.outcome(id), nullptr);
}

TEST_F(OperationQueueTest, IgnoresAnOperationThatItDoesNotKnow)
{
    finish(99, true);
    EXPECT_EQ(queue.outcome(99), nullptr);
    EXPECT_FALSE(queue.abandon(99));
    EXPECT_FALSE(queue.isAbandoned(99, kA));
    EXPECT_FALSE(queue.noteUnanswered(99, kA));
}

// ---- Operations that nobody waits for any more

TEST_F(OperationQueueTest, KnowsOfAWriteThatIsAbandonedWhetherItCanHaveBeenDone)
{
    queue.declare(kA);
    types.learn(kA, kInt);
    const int done = write(kA, 0);
    const int refused = write(kA, 1);
    const int unanswered = write(kA, 2);
    const int waiting = write(kA, 3);
    const int waitingRead = read(kA, 4);
    pump();
    finish(done, true);
    pump();
    finish(refused, true, {"too much data (status 15)", false, Failure()});
    pump();
    EXPECT_TRUE(queue.noteUnanswered(unanswered, kA));
    EXPECT_FALSE(queue.abandon(done));
    EXPECT_TRUE(queue.abandon(refused));
    EXPECT_FALSE(queue.abandon(unanswered));
    EXPECT_TRUE(queue.abandon(waiting));
    EXPECT_FALSE(queue.abandon(waitingRead)) << "a read changes nothing";
    finish(unanswered, false);
    EXPECT_EQ(pump(), Queued()) << "none is left";
}

TEST_F(OperationQueueTest, TellsTheWritesInTheDriverThatAreToBeTakenBack)
{
    for (const TagKey& key : {kA, TagKey{2, "C"}}) {
        queue.declare(key);
        types.learn(key, kInt);
    }
    const int inDriver = write(kA);
    const int reading = read({2, "C"});
    pump();
    EXPECT_FALSE(queue.isAbandoned(inDriver, kA));
    EXPECT_FALSE(queue.hasAbandoned());
    queue.abandon(inDriver);
    queue.abandon(reading);
    EXPECT_TRUE(queue.hasAbandoned());
    EXPECT_TRUE(queue.isAbandoned(inDriver, kA));
    EXPECT_FALSE(queue.isAbandoned(inDriver, kB)) << "the driver numbers its cyclic reads, too";
    EXPECT_FALSE(queue.isAbandoned(reading, {2, "C"}));
}

TEST_F(OperationQueueTest, QueuesNoWriteAgainThatWasAbandonedOrMayHaveBeenDone)
{
    ReplyStatus lost;
    lost.connectionLost = true;
    lost.failure = {Failure::Cause::Refusal, "connection lost", ""};
    queue.declare(kA);
    types.learn(kA, kInt);
    const int abandoned = write(kA);
    pump();
    queue.abandon(abandoned);
    queue.handleDroppedConnection(1, lost);
    EXPECT_EQ(pump(), Queued());

    const int unanswered = write(kA, 1);
    pump();
    queue.noteUnanswered(unanswered, kA);
    queue.handleDroppedConnection(1, lost);
    EXPECT_EQ(pump(), Queued());
    EXPECT_EQ(outcome(unanswered), "failed: no answer, and then the controller did not know the "
                                   "connection any more");
}

TEST_F(OperationQueueTest, TriesNoOperationAgainThatWasAbandonedOrMayHaveBeenDone)
{
    ReplyStatus lost;
    lost.connectionLost = true;
    queue.declare(kA);
    types.learn(kA, kInt);
    const int abandoned = read(kA);
    pump();
    queue.abandon(abandoned);
    finish(abandoned, false, lost);
    EXPECT_EQ(pump(), Queued());

    const int unanswered = write(kA, 1);
    pump();
    queue.noteUnanswered(unanswered, kA);
    finish(unanswered, false, lost);
    EXPECT_EQ(pump(), Queued());
    EXPECT_EQ(outcome(unanswered), "failed: no answer, and then the controller did not know the "
                                   "connection any more");
}

TEST_F(OperationQueueTest, NotesOnlyAWriteWithoutAnAnswer)
{
    queue.declare(kA);
    types.learn(kA, kInt);
    const int reading = read(kA);
    const int writing = write(kA, 1);
    EXPECT_FALSE(queue.noteUnanswered(reading, kA));
    EXPECT_FALSE(queue.noteUnanswered(writing, kB)) << "the driver numbers its cyclic reads, too";
    EXPECT_TRUE(queue.noteUnanswered(writing, kA));
}
