// Driver, poll loop and simulated controller over a real pseudo-terminal; in a run with
// MICRO850_TEST_LINE, with a device server between them. The tests wait for events, with limits
// that only a fault reaches.

#include "byte_arrays.h"
#include "device_server.h"
#include "simulator_thread.h"

#include "DriverLibrary.h"
#include "LineFactory.h"
#include "PollLoop.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QTemporaryDir>

#include <chrono>
#include <gtest/gtest.h>
#include <map>
#include <set>

namespace {

using micro850::Bytes;
using micro850::host::Operation;
using micro850::host::Quality;
using micro850::host::TagKey;

constexpr std::chrono::seconds kLimit(60);
/// For tests of single operations.
const char kOneVariable[] = R"([{"tag": "anInt", "type": "INT", "poll": "once"}])";

/// Tag, type and two values of each type, as text.
struct Example
{
    const char* tag;
    const char* type;
    const char* initial;
    const char* written;
};

const Example kExamples[] = {
    {"aBool", "BOOL", "true", "false"},
    {"aSint", "SINT", "-5", "16"},
    {"anInt", "INT", "-12345", "4112"},
    {"aDint", "DINT", "-123456789", "269488144"},
    {"aLint", "LINT", "-9007199254740993", "1157442765409226768"},
    {"aUsint", "USINT", "200", "16"},
    {"aUint", "UINT", "65535", "4112"},
    {"aUdint", "UDINT", "4294967295", "1"},
    {"aUlint", "ULINT", "18446744073709551615", "1"},
    {"aReal", "REAL", "0.1", "-2.5"},
    {"anLreal", "LREAL", "0.1", "1e+100"},
    {"anStime", "STIME", "-1000", "1000"},
    {"aDate", "DATE", "19000", "19001"},
    {"aTimeOfDay", "TIME_OF_DAY", "21600000", "1"},
    {"aDateAndTime", "DATE_AND_TIME", "1700000000000", "1"},
    {"aByte", "BYTE", "0xA5", "0x10"},
    {"aWord", "WORD", "0x1234", "0x1010"},
    {"aDword", "DWORD", "0x89ABCDEF", "0x10101010"},
    {"anLword", "LWORD", "0x0123456789ABCDEF", "0x1010101010101010"},
    {"anFtime", "FTIME", "250", "-250"},
    {"anLtime", "LTIME", "123456789", "-1"},
    {"anItime", "ITIME", "1500", "-1500"},
    {"aTime", "TIME", "2500", "60000"},
    {"aText", "SHORT_STRING", "Apple juice", "Pear"},
};

// The initial values of dates and durations, as they are shown. The DATE_AND_TIME is beyond a day.
const std::map<std::string, std::string> kShownInitially = {
    {"STIME", "-PT1S"},      {"DATE", "2024-01-08"},     {"TIME_OF_DAY", "06:00:00"},
    {"FTIME", "PT0.00025S"}, {"LTIME", "PT2M3.456789S"}, {"ITIME", "PT1.5S"},
    {"TIME", "PT2.5S"}};

std::string shownInitially(const Example& example)
{
    const auto shown = kShownInitially.find(example.type);
    return shown == kShownInitially.end() ? example.initial : shown->second;
}

Bytes bytesOf(const char* type, const char* text)
{
    return micro850::valueFromText(micro850::cipTypeNamed(type), text);
}

/// True for a type of several bytes that the driver transfers as single bytes.
bool isMovedInPieces(const std::string& type)
{
    const std::set<std::string> types = {"STIME", "DATE",  "TIME_OF_DAY", "DATE_AND_TIME",
                                         "WORD",  "DWORD", "LWORD",       "FTIME",
                                         "LTIME", "ITIME", "TIME"};
    return types.count(type) != 0;
}

std::string tagFile()
{
    std::string text = "{\"tags\": [\n";
    for (const Example& example : kExamples) {
        text += std::string("{\"name\": \"") + example.tag + "\", \"type\": \"" + example.type +
                "\", \"value\": \"" + example.initial + "\"},\n";
    }
    return text + R"({"name": "words", "type": "INT", "length": 300, "value": [10, 11, 12]},
                     {"name": "doubles", "type": "DINT", "length": 20, "value": [7, 8, 9]},
                     {"name": "count", "type": "DINT",
                      "motion": {"kind": "counter", "min": 0, "max": 1000000000, "period": 0.01}}]})";
}

class PollTest : public ::testing::Test
{
protected:
    PollTest()
    {
        EXPECT_TRUE(m_dir.isValid());
        const std::string tags = m_dir.filePath("plant.tags.json").toStdString();
        QFile file(QString::fromStdString(tags));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(tagFile().c_str());
        file.close();
        m_simulator = std::make_unique<SimulatorThread>(tags, m_dir.filePath("plc").toStdString());
        if (const auto protocol = protocolOfTheRun()) {
            DeviceServer::Settings settings;
            settings.protocol = *protocol;
            settings.device = QString::fromStdString(m_simulator->path());
            m_server = std::make_unique<DeviceServer>(settings);
            EXPECT_TRUE(m_server->start());
        }
    }

    /// Makes the host for a project with these stations and variables (JSON arrays).
    void use(const std::string& variables, const std::string& stations = R"([{"number": 1}])")
    {
        const std::string text = "{\"port\": {\"device\": \"" + port() +
                                 "\"}, \"stations\": " + stations +
                                 ", \"variables\": " + variables + "}";
        m_project = micro850::host::Project::fromText(QString::fromStdString(text), "project");
        m_library = std::make_unique<micro850::host::DriverLibrary>(MICRO850_LIBRARY);
        m_line = micro850::host::lineFor(m_project.port);
        m_loop = std::make_unique<micro850::host::PollLoop>(m_library->api(), *m_line, m_clock,
                                                            m_project);
    }

    micro850::host::PollLoop& loop() { return *m_loop; }
    SimulatorThread& simulator() { return *m_simulator; }

    /// Steps until the condition holds; false when the limit is reached first.
    template<typename Condition> bool runUntil(Condition condition)
    {
        const auto end = std::chrono::steady_clock::now() + kLimit;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            loop().step();
        }
        return true;
    }

    const Operation* finished(int id)
    {
        runUntil([&] { return loop().outcome(id) != nullptr; });
        return loop().outcome(id);
    }

    const Operation* written(const Example& example)
    {
        const TagKey tag = {1, example.tag};
        const Bytes value = bytesOf(example.type, example.written);
        loop().declare(tag);
        return finished(loop().write(tag, 0, toByteArray(value)));
    }

    std::string shown(int variable) { return loop().values().text(variable).toStdString(); }
    bool isGood(int variable) { return loop().quality(variable) == Quality::Good; }

    static std::string variablesOf(const char* poll)
    {
        std::string text = "[";
        for (const Example& example : kExamples) {
            text += std::string(text.size() > 1 ? ", " : "") + "{\"tag\": \"" + example.tag +
                    "\", \"type\": \"" + example.type + "\", \"poll\": \"" + poll + "\"}";
        }
        return text + "]";
    }

private:
    std::string port() const
    {
        return m_server ? m_server->address().toStdString() : m_simulator->path();
    }

    QTemporaryDir m_dir;
    std::unique_ptr<SimulatorThread> m_simulator;
    std::unique_ptr<DeviceServer> m_server;
    micro850::SystemClock m_clock;
    micro850::host::Project m_project;
    std::unique_ptr<micro850::host::DriverLibrary> m_library;
    std::unique_ptr<micro850::host::Line> m_line;
    std::unique_ptr<micro850::host::PollLoop> m_loop;
};

TEST_F(PollTest, ReadsAScalarOfEveryTypeCyclically)
{
    use(variablesOf("cyclic"));
    const int count = static_cast<int>(std::size(kExamples));

    ASSERT_TRUE(runUntil([&] {
        int good = 0;
        for (int i = 0; i < count; ++i)
            good += isGood(i);
        return good == count;
    }));

    for (int i = 0; i < count; ++i)
        EXPECT_EQ(shown(i), shownInitially(kExamples[i])) << kExamples[i].type;
}

TEST_F(PollTest, ShowsEveryElementOfAnArrayAndAValueThatChanges)
{
    use(R"([{"tag": "words", "type": "INT", "length": 300},
            {"tag": "doubles", "type": "DINT", "length": 20}, {"tag": "count", "type": "DINT"}])");

    ASSERT_TRUE(runUntil([&] { return isGood(0) && isGood(1) && isGood(2); }));
    const QStringList words = loop().values().texts(0);
    const std::string before = shown(2);

    ASSERT_EQ(words.size(), 300);
    EXPECT_EQ(words.mid(0, 4), (QStringList{"10", "11", "12", "0"}));
    EXPECT_EQ(loop().values().texts(1).mid(0, 4), (QStringList{"7", "8", "9", "0"}));
    EXPECT_TRUE(runUntil([&] { return shown(2) != before; }));
}

TEST_F(PollTest, SeesAChangeOfTheLastElementOfALongArray)
{
    use(R"([{"tag": "words", "type": "INT", "length": 300}])");
    ASSERT_TRUE(runUntil([&] { return isGood(0); }));
    simulator().with([](auto& controller) {
        controller.tags().find("words")->elements[299] = {0x34, 0x12};
    });
    EXPECT_TRUE(runUntil([&] { return loop().values().texts(0).last() == "4660"; }));
}

TEST_F(PollTest, ReadsATagOnceThatNoVariableNames)
{
    use(kOneVariable);
    const TagKey tag = {1, "words"};
    loop().declare(tag);
    const Operation* operation = finished(loop().read(tag, 1, 2));
    ASSERT_NE(operation, nullptr);
    EXPECT_EQ(operation->state, Operation::State::Done) << operation->error.toStdString();
    EXPECT_EQ(operation->result.toHex().toStdString(), "0b000c00");
}

TEST_F(PollTest, WritesAValueOfEveryTypeThatIsTransferredByElements)
{
    use(kOneVariable);
    for (const Example& example : kExamples) {
        if (isMovedInPieces(example.type))
            continue;
        const Operation* operation = written(example);
        ASSERT_NE(operation, nullptr) << example.type;
        EXPECT_EQ(operation->state, Operation::State::Done)
            << example.type << ": " << operation->error.toStdString();
        EXPECT_EQ(simulator().element(example.tag), bytesOf(example.type, example.written))
            << example.type;
    }
}

// The frame announces as many elements as the value has bytes, so that the controller finds too few
// bytes.
TEST_F(PollTest, AWriteOfAWideTypeThatIsTransferredByteByByteIsRefusedAsDocumented)
{
    use(kOneVariable);
    for (const Example& example : kExamples) {
        if (!isMovedInPieces(example.type))
            continue;
        const Operation* operation = written(example);
        ASSERT_NE(operation, nullptr) << example.type;
        EXPECT_EQ(operation->state, Operation::State::Refused) << example.type;
        EXPECT_EQ(simulator().element(example.tag), bytesOf(example.type, example.initial))
            << example.type;
    }
}

TEST_F(PollTest, WritesOneElementOfAnArrayWithoutChangingItsNeighbours)
{
    use(R"([{"tag": "words", "type": "INT", "length": 300}])");
    const Operation* operation = finished(loop().write({1, "words"}, 256, QByteArray("\x10\x10")));
    ASSERT_NE(operation, nullptr);
    EXPECT_EQ(operation->state, Operation::State::Done);
    EXPECT_EQ(simulator().element("words", 256), (Bytes{0x10, 0x10}));
    EXPECT_EQ(simulator().element("words", 255), (Bytes{0, 0}));
    EXPECT_EQ(simulator().element("words", 257), (Bytes{0, 0}));
    EXPECT_EQ(simulator().element("words", 0), (Bytes{10, 0}));
}

TEST_F(PollTest, ReportsThatTheControllerDoesNotKnowATag)
{
    use(kOneVariable);
    const TagKey tag = {1, "missing"};
    loop().declare(tag);
    const Operation* operation = finished(loop().read(tag, 0, 1));
    ASSERT_NE(operation, nullptr);
    EXPECT_EQ(operation->state, Operation::State::Refused);
    EXPECT_FALSE(operation->error.isEmpty());
}

TEST_F(PollTest, PollsTwoStationsEachOnItsOwnConnection)
{
    use(R"([{"name": "first", "tag": "anInt", "type": "INT", "station": 1},
            {"name": "second", "tag": "aDint", "type": "DINT", "station": 2}])",
        R"([{"number": 1}, {"number": 2}])");
    ASSERT_TRUE(runUntil([&] { return isGood(0) && isGood(1); }));
    EXPECT_EQ(shown(0), "-12345");
    EXPECT_EQ(shown(1), "-123456789");
    EXPECT_TRUE(loop().stations().value(1).alive());
    EXPECT_TRUE(loop().stations().value(2).alive());
}

TEST_F(PollTest, SendsNothingToADisabledStation)
{
    use(R"([{"name": "first", "tag": "anInt", "type": "INT", "station": 1},
            {"name": "second", "tag": "aDint", "type": "DINT", "station": 2}])",
        R"([{"number": 1}, {"number": 2, "enabled": false}])");
    ASSERT_TRUE(runUntil([&] { return loop().stations().value(1).counters().answered > 50; }));
    EXPECT_EQ(loop().quality(1), Quality::Never);
    EXPECT_EQ(loop().stations().value(2).counters().sent, 0);
    EXPECT_EQ(loop().stations().value(2).state(), micro850::host::Station::State::Disabled);
}

TEST_F(PollTest, MarksTheLastValueStaleWhileTheControllerIsSilentAndRecovers)
{
    use(R"([{"tag": "count", "type": "DINT"}])");
    ASSERT_TRUE(runUntil([&] { return isGood(0); }));

    simulator().setSilent(true);
    ASSERT_TRUE(runUntil([&] { return loop().quality(0) == Quality::Stale; }));
    EXPECT_NE(shown(0), "");
    EXPECT_FALSE(loop().stations().value(1).alive());

    simulator().setSilent(false);
    EXPECT_TRUE(runUntil([&] { return isGood(0); }));
}

TEST_F(PollTest, RecoversFromAPowerCycleOfTheController)
{
    use(R"([{"tag": "anInt", "type": "INT"}])");
    ASSERT_TRUE(runUntil([&] { return isGood(0); }));
    simulator().with([](auto& controller) {
        controller.powerCycle(false);
        controller.tags().find("anInt")->elements[0] = {0x05, 0x00};
    });
    EXPECT_TRUE(runUntil([&] { return shown(0) == "5"; }));
}

TEST_F(PollTest, OpensTheDeviceAgainAfterTheCableWasPulled)
{
    use(R"([{"tag": "count", "type": "DINT"}])");
    ASSERT_TRUE(runUntil([&] { return isGood(0); }));

    simulator().pullCable();
    ASSERT_TRUE(runUntil([&] { return !loop().lineIsUp(); }));
    EXPECT_NE(loop().quality(0), Quality::Good);

    simulator().putCableBack();
    EXPECT_TRUE(runUntil([&] { return isGood(0); }));
    EXPECT_GE(loop().lineReconnects(), 1);
}

} // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
