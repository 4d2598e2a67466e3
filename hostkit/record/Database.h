#ifndef MICRO850_HOST_DATABASE_H
#define MICRO850_HOST_DATABASE_H

#include "UserError.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <memory>

struct sqlite3;
struct sqlite3_stmt;

namespace micro850::host {

/// What a database refuses: one line that names its file.
class DatabaseError : public UserError
{
public:
    DatabaseError(const std::string& message, ExitStatus status, int code)
        : UserError(message, status), m_code(code)
    {
    }

    /// The file is no database, or what is in it contradicts itself.
    bool isDamage() const;
    /// There is no room for what was to be written.
    bool isFull() const;

private:
    int m_code; ///< of the library
};

class Database;

/// A statement that is prepared once and run many times.
class Statement
{
public:
    Statement(Database& database, const char* text);

    /// Parameters count from 1.
    Statement& bind(int parameter, qint64 number);
    Statement& bind(int parameter, const QString& text);
    Statement& bindBytes(int parameter, const QByteArray& bytes);
    Statement& bindReal(int parameter, double number);
    Statement& bindNull(int parameter);
    /// Goes to the next row. False after the last one; the statement can then be run again.
    bool step();
    /// For a statement without rows.
    void run();
    void reset();

    /// Columns count from 0.
    qint64 number(int column) const;
    double real(int column) const;
    QString text(int column) const;
    QByteArray bytes(int column) const;
    enum class Kind { Null, Integer, Real, Text, Blob };
    Kind kind(int column) const;

private:
    struct Finalizer
    {
        void operator()(sqlite3_stmt* statement) const;
    };
    void check(int code);

    Database& m_database;
    std::unique_ptr<sqlite3_stmt, Finalizer> m_statement;
};

/// An open SQLite database. All functions throw DatabaseError.
class Database
{
public:
    enum class Access { Read, Write };
    /// Opens the file; with Write it is created if it is not there. `fileSystem` is the name of
    /// one that the library knows, null for the usual one.
    Database(const QString& path, Access access, const char* fileSystem = nullptr);

    /// Runs statements without results.
    void run(const QString& statements);
    /// The first column of the only row.
    qint64 number(const char* statement);
    QString text(const char* statement);
    bool hasTable(const QString& name);
    /// Undoes what a transaction that failed has left open.
    void rollBack();
    /// Rows that the last statement changed.
    int changes() const;

    const QString& path() const { return m_path; }
    [[noreturn]] void fail(int code) const;

private:
    friend class Statement;
    struct Closer
    {
        void operator()(sqlite3* database) const;
    };
    int open(const QByteArray& name, int flags, const char* fileSystem);

    QString m_path;
    bool m_writes;
    std::unique_ptr<sqlite3, Closer> m_database;
};

} // namespace micro850::host

#endif
