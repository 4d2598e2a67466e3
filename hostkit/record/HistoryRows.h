#ifndef MICRO850_HOST_HISTORYROWS_H
#define MICRO850_HOST_HISTORYROWS_H

#include "Json.h"

#include <QtCore/QString>

#include <memory>
#include <optional>

namespace micro850::host {

/// What a history knows of a variable. One whose tag, type or unit changes becomes another one.
struct HistoryVariable
{
    QString line;
    QString name;
    int station = 1;
    QString tag;
    int element = 0;
    int length = 1;
    /// CIP type; empty before the first value.
    QString type;
    QString unit;
};

/// A variable at one time.
struct HistoryValue
{
    std::shared_ptr<const HistoryVariable> variable;
    qint64 time = 0; ///< milliseconds since 1970 UTC
    /// Counts everything that is recorded, also where the clock was set back.
    qint64 sequence = 0;
    /// As the variable shows it: a number, true or false, a text, an array of them; null before the
    /// first value.
    Json value;
    QString quality;
    QString state; ///< that of the line or the station
    QString error;
};

/// A write of the journal.
struct HistoryWrite
{
    qint64 time = 0;
    qint64 sequence = 0;
    int uid = -1;
    int pid = -1;
    QString client;
    QString line;
    QString name;
    int element = 0;
    Json oldValue;
    Json newValue;
    QString outcome;
    QString error;
};

/// A line, a station or the history itself changed its state.
struct HistoryEvent
{
    qint64 time = 0;
    qint64 sequence = 0;
    QString line;
    int station = -1; ///< below 0: the line itself
    QString state;
    QString text;
};

/// Which rows are wanted.
struct HistoryFilter
{
    /// Patterns, as nameMatches() has them; empty: all.
    QString line;
    QString name;
    /// Milliseconds since 1970 UTC: from the first on, and before the second.
    std::optional<qint64> from;
    std::optional<qint64> to;
    /// Rows of the time `from` up to this sequence are left out: to go on where a page ended.
    qint64 after = -1;
    /// Of writes and events: the last that was recorded first.
    bool lastFirst = false;
};

/// About how many bytes a row takes.
qint64 sizeOf(const HistoryValue& row);
qint64 sizeOf(const HistoryWrite& row);
qint64 sizeOf(const HistoryEvent& row);

/// "2026-11-22T13:30:00.125Z" of milliseconds since 1970 UTC.
QString utcText(qint64 milliseconds);
/// The object of a row: a value as the protocol of the gateway has it, with "state" and "sequence".
Json jsonOf(const HistoryValue& row);
Json jsonOf(const HistoryWrite& row);
Json jsonOf(const HistoryEvent& row);

} // namespace micro850::host

#endif
