#ifndef MICRO850_HOST_COMMANDS_WIDEROWS_H
#define MICRO850_HOST_COMMANDS_WIDEROWS_H

#include "CsvForm.h"
#include "HistoryRows.h"

#include <QtCore/QHash>
#include <QtCore/QVector>

#include <functional>
#include <optional>

namespace micro850::host {

/// Recorded values as rows with a column for each element of each variable. First note() sees all
/// of them, then add() does in the same order.
class WideRows
{
public:
    using Line = std::function<bool(const QString& line)>;
    /// With `holds`, a cell shows the last value until another one comes; without it only those of
    /// the row's own time. `line` returns false to end.
    WideRows(const CsvForm& form, bool holds, Line line);

    /// Throws UserError for more columns than any spreadsheet has.
    void note(const HistoryValue& row);
    QString heading() const;
    bool add(const HistoryValue& row);
    /// Writes the last row.
    bool finish();

private:
    struct Column
    {
        WideColumn column;
        int first = 0;
    };
    bool writeRow();

    CsvForm m_form;
    bool m_holds;
    Line m_line;
    QVector<Column> m_columns;
    QHash<QString, int> m_places;
    int m_count = 0; ///< cells of a row
    QVector<QString> m_cells;
    std::optional<qint64> m_time;
};

/// A value as the cell of a comma-separated row.
QString cellOf(const CsvForm& form, const Json& value);

} // namespace micro850::host

#endif
