#include "SqliteTable.h"

#include "CipType.h"
#include "UserError.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QSet>
#include <QtCore/QStringList>
#include <QtCore/QVariant>
#include <QtSql/QSqlError>
#include <QtSql/QSqlQuery>

namespace micro850::host {

namespace {

// The version of the rows, which the database keeps as its user_version. In version 0 unsigned
// numbers, bits and booleans were text, dates were numbers as text, and an empty text was NULL.
const int kVersion = 1;

const int kCorrupt = 11; // the library's code

// The column of the value declares no type, so that numbers stay numbers.
const char kCreate[] = "CREATE TABLE samples (time TEXT, name TEXT, station INTEGER, tag TEXT, "
                       "element INTEGER, type TEXT, value, unit TEXT, quality TEXT, error TEXT)";

const QStringList& columns()
{
    static const QStringList names = {"time", "name",  "station", "tag",     "element",
                                      "type", "value", "unit",    "quality", "error"};
    return names;
}

// ---- From version 0 -----------------------------------------------------------------------------

// Decimal digits as an integer, or as text of 20 digits beyond the largest integer. Both compare
// rightly with each other.
const char kFromDigits[] =
    "CASE WHEN length(value) < 19 OR (length(value) = 19 AND value <= '9223372036854775807') "
    "THEN CAST(value AS INTEGER) ELSE substr('00000000000000000000' || value, -20) END";
const char kAreDigits[] = "value <> '' AND value NOT GLOB '*[^0-9]*'";

// The time of day of milliseconds in ISO 8601; %1 stands for them.
const char kTimeOfDay[] = "printf('%02d:%02d:%02d', (%1) / 3600000, (%1) / 60000 % 60, (%1) / 1000 "
                          "% 60) || CASE WHEN (%1) % 1000 THEN printf('.%03d', (%1) % 1000) ELSE "
                          "'' END";

QString timeOfDay(const char* milliseconds)
{
    return QString::fromLatin1(kTimeOfDay)
        .replace(QStringLiteral("%1"), QString::fromLatin1(milliseconds));
}

QString date(const char* days)
{
    return QStringLiteral("date('1972-01-01', '+' || (%1) || ' days')").arg(QLatin1String(days));
}

// The integer that '0x' and so many hexadecimal digits describe.
QString fromHexadecimal(int digits)
{
    QStringList nibbles;
    for (int i = 0; i < digits; ++i) {
        nibbles += QStringLiteral("((instr('0123456789ABCDEF', substr(value, %1, 1)) - 1) << %2)")
                       .arg(3 + i)
                       .arg(4 * (digits - 1 - i));
    }
    return nibbles.join(QStringLiteral(" | "));
}

QString update(const QString& value, const QString& type, const QString& condition)
{
    return QStringLiteral("UPDATE samples SET value = %1 WHERE %2 AND %3")
        .arg(value, type, condition);
}

QString isType(const char* name)
{
    return QStringLiteral("type = '%1'").arg(QLatin1String(name));
}

// An array was one text, with blanks between its elements, and stays one.
QStringList bitsUpdates(const CipType& type)
{
    const int digits = 2 * type.size;
    const QString one = QStringLiteral("typeof(value) = 'text' AND value GLOB '0x*' AND "
                                       "length(value) = %1")
                            .arg(2 + digits);
    QStringList updates(update(fromHexadecimal(digits), isType(type.name), one));
    if (type.size == 8) {
        updates += update(QStringLiteral("printf('%020u', value)"), isType(type.name),
                          QStringLiteral("typeof(value) = 'integer' AND value < 0"));
    }
    return updates;
}

QStringList upgradeStatements()
{
    const QString digits = QStringLiteral("typeof(value) = 'text' AND ") + kAreDigits;
    const QString integer = QStringLiteral("typeof(value) = 'integer'");
    const QString lost = QStringLiteral("value IS NULL AND quality <> 'never'");
    QStringList statements;
    for (const CipType& type : cipTypes()) {
        const QString of = isType(type.name);
        if (type.kind == CipKind::Bits)
            statements += bitsUpdates(type);
        else if (type.kind == CipKind::Unsigned)
            statements += update(kFromDigits, of, digits);
        else if (type.kind == CipKind::Boolean)
            statements += update(QStringLiteral("value = 'true'"), of,
                                 QStringLiteral("value IN ('true', 'false')"));
        else if (type.kind == CipKind::String)
            statements += update(QStringLiteral("''"), of, lost);
        else if (type.kind == CipKind::Real)
            statements += update(QStringLiteral("'nan'"), of, lost);
    }
    statements += update(date("value"), isType("DATE"),
                         integer + QStringLiteral(" AND value BETWEEN 0 AND 65535"));
    statements += update(timeOfDay("value"), isType("TIME_OF_DAY"),
                         integer + QStringLiteral(" AND value BETWEEN 0 AND 86399999"));
    statements += update(
        date("value >> 32") + QStringLiteral(" || 'T' || ") + timeOfDay("value & 4294967295"),
        isType("DATE_AND_TIME"),
        integer + QStringLiteral(" AND value >> 32 BETWEEN 0 AND 65535 AND (value & "
                                 "4294967295) <= 86399999"));
    return statements;
}

// ---- The database -------------------------------------------------------------------------------

/// Asks the database and throws UserError that names it.
class Asker
{
public:
    Asker(QSqlDatabase& database, const QString& path) : m_database(database), m_path(path) {}

    QSqlQuery run(const QString& statement) const
    {
        QSqlQuery query(m_database);
        if (!query.exec(statement))
            failToWrite(m_path, query.lastError());
        return query;
    }
    int number(const QString& statement) const
    {
        QSqlQuery query = run(statement);
        return query.next() ? query.value(0).toInt() : 0;
    }
    [[noreturn]] void fail(const QString& why) const
    {
        throw UserError((m_path + QStringLiteral(": ") + why).toStdString());
    }

private:
    QSqlDatabase& m_database;
    const QString& m_path;
};

QStringList columnsOf(const Asker& asker)
{
    QStringList names;
    QSqlQuery query = asker.run(QStringLiteral("PRAGMA table_info(samples)"));
    while (query.next())
        names += query.value(1).toString();
    return names;
}

// Reads only: a database that is refused keeps every byte.
void refuseOtherTables(const Asker& asker, int version, const QStringList& found)
{
    if (version < 0 || version > kVersion) {
        asker.fail(QStringLiteral("has tables of version %1, which this program does not know (up "
                                  "to %2); a later version of it or another program made them "
                                  "(name a new file)")
                       .arg(version)
                       .arg(kVersion));
    }
    if (!found.isEmpty() && found != columns()) {
        asker.fail(QStringLiteral("its table samples is not a recording: it has the columns %1 "
                                  "(name a new file)")
                       .arg(found.join(QStringLiteral(", "))));
    }
}

// The only answer of a query.
QString textOf(QSqlQuery& query, const QString& statement)
{
    return query.exec(statement) && query.next() ? query.value(0).toString() : QString();
}

qint64 bigEndian(const QByteArray& bytes)
{
    qint64 number = 0;
    for (const char byte : bytes)
        number = number << 8 | static_cast<quint8>(byte);
    return number;
}

// The size that a database has after its own heading; 0 if it has no heading.
qint64 sizeByHeading(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray heading = file.read(32);
    if (heading.size() < 32 || !heading.startsWith("SQLite format 3"))
        return 0;
    const qint64 pageSize = bigEndian(heading.mid(16, 2));
    return bigEndian(heading.mid(28, 4)) * (pageSize == 1 ? 65536 : pageSize);
}

void requireSize(const QString& path, qint64 whole)
{
    const qint64 size = QFileInfo(path).size();
    if (size < whole)
        throw UserError(
            QStringLiteral("%1: is cut: %2 of %3 bytes (restore it, or name a new file)")
                .arg(path, QString::number(size), QString::number(whole))
                .toStdString());
}

} // namespace

void requireWhole(QSqlDatabase& database, const QString& path)
{
    // The transaction reads only. While it lasts, no other program changes the file.
    QSqlQuery query(database);
    if (!query.exec(QStringLiteral("BEGIN")))
        failToWrite(path, query.lastError());
    const bool known = query.exec(QStringLiteral("PRAGMA page_count")) && query.next();
    if (!known) {
        const QSqlError error = query.lastError();
        QSqlQuery(database).exec(QStringLiteral("ROLLBACK"));
        // The library itself notices that whole pages are missing.
        if (error.nativeErrorCode().toInt() == kCorrupt)
            requireSize(path, sizeByHeading(path));
        failToWrite(path, error);
    }
    const qint64 pages = query.value(0).toLongLong();
    // In this mode pages are also in a file beside the database.
    const QString mode = textOf(query, QStringLiteral("PRAGMA journal_mode"));
    const qint64 pageSize = textOf(query, QStringLiteral("PRAGMA page_size")).toLongLong();
    if (mode != QLatin1String("wal"))
        requireSize(path, pages * pageSize);
    if (!query.exec(QStringLiteral("COMMIT")))
        failToWrite(path, query.lastError());
}

void failToWrite(const QString& path, const QSqlError& error)
{
    // The library's codes: busy, locked, input or output error, full. When a transaction fails, the
    // database was opened before, and Qt gives no code.
    static const QSet<int> ofDisk = {5, 6, 10, 13};
    const int code = error.nativeErrorCode().toInt() & 0xFF; // above it are details
    const bool refused = error.type() == QSqlError::TransactionError || ofDisk.contains(code);
    throw UserError(
        (path + QStringLiteral(": cannot be written: ") + error.text().simplified()).toStdString(),
        refused ? kExitRefused : kExitUsage);
}

void prepareSamples(QSqlDatabase& database, const QString& path,
                    const std::function<void(const QString&)>& note)
{
    const Asker asker(database, path);
    const auto version = [&] { return asker.number(QStringLiteral("PRAGMA user_version")); };
    refuseOtherTables(asker, version(), columnsOf(asker));
    if (version() == kVersion && !columnsOf(asker).isEmpty())
        return;
    if (note && !columnsOf(asker).isEmpty())
        note(path + QStringLiteral(": converting the rows of an earlier version"));
    // Another program may be doing the same: what was found is looked at again under the lock. A
    // transaction that does not end, because the program is killed, leaves the database as it was.
    asker.run(QStringLiteral("BEGIN IMMEDIATE"));
    try {
        const QStringList found = columnsOf(asker);
        refuseOtherTables(asker, version(), found);
        if (found.isEmpty())
            asker.run(kCreate);
        else if (version() < kVersion)
            for (const QString& statement : upgradeStatements())
                asker.run(statement);
        asker.run(QStringLiteral("PRAGMA user_version = %1").arg(kVersion));
        asker.run(QStringLiteral("COMMIT"));
    } catch (const UserError&) {
        QSqlQuery(database).exec(QStringLiteral("ROLLBACK"));
        throw;
    }
}

} // namespace micro850::host
