// Runs the code of docs/host-integration.md and checks what the page says. The code blocks are
// compiled as they stand in the page.

#include "byte_arrays.h"
#include "scenario_fixture.h"

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QTemporaryDir>

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

#include "host_integration_blocks.h"

// A message as the page defines it.
QByteArray messageOf(const QByteArray& frame)
{
    return wire::unframed(frame);
}

/// A host that does with each reply what the page says.
class HostIntegration : public ScenarioTest
{
protected:
    HostIntegration() { settings.multiStation = 0; }

    /// One transaction with the functions of the page. Returns the driver's code.
    int transactAsDocumented()
    {
        Protocol* sent = ComCommunication();
        if (!sent)
            return -1;
        line().receive(toBytes(sent->frame));
        pass(1);
        const QByteArray received = toByteArray(line().transmit());
        const int start = received.indexOf(QByteArray("\x10\x02", 2));
        const QByteArray reply =
            start < 0 ? QByteArray() : messageOf(wire::hex("10 06") + received.mid(start));
        lastReply = reply;
        requests.push_back(requestText(sent->frame));
        if (reply.isEmpty() || !answers(reply, messageOf(sent->frame)))
            return reportSilence(sent);
        line().receive(toBytes(wire::hex("10 06")));
        switch (judged(reply)) {
        case kConnectionLost:
            return dropConnection(sent);
        case kRefused:
            return handOverRefusal(sent, reply);
        case kGood:
            break;
        }
        return handOver(sent, reply);
    }
    void runAsDocumented(int transactions)
    {
        for (int i = 0; i < transactions; ++i)
            transactAsDocumented();
    }
    void addCyclic(const char* tag, int first, int elements, int elementSize)
    {
        declareIndexed(tag);
        RW_VAR request =
            cyclicRead(settings, QString::fromLatin1(tag), first, elements, elementSize);
        AddListReadVar(&request);
    }

    QByteArray lastReply;
    std::vector<std::string> requests;
};

const char kArrays[] = R"({"name": "D", "type": "DINT", "length": 20, "value": [1, 2, 3, 4, 5, 6, 7,
        8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20]},
    {"name": "L", "type": "LINT", "length": 3, "value": [1, 2, 3]},
    {"name": "I", "type": "INT", "length": 3, "value": [1, 2, 3]},
    {"name": "S", "type": "SINT", "length": 3, "value": [1, 2, 3]})";

/// So many numbers from 1 on as the host gets them, `size` bytes each.
std::string numbersFrom1(int count, int size)
{
    QByteArray bytes;
    for (int i = 1; i <= count; ++i)
        bytes += wire::little(static_cast<quint64>(i), size);
    return wire::text(bytes);
}

TEST_F(HostIntegration, ReadsEveryElementOfAnArrayInACycle)
{
    defineTags(kArrays);
    addCyclic("D", 0, 20, 4);
    addCyclic("L", 0, 3, 8);
    addCyclic("I", 0, 3, 2);
    addCyclic("S", 0, 3, 1);
    runAsDocumented(10);
    EXPECT_EQ(shown("D", 40), numbersFrom1(20, 4));
    EXPECT_EQ(shown("L", 12), numbersFrom1(3, 8));
    EXPECT_EQ(shown("I", 3), numbersFrom1(3, 2));
    EXPECT_EQ(shown("S", 3), numbersFrom1(3, 2));
    EXPECT_EQ(requests.at(6), "7 read D x20");
    EXPECT_EQ(requests.at(7), "8 read L x3");
}

TEST_F(HostIntegration, ReadsSomeElementsOfAnArrayOnce)
{
    defineTags(kArrays);
    for (const char* tag : {"D", "L", "I"}) {
        addCyclic(tag, 0, 1, 1); // to learn the type
        runAsDocumented(3);
    }
    struct
    {
        const char* tag;
        int size;
    } const arrays[] = {{"D", 4}, {"L", 8}, {"I", 2}};
    for (const auto& array : arrays) {
        RW_VAR once = oneShotRead(settings, QString::fromLatin1(array.tag), 1, 2, array.size);
        AddListOnceReadVar(&once, 0);
        transactAsDocumented();
        EXPECT_NE(requests.back().find(std::string("read ") + array.tag + "[1] x2"),
                  std::string::npos)
            << requests.back();
        EXPECT_EQ(shown(array.tag, array.size, 1),
                  wire::text(wire::little(2, array.size) + wire::little(3, array.size)));
    }
}

TEST_F(HostIntegration, TakesTheLengthOfAStringFromTheReply)
{
    defineTags(R"({"name": "Name", "type": "SHORT_STRING", "value": "Apple juice"})");
    addCyclic("Name", 0, 1, 1);
    for (const char* text : {"Apple juice", "Pear", "", "a\x1b"}) {
        setInController("Name", (wire::text(QByteArray(1, static_cast<char>(strlen(text)))) + " " +
                                 wire::text(QByteArray(text)))
                                    .c_str());
        do
            EXPECT_GE(transactAsDocumented(), 1);
        while (lastReply.size() < 18 || requests.back().find("Name") == std::string::npos);
        EXPECT_EQ(stringOf(QStringLiteral("Name"), 1, lastReply), QByteArray(text));
    }
}

TEST_F(HostIntegration, LearnsNothingFromARefusalAndKnowsOfARefusedWrite)
{
    defineTags(R"({"name": "A", "type": "INT", "value": 7})");
    addCyclic("A", 0, 1, 2);
    faults(R"({"fault": "cip-error", "on": "requests", "message": [3, 5], "status": 255,
               "extended": 8453})");
    runAsDocumented(3);
    EXPECT_EQ(judged(lastReply), kRefused);
    EXPECT_EQ(shown("A"), "none");
    transactAsDocumented();
    EXPECT_EQ(shown("A"), "07 00");
    write("A", wire::hex("09 00"));
    transactAsDocumented();
    EXPECT_EQ(judged(lastReply), kRefused);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0].status, 1) << "the driver calls it done";
    EXPECT_EQ(inController("A"), "07 00");
}

TEST_F(HostIntegration, ConnectsAgainWhenTheControllerHasForgottenTheConnection)
{
    defineTags(R"({"name": "A", "type": "INT", "value": 7})");
    addCyclic("A", 0, 1, 2);
    runAsDocumented(3);
    controller.powerCycle(true);
    EXPECT_EQ(transactAsDocumented(), 41);
    setInController("A", "08 00");
    runAsDocumented(3);
    EXPECT_EQ(shown("A"), "08 00");
}

TEST_F(HostIntegration, DropsTheReplyToAnotherRequest)
{
    defineTags(
        R"({"name": "A", "type": "INT", "value": 7}, {"name": "B", "type": "INT", "value": 9})");
    addCyclic("A", 0, 1, 2);
    addCyclic("B", 0, 1, 2);
    faults(R"({"fault": "previous", "message": [4]})");
    runAsDocumented(4);
    EXPECT_EQ(shown("A"), "07 00");
    EXPECT_EQ(shown("B"), "none") << "the reply was that of A";
}

TEST_F(HostIntegration, KeepsAValueWhoseCrcIsTwoDles)
{
    // One of 65536 values has such a CRC.
    connectStation();
    declareIndexed("D");
    for (int value = 0;; ++value) {
        const QByteArray reply =
            wire::readReply(0x21, 0xC4, wire::little(static_cast<quint64>(value), 4));
        if (!reply.endsWith("\x10\x10"))
            continue;
        addCyclic("D", 0, 1, 4);
        Protocol* sent = ComCommunication();
        ASSERT_TRUE(sent);
        EXPECT_EQ(handOver(sent, messageOf(reply)), 1);
        EXPECT_EQ(shown("D", 2), wire::text(wire::little(static_cast<quint64>(value), 4)));
        return;
    }
}

TEST_F(HostIntegration, TakesAReplyToAResentRequestAfterATimeOut)
{
    connectStation();
    addCyclic("A", 0, 1, 2);
    EXPECT_EQ(reportSilence(ComCommunication()), 0);
    EXPECT_EQ(
        handOver(ComCommunication(), messageOf(wire::readReply(0x21, 0xC3, wire::hex("07 00")))),
        1);
    EXPECT_EQ(shown("A"), "07 00");
}

// The table of the page. That of a host with one call for each time-out is in KnownBehaviours.
TEST_F(HostIntegration, CountsAsManyTimeOutsAsTheRetryLimitAndOneMore)
{
    for (const int limit : {0, 1, 2, 5}) {
        restart();
        connectStation();
        settings.retryLimit = limit;
        addCyclic("A", 0, 1, 2);
        int timeOuts = 1;
        while (reportSilence(ComCommunication()) == 0)
            ++timeOuts;
        EXPECT_EQ(timeOuts, limit + 1);
    }
}

TEST_F(HostIntegration, CountsATimeOutOfTheSetUpWithEachCall)
{
    addCyclic("A", 0, 1, 2);
    EXPECT_EQ(reportSilence(ComCommunication()), 201);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    handOver(ComCommunication(), messageOf(wire::identityReply(2)));
    for (int i = 1; i <= 4; ++i) {
        ASSERT_EQ(requestText(ComCommunication()->frame).substr(2), "open");
        EXPECT_EQ(reportSilence(ComCommunication()), 201);
        EXPECT_EQ(PLC_driver.sendQueue.isEmpty(), i == 4);
    }
}

TEST(HostIntegrationInRealTime, DrawsAnotherSerialNumberAfterARefusedConnection)
{
    ComInfo settings = ComInfo();
    settings.defaultStation = 77; // no other test has connected it
    settings.writeMode = 2;
    SetComInfo(&settings);
    RW_VAR request = cyclicRead(settings, QStringLiteral("A"), 0, 1, 2);
    AddListReadVar(&request);
    Protocol* sent = ComCommunication();
    ASSERT_TRUE(sent);
    handOver(sent, messageOf(wire::identityReply(1)));
    sent = ComCommunication();
    const QByteArray first = messageOf(sent->frame).mid(28, 3);
    QByteArray refusal = wire::hex("01 00 4B 00 01 00 00 00 D4 00 01 01 00 01");
    EXPECT_EQ(judged(refusal), kRefused);
    EXPECT_EQ(handleSetUpReply(sent, refusal), 201);
    sent = ComCommunication();
    EXPECT_NE(messageOf(sent->frame).mid(28, 3), first);
    PLC_driver.sendQueue.clear();
    PLC_driver.readList.clear();
    SetComInfo(nullptr);
}

TEST_F(HostIntegration, NeverDoesAWriteThatItHasForgotten)
{
    defineTags(R"({"name": "W", "type": "INT"})");
    addCyclic("W", 0, 1, 2);
    write("W", wire::hex("05 00"));
    reportSilence(ComCommunication());
    forgetQueuedWrites();
    runAsDocumented(10);
    EXPECT_EQ(shown("W"), "00 00");
    EXPECT_EQ(inController("W"), "00 00");
}

TEST_F(HostIntegration, SeesTheEndOfEachPassOnce)
{
    defineTags(R"({"name": "A", "type": "INT"}, {"name": "B", "type": "INT"})");
    addCyclic("A", 0, 1, 2);
    addCyclic("B", 0, 1, 2);
    std::string seen;
    for (int i = 0; i < 12; ++i) {
        transactAsDocumented();
        seen += hasPassEnded(settings) ? 'x' : '-';
    }
    EXPECT_EQ(seen, "----x--x--x-") << "after two for the set-up, every three";
}

// The types that the driver writes are found by trying each.
TEST_F(HostIntegration, WritesExactlyTheTypesThatThePageNames)
{
    for (unsigned code = 0xC1; code <= 0xDF; ++code) {
        const micro850::CipType* type = micro850::cipTypeOf(static_cast<quint16>(code));
        if (!type)
            continue;
        restart();
        controller.download(micro850::sim::TagTable());
        defineTags(R"({"name": "T", "type": ")" + std::string(type->name) + R"("})");
        addCyclic("T", 0, 1, type->size > 2 ? type->size : 1);
        runAsDocumented(3);
        const bool isString = code == 0xDA;
        const QByteArray value =
            isString ? QByteArray("A") : QByteArray(std::max(2, int(type->size)), 1);
        write("T", value, std::max(1, int(type->size) / 2));
        runAsDocumented(1);
        const bool written =
            judged(lastReply) == kGood && requests.back().find("write") != std::string::npos;
        EXPECT_EQ(isWritable(static_cast<quint8>(code)), written) << type->name;
    }
}

/// What the function of the page returns in a child process, which may change its directory.
bool entersInChild(const QString& path, QString* log = nullptr)
{
    const pid_t child = ::fork();
    if (child == 0) {
        const bool entered = enterLogDirectory(path.toLocal8Bit().constData());
        if (entered)
            customMessageHandler(QtWarningMsg, "hello");
        ::_exit(entered ? 1 : 0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    if (log)
        *log = path + "/debug.log";
    return WIFEXITED(status) && WEXITSTATUS(status) == 1;
}

TEST(LogDirectory, IsEnteredOnlyWhenNobodyElseMayPutALinkThere)
{
    QTemporaryDir dir;
    QString log;
    EXPECT_TRUE(entersInChild(dir.filePath("new"), &log));
    struct stat found;
    ASSERT_EQ(::stat(log.toLocal8Bit().constData(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777, 0640u);
    EXPECT_TRUE(entersInChild(dir.filePath("new"))) << "again";

    ASSERT_TRUE(QDir(dir.path()).mkdir("open"));
    ::chmod(dir.filePath("open").toLocal8Bit().constData(), 0777);
    EXPECT_FALSE(entersInChild(dir.filePath("open")));
    ASSERT_TRUE(QFile::link(dir.filePath("new"), dir.filePath("link")));
    EXPECT_FALSE(entersInChild(dir.filePath("link")));
    EXPECT_FALSE(entersInChild(dir.filePath("no/such")));
}

// Kept as it is: the page says what a host does about it.
TEST(LogDirectory, HoldsALogThatFollowsALinkAsDocumented)
{
    QTemporaryDir dir;
    std::ofstream(dir.filePath("victim").toStdString()) << "precious";
    ASSERT_TRUE(QFile::link(dir.filePath("victim"), dir.filePath("debug.log")));
    const pid_t child = ::fork();
    if (child == 0) {
        if (::chdir(dir.path().toLocal8Bit().constData()) == 0)
            customMessageHandler(QtWarningMsg, "hello");
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
    std::ifstream victim(dir.filePath("victim").toStdString());
    const std::string text(std::istreambuf_iterator<char>(victim), {});
    EXPECT_EQ(text.find("precious"), std::string::npos);
    EXPECT_NE(text.find("hello"), std::string::npos);
}

// It also prints the figures of the page, which depend on the machine.
TEST_F(HostIntegration, BuildsTheSameListFromElementsInAnyOrder)
{
    struct Built
    {
        double milliseconds;
        int requests;
        QStringList elements;
    };
    const auto built = [](QList<HOSTVAR> variables) {
        QElapsedTimer time;
        time.start();
        ReCreatReadVarList(&variables);
        Built result = {static_cast<double>(time.nsecsElapsed()) / 1e6, PLC_driver.readList.size(),
                        QStringList()};
        for (const RW_VAR& request : PLC_driver.readList)
            result.elements +=
                QStringLiteral("%1 x%2").arg(request.startAddress).arg(request.count);
        return result;
    };
    QList<HOSTVAR> scalars, upward, downward;
    for (int i = 0; i < 1000; ++i)
        scalars.append(hostVar(("Tag" + std::to_string(i)).c_str(), "0", 1));
    declareIndexed("A");
    for (int i = 0; i < 5000; ++i) {
        upward.append(hostVar("A", std::to_string(i).c_str(), 1));
        downward.append(hostVar("A", std::to_string(4999 - i).c_str(), 1));
    }
    const Built thousand = built(scalars);
    const Built inOrder = built(upward);
    const Built reversed = built(downward);
    std::printf("1000 variables %.1f ms, 5000 elements in order %.0f ms, reversed %.0f ms\n",
                thousand.milliseconds, inOrder.milliseconds, reversed.milliseconds);
    EXPECT_EQ(thousand.requests, 1000);
    EXPECT_EQ(inOrder.requests, 334) << "runs of at most 15 elements";
    EXPECT_EQ(inOrder.elements.value(1), "15 x15");
    EXPECT_EQ(reversed.elements, inOrder.elements);
}

// ---- README.md ----------------------------------------------------------------------------------

class ReadmeLoop : public ScenarioTest
{
protected:
    struct Finished
    {
    };
    QList<QByteArray> frames;
    /// What the loop of the page calls `port`.
    struct Port
    {
        ReadmeLoop& test;
        int left;
        QByteArray exchange(const QByteArray& frame)
        {
            if (left-- == 0)
                throw Finished();
            test.frames.append(frame);
            if (left != 2) // the third request, a read, is lost
                test.line().receive(toBytes(frame));
            test.pass(1);
            return toByteArray(test.line().transmit());
        }
    };
};

TEST_F(ReadmeLoop, ReadsAValueAlsoAfterATimeOut)
{
    defineTags(R"({"name": "Level", "type": "INT", "length": 3, "value": [7, 8, 9]})");
    QList<varName> names = {varName{QStringLiteral("Level"), 2, 0, {}}};
    QList<HOSTVAR> variables = {hostVar("Level", "0", 1)};
    const FinishCallback onFinished = nullptr;
    const RefreshCallback onRefresh = nullptr;
    QByteArray bytes;
    Port port = {*this, 5};
    try {
#include "readme_blocks.h"
    } catch (const Finished&) {
    }
    EXPECT_BYTES(bytes, wire::hex("07 00"));
    ASSERT_EQ(frames.size(), 5);
    EXPECT_BYTES(frames.at(3), frames.at(2)) << "the lost request is sent again";
    EXPECT_NE(frames.at(4), frames.at(3));
}

} // namespace
