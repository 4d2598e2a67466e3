#ifndef MICRO850_HOST_HISTORYFORMAT_H
#define MICRO850_HOST_HISTORYFORMAT_H

// The tables of a history file; docs/history.md describes them.

#include "Database.h"
#include "HistoryRows.h"

namespace micro850::host {

/// The file's application_id: "M85H".
const int kHistoryApplication = 0x4d383548;
/// The file's user_version. A change that an older program would misread raises it.
const int kHistoryVersion = 2;

/// Makes a new database a history. Its journal mode must be set already.
void createHistory(Database& database);
/// Makes a history of an earlier version one of this version, at once: its old periods get their
/// rollups later, from the one of meta 'unrolled' down.
void convertHistory(Database& database);
/// The columns id, first, last, earliest, latest, until and continues of all periods, of a history
/// of any version.
const char* periodsWithContinuity(bool isOfThisVersion);
/// True for a database without any table.
bool isEmpty(Database& database);
/// Throws UserError unless the database is a history that this program knows.
void requireHistory(Database& database);

/// Binds a value as the column has it: integers, real numbers and texts as they are, true as 1, an
/// array as JSON, an unsigned number beyond 9223372036854775807 as text of 20 digits.
void bindValue(Statement& statement, int parameter, const Json& value);
/// The value of such a column of a variable of this type and length.
Json valueOf(const Statement& row, int column, const QString& type, int length);

} // namespace micro850::host

#endif
