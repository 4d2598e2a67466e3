#include "EventFeed.h"

#include "web_parts.h"

using namespace micro850;
using namespace micro850::gateway;
using namespace micro850::gateway::test;

namespace {

struct Event
{
    QByteArray id;
    QByteArray name;
    nlohmann::json data;
};

std::vector<Event> eventsIn(const QByteArray& text)
{
    std::vector<Event> events;
    for (const QByteArray& block :
         QString::fromUtf8(text).toUtf8().replace("\n\n", "\x01").split(1)) {
        Event event;
        for (const QByteArray& line : block.split('\n')) {
            if (line.startsWith("id: "))
                event.id = line.mid(4);
            else if (line.startsWith("event: "))
                event.name = line.mid(7);
            else if (line.startsWith("data: "))
                event.data = nlohmann::json::parse(line.mid(6).toStdString());
        }
        if (!event.name.isEmpty())
            events.push_back(event);
    }
    return events;
}

QByteArray manyVariables(int count)
{
    Json project = {{"port", {{"device", "/dev/ttyS0"}}}, {"variables", Json::array()}};
    for (int i = 0; i < count; ++i)
        project["variables"].push_back(
            {{"name", "Number " + std::to_string(i)}, {"tag", "TAG" + std::to_string(i)}});
    return QByteArray::fromStdString(project.dump());
}

class EventFeedTest : public WebPartsTest, public LineListener
{
protected:
    EventFeed feed{context, [this](const Caller&) { return isAdmitted; }};
    bool isAdmitted = true;

    void SetUp() override { lines.addListener(*this); }
    void TearDown() override { lines.removeListener(*this); }
    void handleValue(int line, int variable) override
    {
        context.values.forget(context.index.numberOf(line, variable));
        feed.addValue(context.index.numberOf(line, variable));
    }
    void handleReload() override
    {
        context.index.rebuild();
        context.values.reset();
        ++context.generation;
        feed.handleReload();
    }

    std::shared_ptr<HttpStream> open(const QByteArray& lastId = QByteArray())
    {
        return feed.open(Caller(), lastId);
    }
    void setSpeed(int speed) { lines.setValue(0, 0, "INT", speed, QByteArray(2, '\0')); }
    void tellState(const QString& state)
    {
        LineEvent event;
        event.line = QStringLiteral("press");
        event.state = state;
        feed.addEvent("state", event);
    }
};

// The values of a variable in the order in which they came.
std::vector<int> valuesOf(const std::vector<Event>& events, const std::string& name)
{
    std::vector<int> values;
    for (const Event& event : events) {
        if (!event.data.contains("values"))
            continue;
        for (const auto& value : event.data["values"]) {
            if (value["name"] == name && value["value"].is_number())
                values.push_back(value["value"]);
        }
    }
    return values;
}

} // namespace

TEST_F(EventFeedTest, BeginsWithAllValues)
{
    setSpeed(7);
    const auto reader = open();
    const std::vector<Event> events = eventsIn(readAll(*reader));
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].name, "snapshot");
    EXPECT_EQ(events[0].data["values"].size(), 3U);
    EXPECT_EQ(events[0].data["values"][0]["value"], 7);
    EXPECT_FALSE(events[0].data.contains("more"));
}

TEST_F(EventFeedTest, TellsAllReadersOnceOfEachChange)
{
    const auto one = open();
    const auto other = open();
    readAll(*one);
    readAll(*other);
    setSpeed(1);
    setSpeed(2);
    EXPECT_TRUE(readAll(*one).isEmpty());
    feed.flush();
    const QByteArray text = readAll(*one);
    EXPECT_EQ(valuesOf(eventsIn(text), "Speed"), std::vector<int>{2});
    EXPECT_EQ(readAll(*other), text);
}

TEST_F(EventFeedTest, GoesOnAfterTheLastEventOfAReaderThatComesBack)
{
    auto reader = open();
    readAll(*reader);
    setSpeed(1);
    feed.flush();
    const std::vector<Event> seen = eventsIn(readAll(*reader));
    reader.reset();
    EXPECT_EQ(feed.readers(), 0);
    setSpeed(2);
    feed.flush();
    tellState(QStringLiteral("dead"));
    reader = open(seen.back().id);
    const std::vector<Event> missed = eventsIn(readAll(*reader));
    ASSERT_EQ(missed.size(), 3U);
    EXPECT_EQ(valuesOf(missed, "Speed"), std::vector<int>{2});
    EXPECT_EQ(missed[1].data["state"], "dead");
    EXPECT_EQ(missed[2].name, "ages"); // as they are now
    EXPECT_EQ(missed[2].id, missed[1].id);
    EXPECT_TRUE(readAll(*reader).isEmpty());
}

// Ages tell a reader that it knows all. Those of the time when it was away would make an old value
// look fresh.
TEST_F(EventFeedTest, TellsAgesToAReaderThatComesBackOnlyAfterWhatItMissed)
{
    auto reader = open();
    const QByteArray id = eventsIn(readAll(*reader)).back().id;
    const auto other = open();
    reader.reset();
    feed.tellTimes();
    setSpeed(2);
    feed.flush();
    reader = open(id);
    setSpeed(3);
    feed.flush();
    const std::vector<Event> missed = eventsIn(readAll(*reader));
    ASSERT_EQ(missed.size(), 3U);
    EXPECT_EQ(missed[0].name, "values");
    EXPECT_EQ(missed[1].name, "ages");
    EXPECT_EQ(missed[2].name, "values");
    EXPECT_EQ(valuesOf(missed, "Speed"), (std::vector<int>{2, 3}));
}

TEST_F(EventFeedTest, TellsNoAgesOfOtherVariablesToAReaderThatMissedAReload)
{
    auto reader = open();
    const QByteArray id = eventsIn(readAll(*reader)).back().id;
    reader.reset();
    tellState(QStringLiteral("dead"));
    lines.setLines({lineOfProject(QStringLiteral("press"), manyVariables(5))});
    reader = open(id);
    const std::vector<Event> missed = eventsIn(readAll(*reader));
    ASSERT_EQ(missed.size(), 3U);
    EXPECT_EQ(missed[0].data["state"], "dead");
    EXPECT_EQ(missed[1].name, "reloaded");
    EXPECT_EQ(missed[2].name, "snapshot");
}

TEST_F(EventFeedTest, TellsOfAReloadThatASlowReaderMissed)
{
    const auto reader = open();
    readAll(*reader);
    lines.setLines({lineOfProject(QStringLiteral("press"), manyVariables(5))});
    const QString longText(10000, 'x');
    for (qint64 bytes = 0; bytes < 2 * RecentEvents::kMostBytes; bytes += longText.size())
        tellState(longText);
    std::vector<Event> events = eventsIn(readAll(*reader));
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].name, "reloaded");
    EXPECT_EQ(events[1].name, "snapshot");
    EXPECT_EQ(events[1].data["values"].size(), 5U);
    // It knows of it now.
    for (qint64 bytes = 0; bytes < 2 * RecentEvents::kMostBytes; bytes += longText.size())
        tellState(longText);
    events = eventsIn(readAll(*reader));
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].name, "snapshot");
}

TEST_F(EventFeedTest, GoesOnAfterTheValuesThatAReaderHas)
{
    setSpeed(1);
    const QByteArray id = feed.lastEvent();
    EXPECT_EQ(feed.readers(), 0);
    auto reader = feed.openAfter(Caller(), id);
    std::vector<Event> events = eventsIn(readAll(*reader));
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].name, "ages");
    reader.reset();
    setSpeed(2);
    feed.flush();
    setSpeed(3);
    feed.flush();
    tellState(QStringLiteral("dead"));
    reader = feed.openAfter(Caller(), id);
    setSpeed(4);
    feed.flush();
    events = eventsIn(readAll(*reader));
    // It may know the 3 already: it never gets the 2.
    EXPECT_EQ(valuesOf(events, "Speed"), std::vector<int>{4});
    EXPECT_EQ(std::count_if(events.begin(), events.end(),
                            [](const Event& event) { return event.name == "state"; }),
              1);
    EXPECT_EQ(std::count_if(events.begin(), events.end(),
                            [](const Event& event) { return event.name == "snapshot"; }),
              0);
}

TEST_F(EventFeedTest, BeginsAnewForAReaderWhoseValuesAreTooOld)
{
    const QByteArray id = feed.lastEvent();
    clock.advance(std::chrono::seconds(61));
    setSpeed(1);
    for (const QByteArray& one : {id, QByteArray("other-1"), QByteArray("1")}) {
        const auto reader = feed.openAfter(Caller(), one);
        const std::vector<Event> events = eventsIn(readAll(*reader));
        ASSERT_EQ(events.size(), 2U) << one.constData();
        EXPECT_EQ(events[0].name, "reloaded");
        EXPECT_EQ(events[1].name, "snapshot");
    }
}

TEST_F(EventFeedTest, GoesOnForAReaderThatWentAtOnce)
{
    auto reader = open();
    const QByteArray id = eventsIn(readAll(*reader)).back().id;
    reader.reset();
    setSpeed(3);
    feed.flush();
    reader = open(id);
    const std::vector<Event> missed = eventsIn(readAll(*reader));
    EXPECT_EQ(missed.front().name, "values");
    EXPECT_EQ(valuesOf(missed, "Speed"), std::vector<int>{3});
}

TEST_F(EventFeedTest, BeginsAnewForTheIdOfAnotherRun)
{
    const auto reader = open("123abc-2");
    const std::vector<Event> events = eventsIn(readAll(*reader));
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].name, "reloaded");
    EXPECT_EQ(events[1].name, "snapshot");
}

TEST_F(EventFeedTest, BeginsAnewForAnIdThatItNeverGave)
{
    const auto first = open();
    const QByteArray id = eventsIn(readAll(*first)).back().id;
    const QByteArray run = id.left(id.indexOf('-'));
    for (const QByteArray& bad :
         {run + "-99999", run + "-", run + "--3", run + "-0", QByteArray("-"), QByteArray("x"),
          run + "-99999999999999999999", QByteArray(8000, '7')})
    {
        const auto reader = open(bad);
        EXPECT_EQ(eventsIn(readAll(*reader)).back().name, "snapshot") << bad.constData();
    }
}

TEST_F(EventFeedTest, BeginsAnewWhenNobodyHasReadForAMinute)
{
    auto reader = open();
    const QByteArray id = eventsIn(readAll(*reader)).back().id;
    reader.reset();
    clock.advance(std::chrono::seconds(61));
    setSpeed(9); // nobody needs it: it is not kept
    feed.flush();
    reader = open(id);
    const std::vector<Event> events = eventsIn(readAll(*reader));
    EXPECT_EQ(events.back().name, "snapshot");
    EXPECT_EQ(valuesOf(events, "Speed"), std::vector<int>{9});
}

TEST_F(EventFeedTest, GivesTheNewestValuesToAReaderThatReadsNothingForLong)
{
    const auto reader = open();
    readAll(*reader);
    int speed = 0;
    for (qint64 bytes = 0; bytes < 3 * RecentEvents::kMostBytes; bytes += 200) {
        setSpeed(++speed % 30000);
        feed.flush();
    }
    const std::vector<Event> events = eventsIn(readAll(*reader));
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].name, "snapshot");
    EXPECT_EQ(valuesOf(events, "Speed"), std::vector<int>{speed % 30000});
}

// A reader takes a long snapshot byte by byte while all values change.
TEST_F(EventFeedTest, NeverGoesBackToAnEarlierValueDuringASlowSnapshot)
{
    const int kVariables = 300;
    lines.setLines({lineOfProject(QStringLiteral("press"), manyVariables(kVariables))});
    const auto reader = open();
    QByteArray text;
    for (int round = 1; round <= 40; ++round) {
        for (int variable = 0; variable < kVariables; ++variable)
            lines.setValue(0, variable, "INT", round, QByteArray(2, '\0'));
        feed.flush();
        tellState(QString::number(round));
        QByteArray piece(7000, '\0');
        const int got = reader->read(piece.data(), piece.size());
        ASSERT_GT(got, 0);
        text += piece.left(got);
    }
    text += readAll(*reader);
    const std::vector<Event> events = eventsIn(text);
    for (int variable = 0; variable < kVariables; ++variable) {
        const std::vector<int> values = valuesOf(events, "Number " + std::to_string(variable));
        ASSERT_FALSE(values.empty());
        EXPECT_TRUE(std::is_sorted(values.begin(), values.end())) << variable;
        EXPECT_EQ(values.back(), 40) << variable;
    }
    // States are all told, in their order.
    std::vector<int> states;
    for (const Event& event : events) {
        if (event.name == "state")
            states.push_back(std::stoi(event.data["state"].get<std::string>()));
    }
    EXPECT_EQ(states.size(), 40U);
    EXPECT_TRUE(std::is_sorted(states.begin(), states.end()));
}

TEST_F(EventFeedTest, GivesASnapshotAgainToAReaderThatWentInTheMiddleOfIt)
{
    lines.setLines({lineOfProject(QStringLiteral("press"), manyVariables(300))});
    auto reader = open();
    const std::vector<Event> parts = eventsIn(readAll(*reader));
    ASSERT_GT(parts.size(), 2U);
    EXPECT_TRUE(parts[0].data["more"]);
    reader = open(parts[0].id);
    const std::vector<Event> again = eventsIn(readAll(*reader));
    std::size_t values = 0;
    for (const Event& event : again)
        values += event.name == "snapshot" ? event.data["values"].size() : 0;
    EXPECT_EQ(values, 300U);
    reader = open(parts.back().id);
    EXPECT_EQ(eventsIn(readAll(*reader)).back().name, "ages");
}

TEST_F(EventFeedTest, TellsAgesInTheOrderOfTheVariables)
{
    const auto reader = open();
    readAll(*reader);
    setSpeed(1);
    feed.tellTimes();
    const std::vector<Event> events = eventsIn(readAll(*reader));
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].name, "ages");
    EXPECT_EQ(events[0].data, nlohmann::json::parse(R"({"ages": {"press": [40, null, null]}})"));
    EXPECT_EQ(events[1].name, "status");
    EXPECT_EQ(events[1].data["program"], "it");
}

TEST_F(EventFeedTest, TellsOnlyTheNewestAgesToASlowReader)
{
    const auto reader = open();
    readAll(*reader);
    for (int i = 0; i < 100; ++i)
        feed.tellTimes();
    EXPECT_EQ(eventsIn(readAll(*reader)).size(), 2U);
}

TEST_F(EventFeedTest, BeginsAnewAfterAReload)
{
    const auto reader = open();
    const QByteArray before = eventsIn(readAll(*reader)).back().id;
    setSpeed(5);
    lines.setLines({lineOfProject(QStringLiteral("oven"), manyVariables(1))});
    std::vector<Event> events = eventsIn(readAll(*reader));
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].name, "reloaded");
    EXPECT_EQ(events[1].data["values"].size(), 1U);
    EXPECT_EQ(events[1].data["values"][0]["line"], "oven");
    const auto other = open(before);
    events = eventsIn(readAll(*other));
    EXPECT_EQ(events[events.size() - 2].name, "reloaded");
    EXPECT_EQ(events.back().name, "snapshot");
}

TEST_F(EventFeedTest, EndsTheStreamOfAReaderWhoMayNoLongerRead)
{
    const auto reader = open();
    readAll(*reader);
    isAdmitted = false;
    feed.tellTimes();
    char byte = 0;
    EXPECT_EQ(reader->read(&byte, 1), HttpStream::kEnd);
    EXPECT_EQ(feed.readers(), 0);
}

TEST_F(EventFeedTest, KeepsTextsWithinTheirEvent)
{
    const auto reader = open();
    readAll(*reader);
    tellState(QStringLiteral("a\n\nevent: values\rdata: <img onerror=x>"));
    const std::vector<Event> events = eventsIn(readAll(*reader));
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].data["state"], "a\n\nevent: values\rdata: <img onerror=x>");
}
