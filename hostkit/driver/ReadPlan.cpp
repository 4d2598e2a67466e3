#include "ReadPlan.h"

#include <QtCore/QSet>

#include <algorithm>

namespace micro850::host {

namespace {

// Value bytes of one reply: well below the 504 bytes of a connection, and short enough that a reply
// that is lost on a slow line costs little. Other field buses carry as many at once, so that an
// array made for them fits into one reply here too.
const int kBytesOfRun = 250;

// The driver's list builder knows the default station only and counts elements of up to two bytes
// as elements; it keeps the count of wide ones as words, takes 1 or 3 off and so asks for the wrong
// number of them once it has merged or cut. An overlapping request would shorten a run, so that
// only single elements of a tag, each listed once, go through it.
bool mayMerge(const Project& project, const Variable& variable, const CyclicRead& read)
{
    const CipType& type = *read.type;
    return read.mergeable && variable.station == project.stations.first().number &&
           variable.length == 1 && type.size <= 2 && type.kind != CipKind::String &&
           !(type.size == 2 && typeClassOf(type.code) == TypeClass::Byte);
}

HOSTVAR mergedRead(const Variable& variable)
{
    HOSTVAR request = HOSTVAR();
    request.areaType = static_cast<unsigned char>(variable.area);
    request.addressText = QString::number(variable.element);
    request.tagName = variable.tag;
    request.count = 1;
    return request;
}

// AddListReadVar() takes the record as it is. The host therefore sets what the list builder would.
RW_VAR singleRead(const Variable& variable, const CipType& type, const Run& run, int localLink)
{
    RW_VAR request = RW_VAR();
    request.linkId = localLink;
    request.tagName = variable.tag;
    request.addressText = QString::number(run.element);
    request.areaType = variable.area;
    request.startAddress = run.element;
    request.stationNo = variable.station;
    request.count = cyclicCount(typeClassOf(type.code), run.elements);
    request.reqFlag = 1; // the name is in the catalogue: the driver uses element and count
    return request;
}

} // namespace

QVector<Run> runsOf(const Variable& variable, const CipType& type)
{
    const int most = std::max(1, kBytesOfRun / type.size);
    QVector<Run> runs;
    for (int done = 0; done < variable.length; done += most)
        runs.append({variable.element + done, std::min(most, variable.length - done)});
    return runs;
}

ReadPlan planReads(const Project& project, const QVector<CyclicRead>& reads, int localLink)
{
    ReadPlan plan;
    QSet<QPair<QString, int>> listed;
    for (const CyclicRead& read : reads) {
        const Variable& variable = project.variables.at(read.variable);
        const QPair<QString, int> place(variable.tag, variable.element);
        if (!mayMerge(project, variable, read)) {
            for (const Run& run : runsOf(variable, *read.type)) {
                plan.single.append(singleRead(variable, *read.type, run, localLink));
                plan.single.last().varIndex = varIndexOf(read.variable);
            }
        } else if (!listed.contains(place)) {
            listed.insert(place);
            plan.merged.append(mergedRead(variable));
        }
    }
    return plan;
}

} // namespace micro850::host
