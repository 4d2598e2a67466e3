#include "Recorder.h"

#include "Elements.h"
#include "UserError.h"

#include <QtCore/QVariant>
#include <QtSql/QSqlDatabase>
#include <QtSql/QSqlError>
#include <QtSql/QSqlQuery>

namespace micro850::host {

namespace {

const char kConnection[] = "record";
// The column of the value declares no type, so that numbers stay numbers.
const char kTable[] = "CREATE TABLE IF NOT EXISTS samples (time TEXT, name TEXT, station INTEGER, "
                      "tag TEXT, element INTEGER, type TEXT, value, unit TEXT, quality TEXT, "
                      "error TEXT)";
const char kInsert[] = "INSERT INTO samples VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";

// Unsigned numbers are text: an integer of the database is signed. An empty text is NULL.
QVariant columnValue(const std::optional<CipValue>& value)
{
    if (!value)
        return QVariant();
    if (value->kind() == CipKind::Signed)
        return QVariant(static_cast<qlonglong>(value->signedNumber()));
    if (value->kind() == CipKind::Real)
        return QVariant(value->number());
    const QString text = valueText(*value);
    return text.isEmpty() ? QVariant() : QVariant(text);
}

/// Holds the name of the connection. It is destroyed after everything that uses the connection.
struct ConnectionName
{
    ConnectionName() { QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), kConnection); }
    ~ConnectionName() { QSqlDatabase::removeDatabase(kConnection); }
    ConnectionName(const ConnectionName&) = delete;
    ConnectionName& operator=(const ConnectionName&) = delete;
};

class SqliteRecorder : public Recorder
{
public:
    explicit SqliteRecorder(const QString& path)
        : m_path(path), m_database(QSqlDatabase::database(kConnection, false))
    {
        m_database.setDatabaseName(path);
        if (!m_database.isValid())
            failWith(QStringLiteral("Qt's SQLite driver is missing (install libqt5sql5-sqlite)"));
        if (!m_database.open())
            fail(m_database.lastError());
        QSqlQuery table(m_database);
        if (!table.exec(kTable))
            fail(table.lastError());
        m_insert = QSqlQuery(m_database);
        if (!m_insert.prepare(kInsert))
            fail(m_insert.lastError());
    }
    ~SqliteRecorder() override
    {
        if (m_open && !m_database.commit())
            qWarning("%s: the last rows are lost", qPrintable(m_path));
    }

    void add(const Sample& sample) override
    {
        // One commit for many rows: each commit waits for the disk.
        if (!m_open && !m_database.transaction())
            fail(m_database.lastError());
        m_open = true;
        m_insert.addBindValue(sample.time.toUTC().toString(Qt::ISODateWithMs));
        m_insert.addBindValue(sample.name);
        m_insert.addBindValue(sample.station);
        m_insert.addBindValue(sample.tag);
        m_insert.addBindValue(sample.element);
        m_insert.addBindValue(sample.type);
        m_insert.addBindValue(columnValue(sample.value));
        m_insert.addBindValue(sample.unit);
        m_insert.addBindValue(sample.quality);
        m_insert.addBindValue(sample.error);
        if (!m_insert.exec())
            fail(m_insert.lastError());
    }

    void flush() override
    {
        if (m_open && !m_database.commit())
            fail(m_database.lastError());
        m_open = false;
    }

private:
    [[noreturn]] void fail(const QSqlError& error) const
    {
        failWith(QStringLiteral("cannot be written: ") + error.text().simplified());
    }
    [[noreturn]] void failWith(const QString& why) const
    {
        throw UserError((m_path + QStringLiteral(": ") + why).toStdString());
    }

    ConnectionName m_name; // first, so that it is destroyed last
    QString m_path;
    QSqlDatabase m_database;
    QSqlQuery m_insert;
    bool m_open = false;
};

} // namespace

std::unique_ptr<Recorder> Recorder::sqlite(const QString& path)
{
    return std::make_unique<SqliteRecorder>(path);
}

} // namespace micro850::host
