#include "terminal_fixture.h"

#include <functional>

namespace {

class HostTrace : public TerminalTest
{
protected:
    /// Records the command on the line. Where the machine is busy and a reply comes late, the host
    /// asks for it again, and the command is recorded once more: until the only replies that it
    /// asked for again are `damaged` ones. `prepare` starts the simulator for each of them.
    Result record(
        const QStringList& command, const QString& trace, int damaged = 0,
        const std::function<void()>& prepare = [] {}) const
    {
        const int kMost = 100;
        for (int i = 0; i < kMost; ++i) {
            prepare();
            Result result = hostOnPort(command + QStringList{"--trace", path(trace)});
            const QString text = QString::fromStdString(host({"trace", path(trace)}).out);
            if (text.count(": NAK: not received intact") == damaged &&
                !text.contains(" (again: attempt "))
                return result;
        }
        ADD_FAILURE() << "a reply came late each time, " << command.join(' ').toStdString();
        return {-1, "", ""};
    }
    /// Starts the simulator anew. The third reply is corrupt on the way, and is asked for again.
    void simulateCorruptReply()
    {
        stopSimulator();
        simulate(R"({"name": "Speed", "type": "INT", "value": 1234})",
                 {"--faults",
                  file("f.json",
                       R"({"faults": [{"fault": "flip", "message": 3, "byte": 9, "bit": 0}]})")});
    }
};

TEST_F(HostTrace, DecodesBothFormsOfATrace)
{
    simulate();
    for (const char* name : {"t.txt", "t.pcapng"}) {
        record({"read", "Speed", "Nope"}, name);
        const Result result = host({"trace", path(name)});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        QStringList frames;
        for (const QString& line : linesOf(result.out)) {
            if (line.contains("Z > "))
                frames += line.section("Z > station 1: TNS ", 1).section(' ', 1);
        }
        EXPECT_EQ(frames, (QStringList{"identity", "open connection", "read Speed[0] x1",
                                       "read Nope[0] x1", "read Speed[0] x1", "close connection"}))
            << result.out;
        EXPECT_NE(result.out.find("requests 6, answered 6, without an answer 0, repeated 0, "
                                  "replies of another request 0, corrupt 0\n"),
                  std::string::npos)
            << result.out;
        EXPECT_NE(result.out.find("round trip: median "), std::string::npos);
        EXPECT_NE(result.out.find("failed 1x read Nope[0] x1: no such tag (names are as in the "
                                  "controller's program; status 05)\n"),
                  std::string::npos)
            << result.out;
    }
}

TEST_F(HostTrace, PrintsOnlyItsStatisticsWithSummary)
{
    simulate();
    record({"read", "Speed"}, "t.txt");
    const Result text = host({"trace", path("t.txt"), "--summary"});
    EXPECT_EQ(text.out.find("requests 5, answered 5, "), 0u) << text.out;
    const Result json = host({"trace", path("t.txt"), "--summary", "--json"});
    EXPECT_EQ(json.out.find(R"({"summary":{"requests":5,"answered":5,"unanswered":0,)"), 0u)
        << json.out;
    EXPECT_EQ(linesOf(json.out).size(), 1);
}

TEST_F(HostTrace, ShowsARequestThatNobodyAnswered)
{
    const SilentPort nobody;
    host({"read", "Speed", "--port", nobody.path(), "--timeout", "500", "--trace", path("t.txt")});
    const Result result = host({"trace", path("t.txt"), "--json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find(R"("answered":0)"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find(R"("failures":{"identity: no answer":2})"), std::string::npos)
        << result.out;
}

TEST_F(HostTrace, ShowsACorruptReplyAndThatItWasAskedForAgain)
{
    for (const char* name : {"t.txt", "t.pcapng"}) {
        const Result read = record({"read", "Speed"}, name, 1, [this] { simulateCorruptReply(); });
        EXPECT_EQ(read.status, 0) << read.err;
        const Result result = host({"trace", path(name)});
        EXPECT_NE(result.out.find("corrupt frame\n"), std::string::npos) << result.out;
        EXPECT_NE(result.out.find(" > station 1: NAK: not received intact\n"), std::string::npos);
        EXPECT_NE(result.out.find("corrupt 1\n"), std::string::npos);

        record({"read", "Speed"}, name);
        const Result good = host({"trace", path(name)});
        EXPECT_EQ(good.out.find("corrupt frame\n"), std::string::npos) << good.out;
        EXPECT_NE(good.out.find("corrupt 0\n"), std::string::npos);
    }
}

/// The wanted fields of each packet that has a message, as tshark reads them with the dissector.
QStringList dissected(const QString& trace, const QStringList& fields)
{
    QStringList arguments = {"-X", "lua_script:" MICRO850_SOURCE_DIR "/tools/wireshark/df1_cip.lua",
                             "-r", trace,
                             "-Y", "df1.tns",
                             "-T", "fields",
                             "-E", "separator=;"};
    for (const QString& field : fields)
        arguments << "-e" << field;
    const Result result = runProgram("tshark", arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    return linesOf(result.out);
}

TEST_F(HostTrace, IsReadByWiresharkWithServiceTagNameAndStatus)
{
    simulate();
    record({"read", "Speed", "Nope"}, "t.pcapng");
    EXPECT_EQ(dissected(path("t.pcapng"), {"df1.service", "df1.response", "df1.tag",
                                           "df1.cip_status", "df1.value", "df1.crc_good"}),
              (QStringList{"0x01;0;;;;1", "0x01;1;;0x00;;1", "0x54;0;;;;1", "0x54;1;;0x00;;1",
                           "0x52;0;Speed;;;1", "0x52;1;;0x00;d204;1", "0x52;0;Nope;;;1",
                           "0x52;1;;0x05;;1", "0x52;0;Speed;;;1", "0x52;1;;0x00;d204;1",
                           "0x4e;0;;;;1", "0x4e;1;;0x00;;1"}));
}

TEST_F(HostTrace, ShowsACorruptFrameInWireshark)
{
    record({"read", "Speed"}, "t.pcapng", 1, [this] { simulateCorruptReply(); });
    EXPECT_EQ(dissected(path("t.pcapng"), {"df1.service", "df1.response", "df1.crc_good"}),
              (QStringList{"0x01;0;1", "0x01;1;1", "0x54;0;1", "0x54;1;1", "0x52;0;1", "0x52;1;0",
                           "0x52;1;1", "0x52;0;1", "0x52;1;1", "0x4e;0;1", "0x4e;1;1"}));
}

TEST_F(HostTrace, IsReplayedByTheSimulatedController)
{
    simulate();
    const QStringList asked = {"read", "Speed", "Level[3]", "Recipe", "Name", "Nope"};
    for (const char* name : {"t.txt", "t.pcapng"}) {
        const Result live = hostOnPort(asked + QStringList{"--trace", path(name)});
        EXPECT_NE(live.out.find("1234"), std::string::npos) << live.out;
        stopSimulator();
        simulateFrom(path(name));
        const Result replayed = hostOnPort(asked);
        EXPECT_EQ(replayed.out, live.out);
        EXPECT_EQ(replayed.err, live.err);
        EXPECT_EQ(replayed.status, live.status);
        stopSimulator();
        simulate();
    }
}

TEST_F(HostTrace, OfABadLineIsReplayedToo)
{
    simulate(R"({"name": "Speed", "type": "INT", "value": 1234})",
             {"--faults", file("f.json", R"({"faults": [
                  {"fault": "flip", "message": 3, "byte": 9, "bit": 0},
                  {"fault": "insert", "message": 2, "byte": 7, "bytes": "10 06"},
                  {"fault": "duplicate", "message": 1}]})")});
    hostOnPort({"read", "Speed", "--trace", path("t.txt")});
    stopSimulator();
    simulateFrom(path("t.txt"));
    const Result replayed = hostOnPort({"read", "Speed"});
    EXPECT_NE(replayed.out.find("1234"), std::string::npos) << replayed.out << replayed.err;
}

TEST_F(HostTrace, ReportsAFileThatIsNotATrace)
{
    const Result missing = host({"trace", "/none.txt"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err.find("micro850-host: /none.txt: "), 0u) << missing.err;
    const Result other = host({"trace", file("x.txt", "this is no trace\n")});
    EXPECT_EQ(other.status, 2);
    EXPECT_EQ(linesOf(other.err).size(), 1);
    EXPECT_NE(other.err.find("x.txt"), std::string::npos) << other.err;
}

TEST_F(HostTrace, OfAKilledRecordingIsReadUpToItsEnd)
{
    simulate();
    for (const char* name : {"t.txt", "t.pcapng"}) {
        record({"read", "Speed"}, name);
        const std::string whole = textOf(name);
        file(name, whole.substr(0, whole.size() - 3));
        const Result result = host({"trace", path(name)});
        EXPECT_EQ(result.status, 0);
        EXPECT_NE(result.err.find("is cut short and left out: the recording ended there\n"),
                  std::string::npos)
            << result.err;
        EXPECT_NE(result.out.find("requests 5, "), std::string::npos) << result.out;
        EXPECT_EQ(host({"trace", path(name), "--quiet"}).err, "");
    }
}

TEST_F(HostTrace, RefusesAtOnceWhatIsNoTrace)
{
    file("empty.txt", "");
    const std::string pipe = "is a pipe or a device (save the trace to a file first)";
    const std::vector<std::pair<QString, std::string>> cases = {
        {".", "is a directory (name a trace file)"},
        {"empty.txt", "is empty: not a trace"},
        {"/dev/zero", pipe},
        {"/dev/stdin", pipe}};
    for (const auto& [name, why] : cases) {
        const Result result = runProgram("bash", {"-c", "cd \"$0\" && yes | \"$1\" trace \"$2\"",
                                                  path("."), MICRO850_HOST, name});
        EXPECT_EQ(result.status, 2) << name.toStdString();
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "micro850-host: " + name.toStdString() + ": " + why + '\n');
    }
}

TEST_F(HostTrace, ShowsTimesAfterTheYear2106)
{
    const Result result = host({"trace", file("t.txt", "4294967296.000000 > 10 05\n")});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out.find("    1 2106-02-07T06:28:16.000Z > "), 0u) << result.out;
}

TEST_F(HostTrace, ThatEndsWithARequestDoesNotBlameTheController)
{
    simulate();
    record({"read", "Speed"}, "t.txt");
    QStringList lines = linesOf(textOf("t.txt"));
    while (!lines.isEmpty() && !lines.last().contains(" > "))
        lines.removeLast();
    if (lines.last().count(' ') < 10)
        lines.removeLast(); // an acknowledgement
    while (!lines.last().contains(" > "))
        lines.removeLast();
    file("t.txt", lines.join('\n').toStdString() + '\n');
    const Result text = host({"trace", path("t.txt"), "--summary"});
    EXPECT_NE(text.out.find("requests 5, answered 4, without an answer 0, "), std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("\n1 not answered when the trace ends: close connection\n"),
              std::string::npos)
        << text.out;
    EXPECT_EQ(text.out.find("failed"), std::string::npos) << text.out;
    const Result json = host({"trace", path("t.txt"), "--summary", "--json"});
    EXPECT_NE(json.out.find(R"("answered":4,"unanswered":0,"openAtEnd":1,)"), std::string::npos)
        << json.out;
}

TEST_F(HostTrace, ShowsValuesAndOnlyTheTagThatIsAskedFor)
{
    simulate();
    record({"read", "Speed", "Level[0..1]", "Name"}, "t.pcapng");
    const auto texts = [this](const QStringList& options) {
        QStringList found;
        for (const QString& line :
             linesOf(host(QStringList{"trace", path("t.pcapng")} + options).out)) {
            if (line.contains("reply: "))
                found += line.section("reply: ", 1).section(" (", 0, 0);
        }
        found.removeDuplicates();
        return found;
    };
    EXPECT_EQ(texts({}), (QStringList{"INT 1234", "INT 10", "SHORT_STRING Apple", "INT 10 11"}));
    EXPECT_EQ(texts({"--match", "lev"}), (QStringList{"INT 10", "INT 10 11"}));
    EXPECT_EQ(texts({"--match", "N*"}), QStringList("SHORT_STRING Apple"));
    EXPECT_EQ(texts({"--match", "Nope"}), QStringList());
    EXPECT_EQ(texts({"--to", "2020-01-01"}), QStringList());
    EXPECT_EQ(texts({"--from", "-1h", "--match", "Speed"}), QStringList("INT 1234"));
    const Result json = host({"trace", path("t.pcapng"), "--match", "Level", "--json", "--errors"});
    EXPECT_EQ(linesOf(json.out).size(), 1) << json.out; // the summary
    EXPECT_NE(json.out.find(R"("requests":2,"answered":2,)"), std::string::npos) << json.out;
}

TEST_F(HostTrace, HasTypedValuesInJson)
{
    simulate(R"({"name": "Mix", "type": "REAL", "value": 21.5}, {"name": "Big", "type": "ULINT",
                 "value": 18446744073709551615}, {"name": "On", "type": "BOOL", "value": true},
                {"name": "Day", "type": "DATE", "value": "2024-02-29"},
                {"name": "Text", "type": "SHORT_STRING", "value": "a \"b\""})");
    hostOnPort({"read", "Mix", "Big", "On", "Day", "Text", "--trace", path("t.txt")});
    hostOnPort({"write", "Mix=22.5", "--no-verify", "--trace", path("w.txt")});
    const auto values = [this](const char* trace, const QString& tag) {
        const QString out =
            QString::fromStdString(host({"trace", path(trace), "--json", "--match", tag}).out);
        return out.section("\"values\":", -1).section(",\"gapMs\"", 0, 0);
    };
    EXPECT_EQ(values("t.txt", "Mix"), QString("[21.5]"));
    EXPECT_EQ(values("t.txt", "Big"), QString("[18446744073709551615]"));
    EXPECT_EQ(values("t.txt", "On"), QString("[true]"));
    EXPECT_EQ(values("t.txt", "Day"), QString("[\"2024-02-29\"]"));
    EXPECT_EQ(values("t.txt", "Text"), QString("[\"a \\\"b\\\"\"]"));
    EXPECT_EQ(values("w.txt", "Mix"), QString("[22.5]"));
}

TEST_F(HostTrace, ShowsOnlyWhatFailedWithErrors)
{
    // Sent, a damaged reply, asked for again, and 2.5 s later a tag that is not there.
    file("t.txt",
         "1234567890.000000 > 10 06 10 02 00 01 0A 00 21 00 00 00 5A 3C 28 45 52 04 91 05 53 70 65 "
         "65 64 00 01 00 00 00 00 00 10 03 4A 2F  # station 2: x\n"
         "1234567890.010000 < 10 06 10 02 01 10 03 00 00\n"
         "1234567890.020000 > 10 15\n"
         "1234567892.520000 > 10 06 10 02 00 01 0B 00 01 00 00 00 01 02 20 01 24 01 10 03 8E 35\n"
         "1234567892.530000 > 10 06 10 02 00 01 0B 00 10 10 00 00 00 01 02 20 01 24 01 10 03 DE "
         "09\n");
    const Result result = host({"trace", path("t.txt"), "--errors"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(
        linesOf(result.out).mid(0, 10),
        (QStringList{
            "    1 2009-02-13T23:31:30.000Z > station 2: TNS 33 read Speed[0] x1",
            "    2 2009-02-13T23:31:30.010Z < corrupt frame",
            "    3 2009-02-13T23:31:30.020Z > NAK: not received intact",
            "      2009-02-13T23:31:32.520Z ! station 2: read Speed[0] x1: no answer in "
            "2520.0 ms",
            "      -- 2.50 s of silence --", "    4 2009-02-13T23:31:32.520Z > TNS 1 identity",
            "      2009-02-13T23:31:32.530Z ! identity: no answer in 10.0 ms",
            "    5 2009-02-13T23:31:32.530Z > TNS 16 identity (again: attempt 2 after 10.0 "
            "ms)",
            "requests 3, answered 0, without an answer 2, repeated 0, replies of another "
            "request 0, corrupt 1",
            "1 not answered when the trace ends: identity"}))
        << result.out;
    const Result all = host({"trace", path("t.txt")});
    EXPECT_NE(all.out.find("      -- 2.50 s of silence --\n    4 2009-02-13T23:31:32.520Z > "),
              std::string::npos)
        << all.out;
    EXPECT_EQ(host({"trace", path("t.txt"), "--gaps", "3"}).out.find("of silence"),
              std::string::npos);
    const Result json = host({"trace", path("t.txt"), "--json"});
    EXPECT_NE(json.out.find(R"("kind":"request","text":"TNS 1 identity","number":4,"gapMs":2500.0,)"
                            R"("ok":true})"),
              std::string::npos)
        << json.out;
}

TEST_F(HostTrace, ExplainsOneMessageByteByByte)
{
    simulate();
    hostOnPort({"read", "Speed", "--trace", path("t.pcapng")});
    const QStringList all = linesOf(host({"trace", path("t.pcapng")}).out);
    const QString reply = all.filter("INT 1234").first();
    const QString number = reply.left(5).trimmed();
    const Result result = host({"trace", path("t.pcapng"), "--explain", number});
    EXPECT_EQ(result.status, 0) << result.err;
    const QStringList lines = linesOf(result.out);
    EXPECT_EQ(lines.first(), reply);
    EXPECT_TRUE(lines.contains("   6  4A                       command             connected "
                               "message, reply"))
        << result.out;
    EXPECT_TRUE(lines.contains("  22  D2 04                    Speed[0]            1234"))
        << result.out;
    EXPECT_TRUE(lines.last().endsWith(", right")) << result.out;
    const Result json = host({"trace", path("t.pcapng"), "--explain", number, "--json"});
    EXPECT_NE(json.out.find(R"({"offset":22,"bytes":"D2 04","name":"Speed[0]","meaning":"1234"})"),
              std::string::npos)
        << json.out;
    const Result beyond = host({"trace", path("t.pcapng"), "--explain", "9999"});
    EXPECT_EQ(beyond.status, 2);
    EXPECT_EQ(beyond.out, "");
    EXPECT_NE(beyond.err.find("--explain 9999: "), std::string::npos) << beyond.err;
    const Result both = host({"trace", path("t.pcapng"), "--explain", "1", "--follow"});
    EXPECT_EQ(both.status, 2);
    EXPECT_EQ(both.err, "micro850-host: --explain shows one message (leave out --follow, --summary "
                        "and --errors)\n");
}

TEST_F(HostTrace, FollowsARecordingUntilCtrlC)
{
    simulate();
    file("t.txt", "");
    open("$HOST trace t.txt --follow", 120, 40);
    hostOnPort({"read", "Speed", "--trace", path("t.txt")});
    EXPECT_TRUE(sees("read reply: INT 1234"));
    EXPECT_TRUE(sees("close connection reply"));
    // A second recording under the same name.
    hostOnPort({"read", "Nope", "--trace", path("t.txt")});
    EXPECT_TRUE(sees("t.txt: is recorded anew from here on"));
    EXPECT_TRUE(sees("read reply: no such tag"));
    type({"C-c"});
    EXPECT_TRUE(sees("[status 0]"));
    EXPECT_TRUE(sees("failed 1x read Nope[0] x1"));
}

} // namespace
