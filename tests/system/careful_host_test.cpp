// The example examples/careful-host.cpp as a program, on a line with faults of every kind. What it
// prints is compared with what the controller has and with what the controller did.

#include "byte_arrays.h"
#include "simulator_thread.h"
#include "wire.h"

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QStringList>
#include <QtCore/QTemporaryDir>

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

namespace {

using micro850::Bytes;
using micro850::sim::Controller;

const char kTags[] = R"({"tags": [
    {"name": "Speed", "type": "INT", "value": -1234},
    {"name": "Recipe", "type": "DINT", "length": 20, "value": [0, 1000, 2000, 3000, 4000, 5000,
        6000, 7000, 8000, 9000, 10000, 11000, 12000, 13000, 268439570, 15000, 16000, 17000, 18000,
        -19000]},
    {"name": "ProductName", "type": "SHORT_STRING", "value": "Apple juice"}]})";
const QStringList kNames = {"Speed", "Recipe", "ProductName"};
const QString kOldSpeed = "Speed = -1234";
const QString kNewSpeed = "Speed = 4112";
const QString kRecipe = "Recipe = 0 1000 2000 3000 4000 5000 6000 7000 8000 9000 10000 11000 12000 "
                        "13000 268439570 15000 16000 17000 18000 -19000";
const QString kName = "ProductName = \"Apple juice\"";
const char kOldBytes[] = "2E FB";
const char kNewBytes[] = "10 10"; // each is doubled on the line

/// What the controller did with one request.
struct Handled
{
    QString tag; ///< empty for a request of the connection set-up
    bool isWrite = false;
    QByteArray request;
    QByteArray reply;
    /// As the host prints it: "00", "0E", "FF/2105".
    QString status;
};

QString statusOf(const QByteArray& reply, int cip)
{
    const QByteArray hex = reply.mid(cip + 2).toHex().toUpper();
    const QString general = QString::fromLatin1(hex.left(2));
    return hex.mid(2, 2) == "00"
               ? general
               : general + '/' + QString::fromLatin1(hex.mid(6, 2) + hex.mid(4, 2));
}

Handled decoded(const QByteArray& request, const QByteArray& reply)
{
    Handled handled;
    handled.request = request;
    handled.reply = reply;
    const bool connected = request.at(2) == '\x0A';
    if (connected) {
        handled.tag = QString::fromLatin1(request.mid(16, request.at(15)));
        handled.isWrite = request.at(12) == '\x53';
    }
    handled.status = statusOf(reply, connected ? 12 : 8);
    return handled;
}

class CarefulHost : public ::testing::Test
{
protected:
    CarefulHost()
    {
        QFile file(m_dir.filePath("tags.json"));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(kTags);
        file.close();
        m_plc = std::make_unique<SimulatorThread>(file.fileName().toStdString(),
                                                  m_dir.filePath("plc").toStdString());
        plc().with([this](Controller& controller) {
            controller.answerWith([this, &controller](const Bytes& message) {
                const std::optional<Bytes> reply = controller.server().handle(message);
                if (reply)
                    m_handled.push_back(decoded(toByteArray(message), toByteArray(*reply)));
                if (reply && m_afterwards)
                    m_afterwards(m_handled.back(), controller);
                return reply;
            });
        });
    }

    using Action = std::function<void(const Handled&, Controller&)>;
    /// Sets what happens when the controller has handled a request.
    void afterEach(const Action& action)
    {
        plc().with([&](Controller&) { m_afterwards = action; });
    }
    SimulatorThread& plc() { return *m_plc; }
    /// Waits until the controller is in this state; false when it is not within a minute. What the
    /// program sent last may still be on its way when the program has ended.
    bool reaches(const std::function<bool(Controller&)>& state)
    {
        bool is = false;
        for (int i = 0; i < 60000 && !is; ++i) {
            plc().with([&](Controller& controller) { is = state(controller); });
            if (!is)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return is;
    }

    /// Runs the program to its end; `lines` are what it printed.
    void run(const QStringList& arguments)
    {
        QProcess program;
        program.setProcessChannelMode(QProcess::MergedChannels);
        program.start(CAREFUL_HOST, QStringList(QString::fromStdString(plc().path())) + arguments);
        const bool ended = program.waitForFinished(120000);
        EXPECT_TRUE(ended);
        if (!ended) {
            program.kill();
            program.waitForFinished();
        }
        status = program.exitCode();
        EXPECT_EQ(program.exitStatus(), QProcess::NormalExit);
        lines = QString::fromUtf8(program.readAll()).split('\n');
        EXPECT_EQ(lines.takeLast(), QString());
    }

    /// Every line must be what the controller has and did, whatever happened on the line: the value
    /// of a tag, a refusal that the controller sent for that tag, or an outcome that claims
    /// nothing.
    void expectOnlyTruth(int passes)
    {
        QMap<QString, int> seen;
        bool written = false;
        for (const QString& line : lines) {
            const QString tag = line.section(QRegularExpression("( =|:) "), 0, 0);
            const bool ofTheWrite = line.contains("written");
            if (!ofTheWrite && tag != "connection")
                ++seen[tag];
            if (line == "Speed: written")
                written = true;
            if (ofTheWrite)
                continue;
            EXPECT_TRUE(isTrue(line, tag)) << line.toStdString();
        }
        for (const QString& name : kNames)
            EXPECT_GE(seen[name], passes) << name.toStdString();
        if (written) {
            EXPECT_EQ(inController(), kNewBytes);
        }
        if (!lines.filter(": not written").isEmpty()) {
            EXPECT_EQ(inController(), kOldBytes);
        }
    }

    std::string inController() { return wire::text(toByteArray(plc().element("Speed"))); }
    /// The requests that the controller handled.
    std::vector<Handled> handled()
    {
        std::vector<Handled> all;
        plc().with([&](Controller&) { all = m_handled; });
        return all;
    }
    QString output() const { return lines.join('\n'); }

    int status = -1;
    QStringList lines;

private:
    bool isTrue(const QString& line, const QString& tag)
    {
        if (line.contains(" = "))
            return isValue(line);
        if (line.contains(": refused, status "))
            return wasRefused(tag, line.section("status ", 1));
        return line.endsWith(": no answer") || line.endsWith(": no connection");
    }
    bool isValue(const QString& line)
    {
        return line == kOldSpeed || line == kRecipe || line == kName ||
               (line == kNewSpeed && inController() == kNewBytes);
    }
    bool wasRefused(const QString& tag, const QString& code)
    {
        for (const Handled& each : handled()) {
            if ((tag == "connection" ? each.tag.isEmpty() : each.tag == tag) && each.status == code)
                return true;
        }
        return false;
    }

    QTemporaryDir m_dir;
    std::vector<Handled> m_handled; // this and the next by the controller's thread
    Action m_afterwards;
    std::unique_ptr<SimulatorThread> m_plc;
};

const QStringList kPass = {kOldSpeed, kRecipe, kName};
const QStringList kPassAfter = {kNewSpeed, kRecipe, kName};

QStringList sorted(QStringList lines)
{
    lines.sort();
    return lines;
}

/// A pass prints its tags in the order of the replies.
QStringList sorted(QStringList first, const QString& write, const QStringList& second)
{
    return sorted(first + QStringList(write) + second);
}

TEST_F(CarefulHost, ReadsEveryElementWritesAndReadsBack)
{
    run({"2", "4112"});
    EXPECT_EQ(status, 0);
    ASSERT_EQ(lines.size(), 7) << output().toStdString();
    EXPECT_EQ(sorted(lines.mid(0, 3)), sorted(kPass));
    EXPECT_EQ(lines.at(3), "Speed: written");
    EXPECT_EQ(sorted(lines.mid(4)), sorted(kPassAfter));
    EXPECT_EQ(inController(), kNewBytes);
}

struct Trouble
{
    const char* name;
    const char* rules;
};
void PrintTo(const Trouble& trouble, std::ostream* out)
{
    *out << trouble.name;
}

std::string nameOf(const ::testing::TestParamInfo<Trouble>& trouble)
{
    return trouble.param.name;
}

/// Troubles that a host can overcome without a loss, each throughout a run.
class CarefulHostOvercomes : public CarefulHost, public ::testing::WithParamInterface<Trouble>
{
};

TEST_P(CarefulHostOvercomes, AndPrintsEveryValue)
{
    plc().faults(GetParam().rules);
    run({"4", "4112"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(sorted(lines), sorted(kPass + kPassAfter + kPassAfter, "Speed: written", kPassAfter));
    EXPECT_EQ(inController(), kNewBytes);
    int writes = 0;
    for (const Handled& each : handled())
        writes += each.isWrite ? 1 : 0;
    EXPECT_EQ(writes, 1) << "a write is executed once";
}

const Trouble kTroubles[] = {
    {"noise", R"({"fault": "insert", "byte": 3, "bytes": "FF 10 02 41 10 03 00 10", "rate": 0.3})"},
    {"flips", R"({"fault": "flip", "rate": 0.15})"},
    {"corrupt_CRC", R"({"fault": "flip", "byte": 28, "bit": 3, "rate": 0.3})"},
    {"lost_bytes", R"({"fault": "lose", "rate": 0.15})"},
    {"doubled_bytes", R"({"fault": "double", "rate": 0.15})"},
    {"a_shifting_00", R"({"fault": "insert", "byte": 5, "bytes": "00", "rate": 0.3})"},
    {"lost_replies", R"({"fault": "withhold", "message": [2, 4, 6, 9, 11, 14, 18]})"},
    {"lost_acknowledgements", R"({"fault": "withhold-ack", "rate": 0.5})"},
    {"duplicates", R"({"fault": "duplicate", "rate": 1})"},
    {"slow_replies", R"({"fault": "delay", "seconds": 0.3, "message": [3, 5, 8, 12, 13]})"},
    {"gaps", R"({"fault": "split", "seconds": 0.001, "rate": 1})"},
    {"refused_requests", R"({"fault": "nak", "on": "requests", "rate": 0.4})"},
    {"damaged_requests", R"({"fault": "flip", "on": "requests", "byte": 20, "rate": 0.3})"},
};
INSTANTIATE_TEST_SUITE_P(Line, CarefulHostOvercomes, ::testing::ValuesIn(kTroubles), nameOf);

/// Troubles that lose something, whatever a host does.
class CarefulHostAdmits : public CarefulHost, public ::testing::WithParamInterface<Trouble>
{
};

TEST_P(CarefulHostAdmits, WhatItDoesNotKnow)
{
    plc().faults(GetParam().rules);
    run({"3", "4112"});
    expectOnlyTruth(3);
    EXPECT_GE(plc().strikes(), 2u);
}

const Trouble kLosses[] = {
    {"much_noise", R"({"fault": "noise", "rate": 0.5}, {"fault": "noise", "on": "requests",
        "rate": 0.3})"},
    {"many_flips", R"({"fault": "flip", "rate": 0.5}, {"fault": "flip", "on": "requests",
        "rate": 0.3})"},
    {"many_lost_replies", R"({"fault": "withhold", "rate": 0.6})"},
    {"lost_requests", R"({"fault": "withhold", "on": "requests", "rate": 0.4})"},
    {"late_replies", R"({"fault": "delay", "seconds": 0.7, "rate": 0.3})"},
    {"overtaken_replies", R"({"fault": "delay", "later": 1, "rate": 0.3})"},
    {"other_replies", R"({"fault": "previous", "rate": 0.5})"},
    {"refusals", R"({"fault": "cip-error", "on": "requests", "status": 255, "extended": 8453,
        "rate": 0.4})"},
    {"a_forgetful_controller", R"({"fault": "cip-error", "on": "requests", "status": 1,
        "extended": 263, "rate": 0.3})"},
    {"pauses", R"({"fault": "hang-up", "seconds": 0.8, "rate": 0.15})"},
    {"everything", R"({"fault": "flip", "rate": 0.1}, {"fault": "withhold", "rate": 0.1},
        {"fault": "duplicate", "rate": 0.2}, {"fault": "previous", "rate": 0.1},
        {"fault": "cip-error", "on": "requests", "status": 5, "rate": 0.1},
        {"fault": "nak", "on": "requests", "rate": 0.1}, {"fault": "delay", "seconds": 0.4,
        "rate": 0.1})"},
};
INSTANTIATE_TEST_SUITE_P(Line, CarefulHostAdmits, ::testing::ValuesIn(kLosses), nameOf);

// The controller asks for an acknowledgement that has not come within a second.
TEST_F(CarefulHost, AcknowledgesTheLastReplyBeforeItEnds)
{
    run({"1"});
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(reaches([](Controller& each) { return !each.awaitsAcknowledgement(); }));
    plc().with([](Controller& controller) { EXPECT_EQ(controller.counters().undelivered, 0u); });
}

TEST_F(CarefulHost, ReportsARefusedReadAndLearnsNoTypeFromIt)
{
    // The requests are: identity, open, then the tags one after the other.
    plc().faults(R"({"fault": "cip-error", "on": "requests", "message": [3, 4], "status": 255,
                     "extended": 8453})");
    run({"2"});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(sorted(lines), sorted(QStringList{"Speed: refused, status FF/2105",
                                                "Recipe: refused, status FF/2105", kName} +
                                    kPass));
}

TEST_F(CarefulHost, ReportsARefusedWriteThatTheDriverCallsDone)
{
    plc().with([](Controller& controller) { controller.tags().find("Speed")->readOnly = true; });
    run({"2", "4112"});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(sorted(lines), sorted(kPass, "Speed: refused, status 0E", kPass));
}

TEST_F(CarefulHost, DoesNotWriteATagWhoseTypeItDoesNotKnow)
{
    plc().with([](Controller& controller) {
        micro850::sim::Tag tag = *controller.tags().find("Speed");
        tag.type = &micro850::cipTypeNamed("WORD");
        controller.tags().put(tag);
    });
    run({"1", "4112"});
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(lines.contains("Speed: has type D2")) << output().toStdString();
    EXPECT_EQ(lines.last(), "Speed: not written: its type is not known");
    EXPECT_EQ(inController(), kOldBytes);
}

TEST_F(CarefulHost, ShowsAShorterStringWithoutTheTailOfTheOldOne)
{
    afterEach([](const Handled& request, Controller& controller) {
        if (request.tag == "ProductName" && request.reply.size() > 20)
            controller.tags().find("ProductName")->elements[0] = toBytes(wire::hex("02 1B 6A"));
    });
    run({"2"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(lines.filter("ProductName"), QStringList({kName, "ProductName = \"%1Bj\""}));
}

TEST_F(CarefulHost, ReportsATypeThatADownloadHasChanged)
{
    afterEach([](const Handled& request, Controller& controller) {
        if (request.tag != "Speed")
            return;
        micro850::sim::Tag tag = *controller.tags().find("Speed");
        tag.type = &micro850::cipTypeNamed("UINT");
        controller.tags().put(tag);
    });
    run({"2"});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(lines.filter("Speed"), QStringList({kOldSpeed, "Speed: has type C7"}));
}

TEST_F(CarefulHost, ConnectsAgainWhenTheControllerHasForgottenTheConnection)
{
    int requests = 0;
    afterEach([&requests](const Handled&, Controller& controller) {
        if (++requests == 4) // identity, open and two of the tags
            controller.server().reset();
    });
    run({"2"});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(lines.filter("refused"), QStringList("ProductName: refused, status 01/0107"));
    int setUps = 0;
    for (const Handled& each : handled())
        setUps += each.tag.isEmpty() ? 1 : 0;
    EXPECT_EQ(setUps, 4) << "two requests for each of two set-ups";
    EXPECT_TRUE(lines.contains(kName)) << "in the second pass";
}

TEST_F(CarefulHost, TriesWithAnotherSerialNumberWhenAnotherHostHasTakenItsOwn)
{
    plc().faults(R"({"fault": "cip-error", "on": "requests", "message": 2, "status": 1,
                     "extended": 256})");
    run({"1"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(sorted(lines), sorted(QStringList("connection: refused, status 01/0100") + kPass));
    const std::vector<Handled> requests = handled();
    ASSERT_GE(requests.size(), 3u);
    EXPECT_NE(requests[1].request.mid(28, 4), requests[2].request.mid(28, 4));
}

TEST_F(CarefulHost, EndsASilentLineWithAReportForEachTag)
{
    plc().setSilent(true);
    run({"2"});
    EXPECT_EQ(status, 1);
    QStringList expected;
    for (const QString& name : kNames + kNames)
        expected += name + ": no connection";
    EXPECT_EQ(sorted(lines), sorted(expected));
}

// The line is dead from the second request of the array on: first for the rest of the pass, then
// for the write, which waits for a connection. After the controller's return it must not happen.
TEST_F(CarefulHost, DoesNotWriteLaterWhatItReportedAsNotWritten)
{
    plc().faults(R"({"fault": "hang-up", "on": "requests", "seconds": 7, "message": 7})");
    run({"6", "4112"});
    expectOnlyTruth(6);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(lines.filter("written"), QStringList("Speed: not written: no connection"));
    EXPECT_EQ(inController(), kOldBytes);
    EXPECT_EQ(lines.mid(lines.size() - 3).filter(" = ").size(), 3) << output().toStdString();
    for (const Handled& each : handled())
        EXPECT_FALSE(each.isWrite);
}

TEST_F(CarefulHost, SaysHowItIsUsed)
{
    run({});
    EXPECT_EQ(status, 2);
    EXPECT_EQ(lines, QStringList("careful-host: usage: careful-host DEVICE PASSES [SPEED]"));
    for (const char* speed : {"", "fast", "1.5", "7 ", "32768"}) {
        run({"1", speed});
        EXPECT_EQ(status, 2) << speed;
    }
    run({"0"});
    EXPECT_EQ(status, 2);
    EXPECT_TRUE(handled().empty());
}

} // namespace
