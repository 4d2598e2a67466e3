#include "tool_fixture.h"

namespace {

using HostTrace = ToolTest;

TEST_F(HostTrace, DecodesWhatWasRecordedInEitherForm)
{
    simulate();
    for (const char* name : {"t.txt", "t.pcapng"}) {
        hostOnPort({"read", "Speed", "Nope", "--trace", path(name)});
        const Result result = host({"trace", path(name)});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        QStringList frames;
        for (const QString& line : linesOf(result.out)) {
            if (line.contains("Z > "))
                frames += line.section("Z > ", 1).section(' ', 2);
        }
        EXPECT_EQ(frames, (QStringList{"identity", "open connection", "read Speed[0] x1",
                                       "read Speed[0] x1", "read Nope[0] x1"}))
            << result.out;
        EXPECT_NE(result.out.find("requests 5, answered 5, without an answer 0, repeated 0, "
                                  "replies of another request 0, corrupt 0\n"),
                  std::string::npos)
            << result.out;
        EXPECT_NE(result.out.find("round trip: median "), std::string::npos);
        EXPECT_NE(
            result.out.find("failed 1x read Nope[0] x1: path destination unknown (status 05)\n"),
            std::string::npos)
            << result.out;
    }
}

TEST_F(HostTrace, GivesItsStatisticsAlone)
{
    simulate();
    hostOnPort({"read", "Speed", "--trace", path("t.txt")});
    const Result text = host({"trace", path("t.txt"), "--summary"});
    EXPECT_EQ(text.out.find("requests 4, answered 4, "), 0u) << text.out;
    const Result json = host({"trace", path("t.txt"), "--summary", "--json"});
    EXPECT_EQ(json.out.find(R"({"summary":{"requests":4,"answered":4,"unanswered":0,)"), 0u)
        << json.out;
    EXPECT_EQ(linesOf(json.out).size(), 1);
}

TEST_F(HostTrace, ShowsARequestThatNobodyAnswered)
{
    const SilentPort nobody;
    host({"read", "Speed", "--port", nobody.path(), "--timeout", "20", "--trace", path("t.txt")});
    const Result result = host({"trace", path("t.txt"), "--json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find(R"("answered":0)"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find(R"("failures":{"identity: no answer":2})"), std::string::npos)
        << result.out;
}

TEST_F(HostTrace, NamesAFileThatIsNoTrace)
{
    const Result missing = host({"trace", "/none.txt"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err.find("micro850-host: /none.txt: "), 0u) << missing.err;
    const Result other = host({"trace", file("x.txt", "this is no trace\n")});
    EXPECT_EQ(other.status, 2);
    EXPECT_EQ(linesOf(other.err).size(), 1);
    EXPECT_NE(other.err.find("x.txt"), std::string::npos) << other.err;
}

} // namespace
