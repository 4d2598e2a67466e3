#ifndef MICRO850_HOST_READPLAN_H
#define MICRO850_HOST_READPLAN_H

#include "Func_Initi.h"
#include "HostLayout.h"
#include "Project.h"
#include "TagDirectory.h"

#include <QtCore/QList>
#include <QtCore/QSet>

namespace micro850::host {

/// A run of elements that one reply can bring.
struct Run
{
    int element;
    int elements;
};

/// Cuts a variable's elements into runs.
QVector<Run> runsOf(const Variable& variable, const CipType& type);

/// The varIndex of a cyclic request that reads one variable; that of a merged one is -1.
inline int varIndexOf(int variable)
{
    return -2 - variable;
}
/// The variable that a request of that varIndex reads; below 0 for any other request.
inline int variableOf(int varIndex)
{
    return -2 - varIndex;
}

/// What the driver is given to read in a cycle.
struct ReadPlan
{
    /// For ReCreatReadVarList(), which merges neighbours of the default station.
    QList<HOSTVAR> merged;
    /// For AddListReadVar().
    QList<RW_VAR> single;
};

/// Plans the cyclic variables whose tags are known, but those in `leftOut` (by their index).
ReadPlan planReads(const Project& project, const TagDirectory& tags, const QSet<int>& leftOut,
                   int localLink);

} // namespace micro850::host

#endif
