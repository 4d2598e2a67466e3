#ifndef MICRO850_HOST_HISTORYSTATEMENTS_H
#define MICRO850_HOST_HISTORYSTATEMENTS_H

#include "Database.h"

namespace micro850::host {

/// What a writer asks of its database again and again.
struct HistoryStatements
{
    explicit HistoryStatements(Database& database)
        : storePeriod(database, "INSERT OR REPLACE INTO periods (id, first, last, earliest, "
                                "latest, recorded, until, continues) VALUES (?, ?, ?, ?, ?, ?, "
                                "?, ?)"),
          storeUntil(database, "UPDATE periods SET until = ? WHERE id = ?"),
          storeRecorded(database, "INSERT OR REPLACE INTO meta VALUES ('recorded', ?)"),
          useVariable(database,
                      "INSERT INTO variables (line, name, station, tag, element, length, type, "
                      "unit, period) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (line, name, "
                      "station, tag, "
                      "element, length, type, unit) DO UPDATE SET "
                      "period = excluded.period"),
          findVariable(database,
                       "SELECT id FROM variables WHERE line = ? AND name = ? AND station = ? AND "
                       "tag = ? AND element = ? AND length = ? AND type = ? AND unit = ?"),
          useCondition(
              database,
              "INSERT INTO conditions (quality, state, error, period) VALUES (?, ?, ?, ?) "
              "ON CONFLICT (quality, state, error) DO UPDATE SET period = excluded.period"),
          findCondition(database,
                        "SELECT id FROM conditions WHERE quality = ? AND state = ? AND error = ?"),
          addValue(database, "INSERT INTO recent_values (sequence, variable, time, condition, "
                             "value) VALUES (?, ?, ?, ?, ?)"),
          addWrite(database, "INSERT INTO writes VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
          addEvent(database, "INSERT INTO events VALUES (?, ?, ?, ?, ?, ?)"),
          pages(database, "PRAGMA page_count"), freePages(database, "PRAGMA freelist_count"),
          oldestPeriod(database, "SELECT id, first, last, earliest, latest, recorded FROM periods "
                                 "ORDER BY id LIMIT 1"),
          oldestWrite(database, "SELECT recorded FROM writes ORDER BY sequence LIMIT 1")
    {
    }

    Statement storePeriod;
    Statement storeUntil;
    Statement storeRecorded;
    Statement useVariable;
    Statement findVariable;
    Statement useCondition;
    Statement findCondition;
    Statement addValue;
    Statement addWrite;
    Statement addEvent;
    Statement pages;
    Statement freePages;
    Statement oldestPeriod;
    Statement oldestWrite;
};

} // namespace micro850::host

#endif
