// A client of the gateway: any bytes. What comes back are complete messages, a limited number of
// them waits, every write is reported, and the replies are the same however the bytes are cut.
// Values as a worker sends them: what is accepted has one meaning.
//
// The input is four bytes, the lengths of the pieces, and lines: those that begin with ! are what
// happens to the gateway, all others come from the client.

#include "Client.h"
#include "UserError.h"
#include "complaint.h"
#include "fake_lines.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace {

using namespace micro850;
using namespace micro850::gateway;
using host::OutputBuffer;

const char kProject[] = R"({
  "port": {"device": "/dev/ttyS0"},
  "variables": [
    {"name": "Speed", "tag": "SPEED", "type": "INT", "unit": "rpm", "writable": true, "maximum": 100},
    {"name": "Level", "tag": "LEVEL", "gain": 0.5, "intervalMs": 100, "writable": true,
     "writesPerMinute": 2, "minimum": -1},
    {"name": "List", "tag": "LIST", "element": 10, "length": 3, "writable": true},
    {"name": "Unknown", "tag": "UNKNOWN", "writable": true, "minimum": 0.5, "maximum": 10},
    {"name": "Text", "tag": "TEXT", "type": "SHORT_STRING", "writable": true},
    {"name": "Locked", "tag": "SPEED"}
  ]})";
const char kOtherProject[] = R"({
  "port": {"device": "/dev/ttyS0"},
  "variables": [{"name": "Level", "tag": "OTHER", "writable": true}]})";

LineSettings parsedOnce(const char* project)
{
    return test::lineOfProject(QStringLiteral("press"), project);
}

/// A gateway with one client.
class World
{
public:
    World()
    {
        m_client->begin();
        context.schedule = [] {};
    }

    void feed(const QByteArray& bytes, const QByteArray& cuts)
    {
        int piece = 0;
        for (int at = 0; at < bytes.size();) {
            const int cut =
                cuts.isEmpty() ? bytes.size() : static_cast<quint8>(cuts.at(piece++ % cuts.size()));
            const int size = std::min(std::max(cut, 1), bytes.size() - at);
            proceed();
            if (!m_client->wantsInput())
                return; // the server reads nothing either
            m_client->receive(bytes.constData() + at, size);
            at += size;
        }
        proceed();
    }
    void happen(const QByteArray& step)
    {
        switch (step.isEmpty() ? '\0' : step.at(0)) {
        case 'v':
            setValue(step.mid(1).toInt());
            break;
        case 'a':
            answer(step.mid(1));
            break;
        case 's':
            m_takes = !m_takes;
            break;
        case 't':
            m_clock.advance(std::chrono::seconds(31));
            m_client->checkTimes();
            m_client->sendAges([](int number) { return QByteArray::number(number); });
            break;
        case 'r':
            reload();
            break;
        case 'e':
            m_client->addEvent({0, "press", static_cast<int>(++m_events % 3) - 1, "dead", "x"});
            break;
        case 'h':
            answerHistory();
            break;
        default:
            break;
        }
        proceed();
    }
    /// Lets the client read everything and leave; then answers what still waits.
    void end()
    {
        m_takes = true;
        proceed();
        over = m_client->isOver();
        m_client.reset();
        while (!m_lines.asked.isEmpty())
            m_lines.answer({{"error", {{"code", "cancelled"}, {"text", "taken back"}}}});
        FUZZ_CHECK(context.waitingBytes == 0);
    }
    QVector<JournalEntry> journal() const { return m_lines.journal; }

    /// All that was sent, and the replies of it, sorted.
    QByteArray sent;
    QList<QByteArray> replies() const
    {
        QList<QByteArray> replies;
        for (const QByteArray& line : sent.split('\n')) {
            if (line.startsWith("{\"id\"") && !line.contains("\"uptimeS\""))
                replies << line;
        }
        std::sort(replies.begin(), replies.end());
        return replies;
    }
    bool over = false;

private:
    void proceed()
    {
        for (int i = 0; i < 1000 && m_client->wantsToProceed(); ++i) {
            m_client->proceed();
            if (!m_takes)
                break;
        }
        FUZZ_CHECK(m_client->isOver() || !m_takes || !m_client->wantsToProceed());
        FUZZ_CHECK(context.waitingBytes <= 5 * 1024 * 1024);
    }
    void setValue(int variable)
    {
        if (m_lines.size() == 0 || variable < 0 ||
            variable >= m_lines.line(0).project.variables.size())
            return;
        m_client->prepareChange(variable);
        m_lines.setValue(0, variable, variable == 4 ? "SHORT_STRING" : "INT", ++m_values);
        context.texts.forget(variable);
        m_client->addChange(variable);
    }
    void answer(const QByteArray& text)
    {
        if (m_lines.asked.isEmpty())
            return;
        try {
            m_lines.answer(host::jsonOf(host::messageIn(text, "reply")));
        } catch (const UserError& error) {
            fuzz::checkComplaint(error, "reply");
        }
    }
    void answerHistory()
    {
        if (m_history.asked.isEmpty())
            return;
        HistoryAnswer answer;
        answer.values = {Json{{"value", 1}}, Json{{"value", 2}}};
        m_history.asked.takeFirst().second(answer);
    }
    void reload()
    {
        static const LineSettings some = parsedOnce(kProject);
        static const LineSettings other = parsedOnce(kOtherProject);
        m_reloads = (m_reloads + 1) % 3;
        m_lines.setLines(m_reloads == 0   ? QVector<LineSettings>{some}
                         : m_reloads == 1 ? QVector<LineSettings>{other}
                                          : QVector<LineSettings>{});
        context.index.rebuild();
        context.texts.reset();
        m_client->handleReload();
    }

    test::FakeLines m_lines{{firstLine()}};
    VirtualClock m_clock;
    SettableWallClock m_wall{1795354200000};
    WriteRules m_rules{m_lines, m_clock, m_wall};
    test::FakeHistory m_history;

    static const LineSettings& firstLine()
    {
        static const LineSettings line = parsedOnce(kProject);
        return line;
    }

public:
    ClientContext context{ClientNeeds{m_lines, m_rules, m_history, m_clock,
                                      QStringLiteral("gateway 1"), [] {}, 1000}};

private:
    bool m_takes = true;
    unsigned m_events = 0;
    int m_values = 0;
    int m_reloads = 0;
    std::shared_ptr<Client> m_client = std::make_shared<Client>(
        context, Peer{1000, 1, QStringLiteral("x")}, [this](OutputBuffer& output) {
            if (m_takes)
                sent += output.takeAll();
            return output.isEmpty() ? OutputBuffer::Outcome::Sent : OutputBuffer::Outcome::Waiting;
        });
};

void checkMessages(const QByteArray& sent)
{
    FUZZ_CHECK(sent.endsWith('\n'));
    for (const QByteArray& line : sent.split('\n')) {
        FUZZ_CHECK(line.size() < host::kLongestReply);
        if (line.isEmpty())
            continue;
        const JsonNode message = host::messageIn(line, "message");
        FUZZ_CHECK(message.has("id") || message.has("event") || message.has("protocol"));
    }
}

void checkClient(const QByteArray& input)
{
    const QByteArray cuts = input.left(4);
    World whole;
    World pieces;
    for (const QByteArray& line : input.mid(4).split('\n')) {
        if (line.startsWith('!')) {
            whole.happen(line.mid(1));
            pieces.happen(line.mid(1));
        } else {
            whole.feed(line + '\n', QByteArray());
            pieces.feed(line + '\n', cuts);
        }
    }
    whole.end();
    pieces.end();
    checkMessages(whole.sent);
    checkMessages(pieces.sent);
    if (!whole.over && !pieces.over)
        FUZZ_CHECK(whole.replies() == pieces.replies());
    FUZZ_CHECK(whole.over || whole.journal().size() == pieces.journal().size());
    for (const JournalEntry& entry : whole.journal())
        FUZZ_CHECK(!entry.outcome.isEmpty() && entry.client.size() <= 100);
}

void checkValue(const QByteArray& text)
{
    try {
        const GatewayValue value =
            host::gatewayValueOf(host::jsonOf(host::messageIn(text, "value")));
        const QByteArray once = host::encoded(value);
        const GatewayValue again =
            host::gatewayValueOf(host::jsonOf(host::messageIn(once, "value")));
        FUZZ_CHECK(host::encoded(again) == once);
        FUZZ_CHECK(once == QByteArray::fromStdString(host::jsonOf(value).dump()));
    } catch (const UserError& error) {
        fuzz::checkShownText(std::string(error.what()));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(bytes), static_cast<int>(size));
    if (input.startsWith("!val"))
        checkValue(input.mid(4));
    else
        checkClient(input);
    return 0;
}
