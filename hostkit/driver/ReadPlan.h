#ifndef MICRO850_HOST_READPLAN_H
#define MICRO850_HOST_READPLAN_H

#include "Func_Initi.h"
#include "HostLayout.h"
#include "Project.h"

#include <QtCore/QList>
#include <QtCore/QVector>

namespace micro850::host {

/// A run of elements that fits into one reply.
struct Run
{
    int element;
    int elements;
};

/// Cuts the elements of a variable, whose tag has this type, into runs.
QVector<Run> runsOf(const Variable& variable, const CipType& type);

/// The varIndex of a cyclic request that reads one variable. A merged request has -1.
inline int varIndexOf(int variable)
{
    return -2 - variable;
}
/// The variable that a request with this varIndex reads; below 0 for any other request.
inline int variableOf(int varIndex)
{
    return -2 - varIndex;
}

/// A variable that is to be read in every cycle.
struct CyclicRead
{
    int variable;        ///< its index in the project
    const CipType* type; ///< of its tag, in the controller
    bool mergeable;      ///< false: no request may span it and a neighbour
};

/// What the driver is given to read in a cycle.
struct ReadPlan
{
    /// For ReCreatReadVarList(), which merges neighbours of the default station.
    QList<HOSTVAR> merged;
    /// For AddListReadVar().
    QList<RW_VAR> single;
};

/// Plans the requests that read these variables of the project, in their order. `localLink` goes
/// into each record for AddListReadVar().
ReadPlan planReads(const Project& project, const QVector<CyclicRead>& reads, int localLink);

} // namespace micro850::host

#endif
