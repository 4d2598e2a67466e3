#include "HistoryFormat.h"

#include "CipType.h"

#include <cmath>
#include <limits>

namespace micro850::host {

namespace {

// Values are appended to recent_values, which costs one page for many of them, and moved to
// stored_values from time to time, where those of a variable are together in the order of time.
//
// A period is a part of the recording with a steady clock: its values have the sequences from
// `first` to `last` and the times from `earliest` to `latest`. `recorded` is how long had been
// recorded at its end, in milliseconds, from the monotonic clock. `until` is the time up to which
// the recording is known to have gone on; with `continues` it had not stopped since the period
// before, so that values hold on from there.
//
// Numbers of variables and conditions are not used again (AUTOINCREMENT), so that a program that
// reads in several steps never takes one for another.
const char kTables[] = R"(
CREATE TABLE meta (key TEXT PRIMARY KEY, value) WITHOUT ROWID;
CREATE TABLE variables (
  id INTEGER PRIMARY KEY AUTOINCREMENT, line TEXT NOT NULL, name TEXT NOT NULL,
  station INTEGER NOT NULL, tag TEXT NOT NULL, element INTEGER NOT NULL, length INTEGER NOT NULL,
  type TEXT NOT NULL, unit TEXT NOT NULL, period INTEGER NOT NULL,
  UNIQUE (line, name, station, tag, element, length, type, unit));
CREATE TABLE conditions (
  id INTEGER PRIMARY KEY AUTOINCREMENT, quality TEXT NOT NULL, state TEXT NOT NULL,
  error TEXT NOT NULL, period INTEGER NOT NULL, UNIQUE (quality, state, error));
CREATE TABLE recent_values (
  sequence INTEGER PRIMARY KEY, variable INTEGER NOT NULL, time INTEGER NOT NULL,
  condition INTEGER NOT NULL, value);
CREATE TABLE stored_values (
  variable INTEGER NOT NULL, time INTEGER NOT NULL, sequence INTEGER NOT NULL,
  condition INTEGER NOT NULL, value, PRIMARY KEY (variable, time, sequence)) WITHOUT ROWID;
CREATE TABLE periods (
  id INTEGER PRIMARY KEY, first INTEGER NOT NULL, last INTEGER NOT NULL, earliest INTEGER NOT NULL,
  latest INTEGER NOT NULL, recorded INTEGER NOT NULL, until INTEGER NOT NULL DEFAULT 0,
  continues INTEGER NOT NULL DEFAULT 0);
CREATE TABLE writes (
  sequence INTEGER PRIMARY KEY, time INTEGER NOT NULL, uid INTEGER NOT NULL, pid INTEGER NOT NULL,
  client TEXT NOT NULL, line TEXT NOT NULL, name TEXT NOT NULL, element INTEGER NOT NULL,
  old TEXT NOT NULL, new TEXT NOT NULL, outcome TEXT NOT NULL, error TEXT NOT NULL,
  recorded INTEGER NOT NULL);
CREATE TABLE events (
  sequence INTEGER PRIMARY KEY, time INTEGER NOT NULL, line TEXT NOT NULL, station INTEGER,
  state TEXT NOT NULL, text TEXT NOT NULL);
CREATE TABLE rollups (
  variable INTEGER NOT NULL, earliest INTEGER NOT NULL, first INTEGER NOT NULL,
  latest INTEGER NOT NULL, last INTEGER NOT NULL, least, greatest, ending,
  PRIMARY KEY (variable, earliest, first)) WITHOUT ROWID;
CREATE VIEW history AS
  SELECT v.time, v.sequence, line, name, station, tag, element, length, type, value, unit, quality,
    state, error
  FROM (SELECT variable, time, sequence, condition, value FROM stored_values
    UNION ALL SELECT variable, time, sequence, condition, value FROM recent_values) v
  JOIN variables ON variables.id = v.variable JOIN conditions ON conditions.id = v.condition;
)";

// The first version had no rollups, and did not say whether a period continues the one before: it
// does where the clock on the wall and the time of recording went on equally.
#define MICRO850_CONTINUES                                                                         \
    "coalesce((SELECT abs((p.latest - b.latest) - (p.recorded - b.recorded)) <= 5000 FROM "        \
    "periods b WHERE b.id = p.id - 1), 0)"

const char kConversion[] =
    "ALTER TABLE periods ADD COLUMN until INTEGER NOT NULL DEFAULT 0;"
    "ALTER TABLE periods ADD COLUMN continues INTEGER NOT NULL DEFAULT 0;"
    "UPDATE periods AS p SET until = latest, continues = " MICRO850_CONTINUES ";"
    "CREATE TABLE rollups (variable INTEGER NOT NULL, earliest INTEGER NOT NULL, "
    "first INTEGER NOT NULL, latest INTEGER NOT NULL, last INTEGER NOT NULL, least, greatest, "
    "ending, PRIMARY KEY (variable, earliest, first)) WITHOUT ROWID;"
    // The period that is open gets its rollups when it closes.
    "INSERT OR REPLACE INTO meta SELECT 'unrolled', max(id) - EXISTS (SELECT 1 FROM recent_values) "
    "FROM periods HAVING max(id) IS NOT NULL;";

const char kPeriods[] =
    "SELECT id, first, last, earliest, latest, until, continues FROM periods ORDER BY id";
const char kFirstPeriods[] = "SELECT id, first, last, earliest, latest, latest, " MICRO850_CONTINUES
                             " FROM periods p ORDER BY id";
#undef MICRO850_CONTINUES

// An array, also of texts, is JSON in the column.
Json fromText(const QString& text, const QString& type, int length)
{
    const std::string utf8 = text.toStdString();
    if (length != 1) {
        const Json array = Json::parse(utf8, nullptr, false);
        return array.is_array() ? array : Json(utf8);
    }
    bool good = false;
    for (const CipType& each : cipTypes()) {
        const bool large = each.kind == CipKind::Unsigned || each.kind == CipKind::Bits;
        if (!large || text.size() != 20 || type != QLatin1String(each.name))
            continue;
        const quint64 number = text.toULongLong(&good);
        if (good)
            return Json(static_cast<std::uint64_t>(number));
    }
    return Json(utf8);
}

} // namespace

void createHistory(Database& database)
{
    database.run(QStringLiteral("BEGIN IMMEDIATE"));
    database.run(QString::fromLatin1(kTables));
    database.run(QStringLiteral("PRAGMA application_id = %1").arg(kHistoryApplication));
    database.run(QStringLiteral("PRAGMA user_version = %1").arg(kHistoryVersion));
    database.run(QStringLiteral("INSERT INTO meta VALUES ('format', %1)").arg(kHistoryVersion));
    database.run(QStringLiteral("COMMIT"));
}

void convertHistory(Database& database)
{
    database.run(QStringLiteral("BEGIN IMMEDIATE"));
    database.run(QString::fromLatin1(kConversion));
    database.run(QStringLiteral("PRAGMA user_version = %1").arg(kHistoryVersion));
    database.run(
        QStringLiteral("INSERT OR REPLACE INTO meta VALUES ('format', %1)").arg(kHistoryVersion));
    database.run(QStringLiteral("COMMIT"));
}

const char* periodsWithContinuity(bool isOfThisVersion)
{
    return isOfThisVersion ? kPeriods : kFirstPeriods;
}

bool isEmpty(Database& database)
{
    return database.number("SELECT count(*) FROM sqlite_master") == 0;
}

void requireHistory(Database& database)
{
    const std::string name = database.path().toStdString();
    if (database.number("PRAGMA application_id") != kHistoryApplication)
        throw UserError(name + ": is a database of another program, and no history");
    const qint64 version = database.number("PRAGMA user_version");
    if (version > kHistoryVersion)
        throw UserError(name + ": was written by a later version of micro850-gateway (format " +
                        std::to_string(version) + ", this one knows " +
                        std::to_string(kHistoryVersion) + "; use the later version)");
}

void bindValue(Statement& statement, int parameter, const Json& value)
{
    if (value.is_null()) {
        statement.bindNull(parameter);
    } else if (value.is_boolean()) {
        statement.bind(parameter, qint64(value.get<bool>() ? 1 : 0));
    } else if (value.is_number_unsigned()) {
        const auto number = value.get<std::uint64_t>();
        const std::uint64_t most = std::numeric_limits<qint64>::max();
        if (number <= most)
            statement.bind(parameter, static_cast<qint64>(number));
        else
            statement.bind(parameter, QString::number(number).rightJustified(20, '0'));
    } else if (value.is_number_integer()) {
        statement.bind(parameter, qint64(value.get<std::int64_t>()));
    } else if (value.is_number_float() && !std::isnan(value.get<double>())) {
        statement.bindReal(parameter, value.get<double>());
    } else if (value.is_number_float()) {
        statement.bind(parameter, QStringLiteral("nan")); // the database would make NULL of it
    } else if (value.is_string()) {
        statement.bind(parameter, QString::fromStdString(value.get<std::string>()));
    } else {
        statement.bind(parameter, QString::fromStdString(
                                      value.dump(-1, ' ', false, Json::error_handler_t::replace)));
    }
}

Json valueOf(const Statement& row, int column, const QString& type, int length)
{
    switch (row.kind(column)) {
    case Statement::Kind::Null:
        return Json();
    case Statement::Kind::Integer:
        if (type == QLatin1String("BOOL"))
            return Json(row.number(column) != 0);
        return Json(static_cast<std::int64_t>(row.number(column)));
    case Statement::Kind::Real:
        return Json(row.real(column));
    case Statement::Kind::Text:
    case Statement::Kind::Blob:
        break;
    }
    return fromText(row.text(column), type, length);
}

} // namespace micro850::host
