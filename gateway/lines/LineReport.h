#ifndef MICRO850_GATEWAY_LINES_LINEREPORT_H
#define MICRO850_GATEWAY_LINES_LINEREPORT_H

#include "PollLoop.h"
#include "Protocol.h"

#include <QtCore/QHash>
#include <QtCore/QQueue>

#include <functional>
#include <optional>

namespace micro850::gateway {

using host::GatewayValue;
using host::Json;

/// What a worker tells of its line: values that changed, ages, states. It keeps which variables
/// have news, not the news, so that a reader that is slow gets the newest values, and gets them
/// once.
class LineReport
{
public:
    /// The arguments must live longer than this object.
    LineReport(const QString& line, const host::Project& project, host::PollLoop& loop,
               const Clock& clock);

    /// Notes the variables whose value, error or quality changed since the last call, and whether
    /// states may have.
    void collect();
    bool hasValues() const { return !m_news.isEmpty(); }
    /// The event with the next values, as a line of a limited size; empty when there are none.
    QByteArray popValues();
    /// The events of states that changed since the last call.
    QVector<QByteArray> popStates();
    /// The events with the ages of all variables, in lines of a limited size. The first one has the
    /// status of the line.
    QVector<QByteArray> ages() const;
    /// The object of a value, as the protocol has it, with its age: `ageMs`, absent before the
    /// first value.
    Json valueObject(int variable) const;

private:
    struct Told
    {
        QString state;
        QString text;
    };
    void note(int variable);
    void noteQualities();
    QString whyNotGood(int variable) const;
    std::optional<qint64> ageMs(int variable) const;
    Json status() const;
    void addState(QVector<QByteArray>& events, int station, const QString& state,
                  const QString& text);

    QString m_line;
    const host::Project& m_project;
    host::PollLoop& m_loop;
    const Clock& m_clock;
    QQueue<int> m_news;      ///< variables, each once
    QVector<bool> m_hasNews; ///< by variable
    struct Known
    {
        host::Quality quality = host::Quality::Never;
        QString why;
    };
    QVector<Known> m_known;  ///< by variable, as it was noted last
    QHash<int, Told> m_told; ///< by station; -1 for the line
    Duration m_nextCheck{0}; ///< of qualities and states
    bool m_wasUp = false;    ///< the line, at the last check
    bool m_checksStates = false;
};

} // namespace micro850::gateway

#endif
