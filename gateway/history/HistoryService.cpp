#include "HistoryService.h"

#include "HistoryQueries.h"
#include "HistoryWriter.h"
#include "Mailbox.h"
#include "RecordRows.h"

#include <QtCore/QHash>
#include <QtCore/QSet>
#include <QtCore/QTimer>

#include <map>

namespace micro850::gateway {

namespace {

const int kTickMs = 1000;

} // namespace

class HistoryService::Private
{
public:
    Private(LineService& lines, const HistorySettings& settings, const Clock& clock,
            const WallClock& wallClock, Alarm alarm)
        : m_lines(lines), m_clock(clock), m_wallClock(wallClock), m_settings(settings),
          m_alarm(std::move(alarm)),
          m_writer(settings, stamp(), [this](const host::HistoryEvent& event) {
              m_mailbox.post([this, event] {
                  if (m_alarm)
                      m_alarm(eventOf(event));
              });
          })
    {
        QObject::connect(&m_ticks, &QTimer::timeout, [this] { tick(); });
        m_ticks.start(kTickMs);
    }

    HistoryStamp stamp() const { return {m_clock.now(), m_wallClock.now()}; }
    /// `answerOf` runs on the thread of the queries, with the name of the file.
    template<typename Answer, typename AnswerOf>
    void ask(const std::function<void(Answer)>& answered, const Unwanted& isUnwanted,
             const AnswerOf& answerOf);
    void tick();
    /// Now, while the recording goes on.
    std::optional<qint64> recordedUntil() const;
    void addValue(int line, int variable) { addValue(line, variable, std::nullopt); }
    void addValue(int line, int variable, std::optional<qint64> time);
    void addAllValues();
    void addVanished();
    void addEvent(const LineEvent& event);
    template<typename Row> void add(const Row& row) { m_writer.add({stamp(), row, 0}); }
    std::shared_ptr<const host::HistoryVariable> variableOf(int line, int variable,
                                                            const GatewayValue& value);
    QString stateOf(const GatewayValue& value) const;

    LineService& m_lines;
    const Clock& m_clock;
    const WallClock& m_wallClock;
    HistorySettings m_settings;
    const Alarm m_alarm;
    std::map<std::pair<int, int>, std::shared_ptr<const host::HistoryVariable>> m_variables;
    /// Of lines, and of stations since their line changed its state.
    QHash<QString, QString> m_lineStates;
    QHash<QString, QHash<int, QString>> m_stationStates;
    qint64 m_breaks = 0; ///< that were mended
    QTimer m_ticks;
    Mailbox m_mailbox;
    // Threads that use the mailbox end before it.
    HistoryWriter m_writer;
    HistoryQueries m_queries;
};

// A variable keeps its object while it is the same: the writer knows it by its address.
std::shared_ptr<const host::HistoryVariable>
HistoryService::Private::variableOf(int line, int variable, const GatewayValue& value)
{
    const QString type = value.type ? QString::fromLatin1(value.type->name) : QString();
    auto& known = m_variables[{line, variable}];
    if (known && known->type == type)
        return known;
    host::HistoryVariable made;
    made.line = value.line;
    made.name = value.name;
    made.station = value.station;
    made.tag = value.tag;
    made.element = value.element;
    made.length = m_lines.line(line).project.variables.at(variable).length;
    made.type = type;
    made.unit = value.unit;
    known = std::make_shared<const host::HistoryVariable>(std::move(made));
    return known;
}

QString HistoryService::Private::stateOf(const GatewayValue& value) const
{
    const auto stations = m_stationStates.constFind(value.line);
    if (stations != m_stationStates.constEnd() && stations->contains(value.station))
        return stations->value(value.station);
    return m_lineStates.value(value.line);
}

void HistoryService::Private::addValue(int line, int variable, std::optional<qint64> time)
{
    const GatewayValue& value = m_lines.latest(line, variable);
    const HistoryStamp now = stamp();
    host::HistoryValue row;
    row.variable = variableOf(line, variable, value);
    // A good value has the time when it was read; one that became stale has that of the change.
    row.time = time                                   ? *time
               : value.quality == host::Quality::Good ? value.time.value_or(now.wall)
                                                      : now.wall;
    row.value = value.value;
    row.quality = qualityText(value.quality);
    row.state = stateOf(value);
    row.error = value.error;
    m_writer.add({now, std::move(row), 0});
}

void HistoryService::Private::tick()
{
    m_writer.tick(stamp());
    const HistoryWriter::Status status = m_writer.status();
    if (status.breaks == m_breaks || status.waiting > 0 ||
        status.state != QLatin1String("recording"))
        return;
    m_breaks = status.breaks;
    addAllValues();
}

std::optional<qint64> HistoryService::Private::recordedUntil() const
{
    if (!m_writer.status().isGoingOn)
        return std::nullopt;
    return m_wallClock.now();
}

// Where the recording was broken, nobody knows from the history whether a value that does not
// change has held on. So it is recorded again.
void HistoryService::Private::addAllValues()
{
    for (int line = 0; line < m_lines.size(); ++line) {
        const int variables = m_lines.line(line).project.variables.size();
        for (int variable = 0; variable < variables; ++variable) {
            if (m_lines.latest(line, variable).quality != host::Quality::Never)
                addValue(line, variable, m_wallClock.now());
        }
    }
}

// A variable that the configuration has no more does not go on in its trend.
void HistoryService::Private::addVanished()
{
    QSet<QPair<QString, QString>> names;
    for (int line = 0; line < m_lines.size(); ++line) {
        for (const host::Variable& variable : m_lines.line(line).project.variables)
            names.insert({m_lines.line(line).name, variable.name});
    }
    for (const auto& [place, variable] : m_variables) {
        if (names.contains({variable->line, variable->name}))
            continue;
        host::HistoryValue row;
        row.variable = variable;
        row.time = m_wallClock.now();
        row.quality = qualityText(host::Quality::Never);
        row.error = QStringLiteral("the configuration has this variable no more");
        add(row);
    }
}

void HistoryService::Private::addEvent(const LineEvent& event)
{
    if (event.station < 0) {
        m_lineStates[event.line] = event.state;
        m_stationStates.remove(event.line);
    } else {
        m_stationStates[event.line][event.station] = event.state;
    }
    add(rowOf(event));
}

template<typename Answer, typename AnswerOf>
void HistoryService::Private::ask(const std::function<void(Answer)>& answered,
                                  const Unwanted& isUnwanted, const AnswerOf& answerOf)
{
    const auto refusal = [](const char* code, const QString& text) {
        Answer answer;
        answer.errorCode = QLatin1String(code);
        answer.errorText = text;
        return answer;
    };
    const auto refuse = [this, &answered, &refusal](const char* code, const QString& text) {
        const Answer answer = refusal(code, text);
        m_mailbox.post([answered, answer] { answered(answer); });
    };
    const QString file = m_settings.file;
    if (file.isEmpty()) {
        refuse("refused", QStringLiteral("nothing is recorded (the configuration names no "
                                         "history.file)"));
        return;
    }
    const bool isTaken = m_queries.add([=](const auto& isEnding) {
        const auto isOver = [&isEnding, &isUnwanted] {
            return (isUnwanted && *isUnwanted) || isEnding();
        };
        const auto answer = std::make_shared<Answer>();
        if (!isOver())
            *answer = answerOf(file, isOver);
        if (isOver())
            *answer = refusal("busy", QStringLiteral("the query was ended: nobody waited for it"));
        m_mailbox.post([answered, answer] { answered(std::move(*answer)); });
    });
    if (!isTaken)
        refuse("busy", QStringLiteral("too many requests for the history wait"));
}

HistoryService::HistoryService(LineService& lines, const HistorySettings& settings,
                               const Clock& clock, const WallClock& wallClock, Alarm alarm)
    : m_private(std::make_unique<Private>(lines, settings, clock, wallClock, std::move(alarm)))
{
    lines.addListener(*this);
}

HistoryService::~HistoryService()
{
    m_private->m_lines.removeListener(*this);
}

void HistoryService::change(const HistorySettings& settings)
{
    m_private->m_settings = settings;
    m_private->m_writer.change(settings);
}

void HistoryService::flush()
{
    m_private->m_writer.tick(m_private->stamp());
    m_private->m_writer.flush();
}

void HistoryService::query(const HistoryQuery& query, const Answered& answered)
{
    m_private->ask<HistoryAnswer>(answered, nullptr,
                                  [query](const QString& file, const auto& isEnding) {
                                      return answerOf(file, query, isEnding);
                                  });
}

void HistoryService::events(const RecordQuery& query, const Answered& answered)
{
    m_private->ask<HistoryAnswer>(answered, query.isUnwanted,
                                  [query](const QString& file, const auto& isEnding) {
                                      return eventsOf(file, query, isEnding);
                                  });
}

void HistoryService::writes(const RecordQuery& query, const Answered& answered)
{
    m_private->ask<HistoryAnswer>(answered, query.isUnwanted,
                                  [query](const QString& file, const auto& isEnding) {
                                      return writesOf(file, query, isEnding);
                                  });
}

void HistoryService::trend(const TrendQuery& query,
                           const std::function<void(TrendAnswer answer)>& answered)
{
    const std::optional<qint64> until = m_private->recordedUntil();
    m_private->ask<TrendAnswer>(answered, query.isUnwanted,
                                [query, until](const QString& file, const auto& isEnding) {
                                    return trendOf(file, query, until, isEnding);
                                });
}

Json HistoryService::status() const
{
    const HistoryWriter::Status status = m_private->m_writer.status();
    Json object = {{"state", status.state.toStdString()}};
    if (!status.reason.isEmpty())
        object["reason"] = status.reason.toStdString();
    if (status.state == QLatin1String("off"))
        return object;
    object["file"] = m_private->m_settings.file.toStdString();
    object["bytes"] = status.bytes;
    object["rows"] = status.rows;
    object["leftOut"] = status.leftOut;
    object["waiting"] = status.waiting;
    return object;
}

void HistoryService::handleValue(int line, int variable)
{
    m_private->addValue(line, variable);
}

void HistoryService::handleEvent(const LineEvent& event)
{
    m_private->addEvent(event);
}

void HistoryService::handleNotice(const LineEvent& event)
{
    m_private->add(rowOf(event));
}

void HistoryService::handleWrite(const JournalEntry& entry)
{
    m_private->add(rowOf(entry));
}

void HistoryService::handleReload()
{
    m_private->addVanished();
    m_private->m_variables.clear();
}

} // namespace micro850::gateway
