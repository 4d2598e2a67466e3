#ifndef MICRO850_TESTS_FAKE_LINES_H
#define MICRO850_TESTS_FAKE_LINES_H

// Lines without workers: tests set values, and answer what is asked when they like.

#include "HistorySource.h"
#include "LineService.h"

#include <QtCore/QMap>

#include <algorithm>
#include <utility>
#include <vector>

namespace micro850::gateway::test {

inline LineSettings lineOfProject(const QString& name, const QByteArray& project)
{
    LineSettings line;
    line.name = name;
    line.projectText = project;
    line.project = host::Project::fromText(QString::fromUtf8(project), name);
    return line;
}

class FakeLines : public LineService
{
public:
    explicit FakeLines(const QVector<LineSettings>& lines) { setLines(lines); }

    /// As a reload does. Values of variables that keep their names stay.
    void setLines(const QVector<LineSettings>& lines)
    {
        QMap<QPair<QString, QString>, GatewayValue> old;
        for (const auto& values : std::as_const(m_values)) {
            for (const GatewayValue& value : values)
                old[{value.line, value.name}] = value;
        }
        m_lines = lines;
        m_values.clear();
        for (const LineSettings& line : lines) {
            m_values.emplace_back();
            for (const host::Variable& variable : line.project.variables) {
                GatewayValue value;
                value.line = line.name;
                value.name = variable.name;
                value.station = variable.station;
                value.tag = variable.tag;
                value.element = variable.element;
                value.unit = variable.unit;
                m_values.back().push_back(old.value({line.name, variable.name}, value));
            }
        }
        for (LineListener* const listener : std::as_const(m_listeners))
            listener->handleReload();
    }

    /// A value came; listeners are told.
    void setValue(int line, int variable, const char* type, const Json& value,
                  const QByteArray& bytes = QByteArray())
    {
        GatewayValue& latest =
            m_values.at(static_cast<std::size_t>(line)).at(static_cast<std::size_t>(variable));
        latest.type = &cipTypeNamed(type);
        latest.value = value;
        latest.bytes = bytes;
        latest.quality = host::Quality::Good;
        latest.time = ++m_time;
        for (LineListener* const listener : std::as_const(m_listeners))
            listener->handleValue(line, variable);
    }
    void tell(const LineEvent& event)
    {
        for (LineListener* const listener : std::as_const(m_listeners))
            listener->handleEvent(event);
    }

    struct Asked
    {
        int line = 0;
        Json request;
        Answer answer;
        bool cancelled = false;
    };
    /// What waits for an answer, in the order in which it was asked.
    QMap<qint64, Asked> asked;
    /// Answers what was asked first.
    void answer(const Json& reply)
    {
        const Asked first = asked.take(asked.firstKey());
        first.answer(reply);
    }

    QVector<JournalEntry> journal;

    int size() const override { return m_lines.size(); }
    const LineSettings& line(int index) const override { return m_lines.at(index); }
    const GatewayValue& latest(int line, int variable) const override
    {
        return m_values.at(static_cast<std::size_t>(line)).at(static_cast<std::size_t>(variable));
    }
    qint64 ageMs(int line, int variable) const override
    {
        return latest(line, variable).time ? 40 + variable : -1;
    }
    Json status(int line) const override { return {{"line", m_lines.at(line).name.toStdString()}}; }
    qint64 ask(int line, Json request, const Answer& answer) override
    {
        const qint64 number = ++m_last;
        asked[number] = {line, std::move(request), answer, false};
        return number;
    }
    void cancel(qint64 number) override
    {
        if (asked.contains(number))
            asked[number].cancelled = true;
    }
    void addListener(LineListener& listener) override { m_listeners.append(&listener); }
    void removeListener(LineListener& listener) override { m_listeners.removeOne(&listener); }
    void reportWrite(const JournalEntry& entry) override { journal.append(entry); }

private:
    QVector<LineSettings> m_lines;
    std::vector<std::vector<GatewayValue>> m_values;
    QVector<LineListener*> m_listeners;
    qint64 m_last = 0;
    qint64 m_time = 1795354200000; // 2026-11-22T13:30:00Z
};

class FakeHistory : public HistorySource
{
public:
    QVector<QPair<HistoryQuery, Answered>> asked;

    void query(const HistoryQuery& query, const Answered& answered) override
    {
        asked.append({query, answered});
    }
    QVector<QPair<TrendQuery, std::function<void(TrendAnswer)>>> trends;
    QVector<QPair<RecordQuery, Answered>> eventQueries;
    QVector<QPair<RecordQuery, Answered>> writeQueries;

    void trend(const TrendQuery& query, const std::function<void(TrendAnswer)>& answered) override
    {
        trends.append({query, answered});
    }
    void events(const RecordQuery& query, const Answered& answered) override
    {
        eventQueries.append({query, answered});
    }
    void writes(const RecordQuery& query, const Answered& answered) override
    {
        writeQueries.append({query, answered});
    }
    Json status() const override { return {{"state", "off"}}; }
};

} // namespace micro850::gateway::test

#endif
