#ifndef MICRO850_HOST_SQLITETABLE_H
#define MICRO850_HOST_SQLITETABLE_H

#include <QtSql/QSqlDatabase>

namespace micro850::host {

/// Makes the table "samples" of an open database ready for rows: creates it, or converts the rows
/// of an earlier version in one transaction. Throws UserError without a change to the database when
/// it cannot be written, when the table is another program's, and when a later version wrote it.
/// `path` names the database in messages.
void prepareSamples(QSqlDatabase& database, const QString& path);

} // namespace micro850::host

#endif
