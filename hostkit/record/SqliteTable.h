#ifndef MICRO850_HOST_SQLITETABLE_H
#define MICRO850_HOST_SQLITETABLE_H

#include <QtSql/QSqlDatabase>
#include <QtSql/QSqlError>

#include <functional>

namespace micro850::host {

/// Throws UserError for an error of the database at `path`. The exit status is 1 when its disk or
/// another program is at fault, 2 when the name is.
[[noreturn]] void failToWrite(const QString& path, const QSqlError& error);

/// Throws UserError if the file of an open database is shorter than the database. Reads only.
void requireWhole(QSqlDatabase& database, const QString& path);

/// Makes the table "samples" of an open database ready for rows: creates it, or converts the rows
/// of an earlier version in one transaction. Throws UserError without a change to the database when
/// it cannot be written, when the table is another program's, and when a later version wrote it.
/// `path` names the database in messages; `note`, unless it is empty, is told before rows are
/// converted.
void prepareSamples(QSqlDatabase& database, const QString& path,
                    const std::function<void(const QString&)>& note);

} // namespace micro850::host

#endif
