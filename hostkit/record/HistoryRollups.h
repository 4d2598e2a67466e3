#ifndef MICRO850_HOST_HISTORYROLLUPS_H
#define MICRO850_HOST_HISTORYROLLUPS_H

// Rollups: the least, the greatest and the last number of a few dozen values that follow each other
// in time. A trend of months reads them instead of the values.

#include "Database.h"

#include <limits>
#include <optional>
#include <unordered_map>
#include <vector>

namespace micro850::host {

const double kNoNumber = std::numeric_limits<double>::quiet_NaN();

/// How the values of a variable are read as numbers.
struct NumberFormat
{
    NumberFormat() = default;
    NumberFormat(const QString& type, qint64 elements);

    /// False for texts.
    bool isNumber = false;
    int length = 1;
    /// The type has numbers that the column keeps as text.
    bool isLarge = false;
};

/// The numbers of a column, one for each element; kNoNumber for what is none.
void readNumbers(const Statement& row, int column, const NumberFormat& format,
                 std::vector<double>& numbers);

/// Which conditions belong to good values.
class GoodConditions
{
public:
    explicit GoodConditions(Database& database);
    bool contains(qint64 condition);

private:
    Statement m_find;
    std::unordered_map<qint64, bool> m_known;
};

/// Stores the rollups of values that are moved to stored_values, within the transaction of its
/// owner.
class RollupMaker
{
public:
    explicit RollupMaker(Database& database);
    /// The rows of one period, or of one variable of it, in the order of variable, time and
    /// sequence. Columns: variable, time, sequence, condition, value.
    void add(Statement& rows);

private:
    /// Of the values so far: of each element.
    struct Numbers
    {
        std::vector<double> least;
        std::vector<double> greatest;
        std::vector<double> ending;
    };
    void beginVariable(qint64 variable);
    void addRow(const Statement& row);
    void finishVariable();
    void store();
    void bindNumbers(int parameter, const std::vector<double>& numbers);

    Statement m_findFormat;
    Statement m_insert;
    GoodConditions m_good;
    NumberFormat m_format;
    qint64 m_variable = 0;
    qint64 m_earliest = 0;
    qint64 m_first = 0;
    qint64 m_latest = 0;
    qint64 m_last = 0;
    int m_rows = 0;
    bool m_hasStored = false; ///< of this variable
    Numbers m_numbers;
};

/// The number of one element in a column of rollups.
double rolledNumber(const Statement& row, int column, const NumberFormat& format, int element);

} // namespace micro850::host

#endif
