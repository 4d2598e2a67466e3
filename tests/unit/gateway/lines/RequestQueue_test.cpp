#include "RequestQueue.h"

#include "UserError.h"

#include <gtest/gtest.h>

using namespace micro850;
using namespace micro850::gateway;

namespace {

class RequestQueueTest : public ::testing::Test
{
protected:
    void ask(qint64 id, const char* request)
    {
        queue.add(id, {{"request", request}},
                  [this, id](const Json& reply) { answers[id].push_back(reply); });
    }
    std::string code(qint64 id) const
    {
        const auto found = answers.find(id);
        if (found == answers.end())
            return "not answered";
        if (found->second.size() != 1)
            return "answered more than once";
        const Json& reply = found->second.front();
        return reply.contains("error") ? reply["error"]["code"].get<std::string>() : "done";
    }

    bool workerRuns = true;
    std::vector<Json> sent;
    std::map<qint64, std::vector<Json>> answers;
    RequestQueue queue{[this](const QByteArray& line) {
        if (workerRuns)
            sent.push_back(Json::parse(line.toStdString()));
        return workerRuns;
    }};
};

} // namespace

TEST_F(RequestQueueTest, GivesTheWorkerOneRequestAtATime)
{
    ask(1, "read");
    ask(2, "type");
    queue.pump(QString());
    queue.pump(QString());
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0]["request"], "read");
    EXPECT_EQ(sent[0]["id"], 1);
    queue.takeReply({{"id", 1}, {"reply", "read"}});
    queue.pump(QString());
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[1]["id"], 2);
    EXPECT_EQ(code(1), "done");
    EXPECT_EQ(code(2), "not answered");
}

TEST_F(RequestQueueTest, NeverSendsARequestThatWasTakenBackBefore)
{
    ask(1, "write");
    ask(2, "write");
    queue.pump(QString());
    EXPECT_TRUE(queue.cancel(2));
    EXPECT_EQ(code(2), "cancelled");
    queue.takeReply({{"id", 1}, {"reply", "write"}});
    queue.pump(QString());
    EXPECT_EQ(sent.size(), 1U);
    EXPECT_FALSE(queue.cancel(2));
    EXPECT_EQ(queue.size(), 0);
}

TEST_F(RequestQueueTest, LetsTheWorkerDecideOnTakingBackWhatItHas)
{
    ask(1, "write");
    queue.pump(QString());
    EXPECT_TRUE(queue.cancel(1));
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[1], Json({{"request", "cancel"}, {"of", 1}}));
    EXPECT_EQ(code(1), "not answered");
    queue.takeReply({{"id", 1}, {"reply", "write"}});
    EXPECT_EQ(code(1), "done");
}

TEST_F(RequestQueueTest, SaysThatAWriteMayBeDoneOnlyOfTheOneThatTheWorkerHad)
{
    ask(1, "write");
    ask(2, "write");
    queue.pump(QString());
    queue.failAll(QStringLiteral("signal 9"));
    EXPECT_EQ(code(1), "unknown-outcome");
    EXPECT_EQ(code(2), "unreachable");
    EXPECT_NE(answers[1][0]["error"]["text"].get<std::string>().find("signal 9"),
              std::string::npos);
}

TEST_F(RequestQueueTest, SaysOfAReadThatTheWorkerHadThatTheLineIsUnreachable)
{
    ask(1, "read");
    queue.pump(QString());
    queue.failAll(QStringLiteral("signal 9"));
    EXPECT_EQ(code(1), "unreachable");
}

TEST_F(RequestQueueTest, AnswersWithTheReasonWhenNoWorkerRuns)
{
    workerRuns = false;
    ask(1, "write");
    ask(2, "read");
    queue.pump(QStringLiteral("it is started again in 2 s"));
    EXPECT_EQ(code(1), "unreachable");
    EXPECT_EQ(code(2), "unreachable");
    EXPECT_EQ(answers[1][0]["error"]["text"], "it is started again in 2 s");
}

TEST_F(RequestQueueTest, AnswersRequestsThatAnAnswerBrings)
{
    queue.add(1, {{"request", "read"}}, [this](const Json&) { ask(2, "read"); });
    queue.pump(QString());
    queue.failAll(QString());
    EXPECT_EQ(code(2), "not answered");
    workerRuns = false;
    queue.pump(QString());
    EXPECT_EQ(code(2), "unreachable");
}

TEST_F(RequestQueueTest, LimitsHowManyWait)
{
    for (int id = 1; id <= 5000; ++id)
        ask(id, "read");
    queue.pump(QString());
    EXPECT_LE(queue.size(), 4096);
    EXPECT_EQ(code(5000), "busy");
    EXPECT_EQ(code(2), "not answered");
}

TEST_F(RequestQueueTest, RefusesAReplyThatItDidNotAskFor)
{
    EXPECT_THROW(queue.takeReply({{"id", 1}, {"reply", "read"}}), UserError);
    ask(1, "read");
    queue.pump(QString());
    EXPECT_THROW(queue.takeReply({{"id", 2}, {"reply", "read"}}), UserError);
    EXPECT_THROW(queue.takeReply({{"reply", "read"}}), UserError);
    EXPECT_EQ(code(1), "not answered");
}
