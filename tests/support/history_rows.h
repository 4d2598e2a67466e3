#ifndef MICRO850_TESTS_HISTORY_ROWS_H
#define MICRO850_TESTS_HISTORY_ROWS_H

#include "HistoryReader.h"

#include <QtCore/QFileInfo>

#include <QtCore/QTemporaryDir>

#include <vector>

// Rows for tests of histories.

namespace history {

/// A temporary folder in memory where there is one: tests commit thousands of times, and each time
/// a disk takes its time.
class FastDir : public QTemporaryDir
{
public:
    FastDir()
        : QTemporaryDir(QFileInfo("/dev/shm").isWritable() ? "/dev/shm/history-XXXXXX"
                                                           : "history-XXXXXX")
    {
    }
};

inline std::shared_ptr<const micro850::host::HistoryVariable>
variable(const QString& name, const QString& type = "INT", int length = 1)
{
    micro850::host::HistoryVariable variable;
    variable.line = "press";
    variable.name = name;
    variable.station = 2;
    variable.tag = name + "Tag";
    variable.element = 3;
    variable.length = length;
    variable.type = type;
    variable.unit = "bar";
    return std::make_shared<const micro850::host::HistoryVariable>(variable);
}

inline micro850::host::HistoryValue
value(const std::shared_ptr<const micro850::host::HistoryVariable>& variable, qint64 time,
      micro850::host::Json shown)
{
    micro850::host::HistoryValue value;
    value.variable = variable;
    value.time = time;
    value.value = std::move(shown);
    value.quality = "good";
    value.state = "connected";
    return value;
}

inline std::vector<micro850::host::HistoryValue>
valuesOf(const QString& path,
         const micro850::host::HistoryFilter& filter = micro850::host::HistoryFilter())
{
    std::vector<micro850::host::HistoryValue> values;
    micro850::host::HistoryReader(path).values(filter, [&values](const auto& value) {
        values.push_back(value);
        return true;
    });
    return values;
}

inline std::vector<micro850::host::HistoryEvent> eventsOf(const QString& path)
{
    std::vector<micro850::host::HistoryEvent> events;
    micro850::host::HistoryReader(path).events({}, [&events](const auto& event) {
        events.push_back(event);
        return true;
    });
    return events;
}

inline std::vector<micro850::host::HistoryWrite> writesOf(const QString& path)
{
    std::vector<micro850::host::HistoryWrite> writes;
    micro850::host::HistoryReader(path).writes({}, [&writes](const auto& write) {
        writes.push_back(write);
        return true;
    });
    return writes;
}

/// The bytes of the file, its log and the log's index.
inline qint64 bytesOf(const QString& path)
{
    return QFileInfo(path).size() + QFileInfo(path + "-wal").size() +
           QFileInfo(path + "-shm").size();
}

/// What SQLite finds wrong in a file: "ok" for nothing.
inline QString integrityOf(const QString& path)
{
    micro850::host::Database database(path, micro850::host::Database::Access::Write);
    return database.text("PRAGMA integrity_check");
}

} // namespace history

#endif
