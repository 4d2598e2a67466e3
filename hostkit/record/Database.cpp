#include "Database.h"

#include "OutputFile.h"

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QUrl>

#include <sqlite3.h>

#include <cstring>

namespace micro850::host {

namespace {

// How long a statement waits for another program that has the database locked.
const int kBusyTimeoutMs = 2000;

int primary(int code)
{
    return code & 0xff;
}

std::string complaint(int code, sqlite3* database, bool writes)
{
    const std::string verb = writes ? "cannot be written: " : "cannot be read: ";
    const int error = database ? sqlite3_system_errno(database) : 0;
    switch (primary(code)) {
    case SQLITE_NOTADB:
        return "is not a database";
    case SQLITE_CORRUPT:
        return "is damaged or cut short";
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return "is locked by another program";
    case SQLITE_FULL:
        return verb + (error ? std::strerror(error) : "it is full");
    case SQLITE_IOERR:
    case SQLITE_CANTOPEN:
        if (error)
            return verb + std::strerror(error);
        break;
    default:
        break;
    }
    return verb + (database ? sqlite3_errmsg(database) : sqlite3_errstr(code));
}

} // namespace

bool DatabaseError::isDamage() const
{
    return primary(m_code) == SQLITE_CORRUPT || primary(m_code) == SQLITE_NOTADB;
}

bool DatabaseError::isFull() const
{
    return primary(m_code) == SQLITE_FULL;
}

// ---- Statement ----------------------------------------------------------------------------------

void Statement::Finalizer::operator()(sqlite3_stmt* statement) const
{
    sqlite3_finalize(statement);
}

Statement::Statement(Database& database, const char* text) : m_database(database)
{
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v2(database.m_database.get(), text, -1, &statement, nullptr));
    m_statement.reset(statement);
}

void Statement::check(int code)
{
    if (code != SQLITE_OK)
        m_database.fail(code);
}

Statement& Statement::bind(int parameter, qint64 number)
{
    check(sqlite3_bind_int64(m_statement.get(), parameter, number));
    return *this;
}

Statement& Statement::bind(int parameter, const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    check(sqlite3_bind_text(m_statement.get(), parameter, bytes.constData(), bytes.size(),
                            SQLITE_TRANSIENT)); // NOLINT: the library's macro casts
    return *this;
}

Statement& Statement::bindBytes(int parameter, const QByteArray& bytes)
{
    check(sqlite3_bind_blob(m_statement.get(), parameter, bytes.constData(), bytes.size(),
                            SQLITE_TRANSIENT)); // NOLINT: the library's macro casts
    return *this;
}

Statement& Statement::bindReal(int parameter, double number)
{
    check(sqlite3_bind_double(m_statement.get(), parameter, number));
    return *this;
}

Statement& Statement::bindNull(int parameter)
{
    check(sqlite3_bind_null(m_statement.get(), parameter));
    return *this;
}

bool Statement::step()
{
    const int code = sqlite3_step(m_statement.get());
    if (code == SQLITE_ROW)
        return true;
    if (code != SQLITE_DONE) {
        // The database's error is read before the reset, which may set another one.
        try {
            m_database.fail(code);
        } catch (const DatabaseError&) {
            sqlite3_reset(m_statement.get());
            throw;
        }
    }
    sqlite3_reset(m_statement.get());
    return false;
}

void Statement::run()
{
    while (step()) {
    }
}

void Statement::reset()
{
    sqlite3_reset(m_statement.get());
}

qint64 Statement::number(int column) const
{
    return sqlite3_column_int64(m_statement.get(), column);
}

double Statement::real(int column) const
{
    return sqlite3_column_double(m_statement.get(), column);
}

QString Statement::text(int column) const
{
    const void* bytes = sqlite3_column_blob(m_statement.get(), column);
    if (!bytes)
        return QLatin1String("");
    return QString::fromUtf8(static_cast<const char*>(bytes),
                             sqlite3_column_bytes(m_statement.get(), column));
}

QByteArray Statement::bytes(int column) const
{
    const void* bytes = sqlite3_column_blob(m_statement.get(), column);
    if (!bytes)
        return QByteArray();
    return QByteArray(static_cast<const char*>(bytes),
                      sqlite3_column_bytes(m_statement.get(), column));
}

Statement::Kind Statement::kind(int column) const
{
    switch (sqlite3_column_type(m_statement.get(), column)) {
    case SQLITE_INTEGER:
        return Kind::Integer;
    case SQLITE_FLOAT:
        return Kind::Real;
    case SQLITE_TEXT:
        return Kind::Text;
    case SQLITE_BLOB:
        return Kind::Blob;
    default:
        return Kind::Null;
    }
}

// ---- Database -----------------------------------------------------------------------------------

void Database::Closer::operator()(sqlite3* database) const
{
    sqlite3_close_v2(database);
}

int Database::open(const QByteArray& name, int flags, const char* fileSystem)
{
    sqlite3* database = nullptr;
    const int code = sqlite3_open_v2(name.constData(), &database, flags, fileSystem);
    m_database.reset(database);
    if (code != SQLITE_OK)
        return code;
    sqlite3_extended_result_codes(database, 1);
    sqlite3_busy_timeout(database, kBusyTimeoutMs);
    // Functions of the schema, which may be anybody's, run no code that is not harmless.
    sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    return sqlite3_exec(database, "SELECT 1 FROM sqlite_master", nullptr, nullptr, nullptr);
}

Database::Database(const QString& path, Access access, const char* fileSystem)
    : m_path(path), m_writes(access == Access::Write)
{
    const QByteArray name = QFile::encodeName(path);
    if (m_writes) {
        requireFile(name.toStdString(), "name a file");
        const int code = open(
            name, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, fileSystem);
        if (code != SQLITE_OK)
            fail(code);
        return;
    }
    int code = open(name, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, fileSystem);
    // In a folder that cannot be written, the library cannot make the files that it shares with a
    // writer. Without a log there is no writer.
    const bool cannotShare = primary(code) == SQLITE_CANTOPEN || primary(code) == SQLITE_READONLY;
    if (cannotShare && QFile::exists(path) && !QFile::exists(path + QStringLiteral("-wal"))) {
        const QByteArray uri = "file:" + QUrl::toPercentEncoding(path, "/") + "?immutable=1";
        code = open(uri, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_URI, fileSystem);
    }
    if (code != SQLITE_OK)
        fail(code);
}

void Database::fail(int code) const
{
    const bool isNotTheFile = primary(code) == SQLITE_NOTADB || primary(code) == SQLITE_CORRUPT;
    throw DatabaseError(m_path.toStdString() + ": " + complaint(code, m_database.get(), m_writes),
                        isNotTheFile ? kExitUsage : kExitRefused, code);
}

void Database::run(const QString& statements)
{
    const int code =
        sqlite3_exec(m_database.get(), statements.toUtf8().constData(), nullptr, nullptr, nullptr);
    if (code != SQLITE_OK)
        fail(code);
}

qint64 Database::number(const char* statement)
{
    Statement asked(*this, statement);
    return asked.step() ? asked.number(0) : 0;
}

QString Database::text(const char* statement)
{
    Statement asked(*this, statement);
    return asked.step() ? asked.text(0) : QString();
}

bool Database::hasTable(const QString& name)
{
    Statement asked(*this, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?");
    asked.bind(1, name);
    return asked.step();
}

void Database::rollBack()
{
    if (sqlite3_get_autocommit(m_database.get()) == 0)
        run(QStringLiteral("ROLLBACK"));
}

int Database::changes() const
{
    return sqlite3_changes(m_database.get());
}

} // namespace micro850::host
