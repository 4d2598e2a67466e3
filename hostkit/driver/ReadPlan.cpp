#include "ReadPlan.h"

#include <algorithm>

namespace micro850::host {

namespace {

// Value bytes of one reply: well inside a connection of 504 bytes, and short enough that a reply
// lost on a slow line costs little. As many as other field buses carry at once, so that an array
// made for them takes one reply here too.
const int kBytesOfRun = 250;

// The driver's list builder knows the default station only and counts elements of up to two bytes
// as elements; it keeps the count of wide ones as words, takes 1 or 3 off and so asks for the wrong
// number of them once it has merged or cut. An overlapping request would shorten a run, so that
// only single elements of a tag, each listed once, go through it.
bool mayMerge(const Project& project, const Variable& variable, const Tag& tag)
{
    return tag.mergeable && variable.station == project.stations.first().number &&
           variable.length == 1 && tag.type->size <= 2 && tag.type->kind != CipKind::String &&
           !(tag.type->size == 2 && typeClassOf(tag.typeCode) == TypeClass::Byte);
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

// AddListReadVar() takes the record as it is, so that the host sets what the list builder would.
RW_VAR singleRead(const Variable& variable, const Tag& tag, const Run& run, int localLink)
{
    RW_VAR request = RW_VAR();
    request.linkId = localLink;
    request.tagName = variable.tag;
    request.addressText = QString::number(run.element);
    request.areaType = variable.area;
    request.startAddress = run.element;
    request.stationNo = variable.station;
    request.count = cyclicCount(typeClassOf(tag.typeCode), run.elements);
    request.reqFlag = 1; // the name is in the catalogue, so that element and count are heeded
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

ReadPlan planReads(const Project& project, const TagDirectory& tags, const QSet<int>& leftOut,
                   int localLink)
{
    ReadPlan plan;
    QSet<QPair<QString, int>> listed;
    for (int i = 0; i < project.variables.size(); ++i) {
        const Variable& variable = project.variables.at(i);
        const Tag tag = tags.value({variable.station, variable.tag});
        if (variable.poll != PollMode::Cyclic || tag.state != Tag::State::Known || !tag.type ||
            leftOut.contains(i))
            continue;
        const QPair<QString, int> place(variable.tag, variable.element);
        if (!mayMerge(project, variable, tag)) {
            for (const Run& run : runsOf(variable, *tag.type)) {
                plan.single.append(singleRead(variable, tag, run, localLink));
                plan.single.last().varIndex = varIndexOf(i);
            }
        } else if (!listed.contains(place)) {
            listed.insert(place);
            plan.merged.append(mergedRead(variable));
        }
    }
    return plan;
}

} // namespace micro850::host
