#ifndef MICRO850_HOST_TABLEROWS_H
#define MICRO850_HOST_TABLEROWS_H

#include "Page.h"
#include "Plant.h"

namespace micro850::host {

/// One variable as the table shows it.
struct TableRow
{
    QString name;
    QString type; ///< "INT", "INT[10]"; "?" while it is not known
    QString value;
    QString unit;
    bool isNumber = false; ///< shown at the right of its column
    Quality quality = Quality::Never;
    QString error;
    std::optional<Duration> refreshedAt;
    std::optional<Duration> changedAt; ///< when another value took the place of one shown before

    bool isGood() const { return quality == Quality::Good && error.isEmpty(); }
};

/// The widths that the texts of all rows need. They only grow, so that columns keep their places.
struct TableNeeds
{
    int name = 4;
    int type = 4;
    int value = 5;
    int number = 1; ///< of numbers without their unit
    int unit = 0;   ///< of numbers, with the blank in front
    int error = 0;
};

/// The variables of a plant as rows of a table. It can be held while the plant goes on.
class TableRows
{
public:
    /// The arguments must live longer than this object.
    TableRows(Plant& plant, const Project& project);

    /// Takes over what is new in the plant, unless the rows are held.
    void update(Duration now);
    void hold(bool isHeld);
    bool isHeld() const { return m_heldAt.has_value(); }

    int size() const { return m_rows.size(); }
    const TableRow& at(int variable) const { return m_rows.at(variable); }
    const Variable& variable(int variable) const { return m_project.variables.at(variable); }
    /// The values that the rows show.
    const ValueStore& values() const { return m_held ? *m_held : m_plant.values(); }
    /// The values of now, also while the rows are held.
    const ValueStore& latest() const { return m_plant.values(); }
    Quality latestQuality(int variable) const { return m_plant.quality(variable); }
    /// True when the variable's station may be asked.
    bool isEnabled(int variable) const;
    /// Time since the last good reply; the largest before the first. Held rows do not age.
    Duration age(int variable) const;
    /// True for a moment after the value has changed.
    bool isMarked(int variable) const;
    bool isMarked(std::optional<Duration> changedAt) const;
    /// The time of the rows; it stands while they are held.
    Duration now() const { return m_now; }

    /// A heading and one row for each of these variables, for a window of that width.
    Page lines(const QVector<int>& variables, int width) const;

private:
    void takeValue(int variable, Duration now, bool isFirst);
    void noteNeeds(const TableRow& row);

    Plant& m_plant;
    const Project& m_project;
    QVector<TableRow> m_rows;
    TableNeeds m_needs;
    Duration m_now{0};
    std::optional<Duration> m_heldAt;
    std::optional<ValueStore> m_held;
};

} // namespace micro850::host

#endif
