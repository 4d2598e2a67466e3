#include "Recorder.h"

#include "Elements.h"
#include "OutputFile.h"
#include "SqliteTable.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QVariant>
#include <QtSql/QSqlDatabase>
#include <QtSql/QSqlError>
#include <QtSql/QSqlQuery>

#include <cmath>
#include <limits>
#include <utility>

namespace micro850::host {

namespace {

const char kConnection[] = "record";
const char kInsert[] = "INSERT INTO samples VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";

// An integer of the database is signed. Larger numbers are text of 20 digits: text is larger than
// every number, and texts of the same length compare as their numbers do.
QVariant columnNumber(std::uint64_t number)
{
    const std::uint64_t most = std::numeric_limits<qint64>::max();
    return number <= most ? QVariant(static_cast<qlonglong>(number))
                          : QVariant(QString::number(number).rightJustified(20, '0'));
}

// NULL is only for a value that was never read.
QVariant columnValue(const std::optional<CipValue>& value)
{
    if (!value)
        return QVariant();
    switch (value->kind()) {
    case CipKind::Boolean:
        return QVariant(value->boolean() ? 1 : 0);
    case CipKind::Signed:
        return QVariant(static_cast<qlonglong>(value->signedNumber()));
    case CipKind::Unsigned:
    case CipKind::Bits:
        return columnNumber(value->unsignedNumber());
    case CipKind::Real:
        // The database would make NULL of what is not a number.
        return std::isnan(value->number()) ? QVariant(QStringLiteral("nan"))
                                           : QVariant(value->number());
    case CipKind::String:
        break;
    }
    return QVariant(valueText(*value));
}

QString notNull(const QString& text)
{
    return text.isNull() ? QStringLiteral("") : text;
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
    SqliteRecorder(const QString& path, const Note& note)
        : m_path(path), m_database(QSqlDatabase::database(kConnection, false))
    {
        requireFile(QFile::encodeName(path).toStdString(), "name a file");
        m_database.setDatabaseName(path);
        if (!m_database.isValid())
            throw UserError(path.toStdString() +
                            ": Qt's SQLite driver is missing (install libqt5sql5-sqlite)");
        if (!m_database.open())
            fail(m_database.lastError());
        requireWhole(m_database, path);
        prepareSamples(m_database, path, note);
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
        if (!std::exchange(m_open, true) && !m_database.transaction())
            fail(m_database.lastError());
        m_insert.addBindValue(sample.time.toUTC().toString(Qt::ISODateWithMs));
        m_insert.addBindValue(sample.name);
        m_insert.addBindValue(sample.station);
        m_insert.addBindValue(sample.tag);
        m_insert.addBindValue(sample.element);
        m_insert.addBindValue(sample.type);
        m_insert.addBindValue(columnValue(sample.value));
        m_insert.addBindValue(notNull(sample.unit));
        m_insert.addBindValue(sample.quality);
        m_insert.addBindValue(sample.error);
        if (!m_insert.exec())
            fail(m_insert.lastError());
    }

    void endRow(const QDateTime&) override {}

    qint64 size() const override { return QFileInfo(m_path).size(); }

    void flush() override
    {
        if (m_open && !m_database.commit())
            fail(m_database.lastError());
        m_open = false;
    }

private:
    // The rows since the last flush are lost; the message is the only one about it.
    [[noreturn]] void fail(const QSqlError& error)
    {
        m_open = false;
        failToWrite(m_path, error);
    }

    ConnectionName m_name; // first, so that it is destroyed last
    QString m_path;
    QSqlDatabase m_database;
    QSqlQuery m_insert;
    bool m_open = false;
};

} // namespace

std::unique_ptr<Recorder> Recorder::sqlite(const QString& path, const Note& note)
{
    return std::make_unique<SqliteRecorder>(path, note);
}

} // namespace micro850::host
