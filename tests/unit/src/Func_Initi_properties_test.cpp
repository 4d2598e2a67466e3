// Compares the request lists with small models, for host lists and calls of every kind.

#include "driver_fixture.h"

#include <rapidcheck/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <vector>

namespace {

// ---- Model of one group's requests -------------------------------------------------------------

/// A run of elements, and the number of the request that its other fields come from.
struct Stretch
{
    qint64 start, count;
    int owner;
    bool operator==(const Stretch& o) const
    {
        return start == o.start && count == o.count && owner == o.owner;
    }
};

std::ostream& operator<<(std::ostream& out, const Stretch& run)
{
    return out << '(' << run.start << ',' << run.count << " of " << run.owner << ')';
}

qint64 wholeBlocks(const Stretch& run, int maxLength)
{
    return qMax<qint64>(0, run.count) / maxLength;
}

void cut(std::vector<Stretch>& out, const Stretch& run, int maxLength)
{
    const qint64 blocks = wholeBlocks(run, maxLength);
    for (qint64 i = 0; i < blocks; ++i)
        out.push_back({run.start + i * maxLength, maxLength, run.owner});
    if (run.count - blocks * maxLength > 0)
        out.push_back({run.start + blocks * maxLength, run.count - blocks * maxLength, run.owner});
}

// Runs are joined first and cut afterwards. Only the first request is cut before the join.
std::vector<Stretch> modelRequests(const std::vector<Stretch>& group, int maxLength)
{
    std::vector<Stretch> out;
    if (group.empty())
        return out;
    const qint64 before = wholeBlocks(group[0], maxLength) * maxLength;
    cut(out, {group[0].start, before, group[0].owner}, maxLength);
    std::vector<Stretch> joined{{group[0].start + before, group[0].count - before, group[0].owner}};
    for (std::size_t i = 1; i < group.size(); ++i) {
        Stretch& last = joined.back();
        const qint64 reach = last.start + qMax<qint64>(last.count, maxLength);
        if (last.count == 0)
            last = group[i];
        else if (group[i].start > reach)
            joined.push_back(group[i]);
        else
            last.count = group[i].start - last.start + group[i].count;
    }
    for (const Stretch& run : joined)
        cut(out, run, maxLength);
    return out;
}

// ---- Generators --------------------------------------------------------------------------------

/// Requests ordered by their start, most of them short and close together.
rc::Gen<std::vector<Stretch>> anyGroup()
{
    const auto start = rc::gen::weightedOneOf<int>(
        {{6, rc::gen::inRange(0, 60)}, {1, rc::gen::inRange(-20, 500)}});
    const auto count = rc::gen::weightedOneOf<int>(
        {{6, rc::gen::inRange(1, 6)}, {2, rc::gen::inRange(0, 70)}, {1, rc::gen::inRange(-5, 1)}});
    const auto run = rc::gen::map(rc::gen::pair(start, count), [](const std::pair<int, int>& p) {
        return Stretch{p.first, p.second, 0};
    });
    return rc::gen::map(
        rc::gen::container<std::vector<Stretch>>(run), [](std::vector<Stretch> group) {
            std::stable_sort(group.begin(), group.end(),
                             [](const Stretch& a, const Stretch& b) { return a.start < b.start; });
            for (std::size_t i = 0; i < group.size(); ++i)
                group[i].owner = static_cast<int>(i);
            return group;
        });
}

class Building : public DriverTest
{
protected:
    QList<RW_VAR> requestsOf(const std::vector<Stretch>& group)
    {
        QList<RW_VAR> requests;
        for (const Stretch& run : group) {
            requests.append(readOf("T", static_cast<int>(run.start), static_cast<int>(run.count)));
            requests.last().areaType = run.owner;
        }
        return requests;
    }
    static std::vector<Stretch> built()
    {
        std::vector<Stretch> runs;
        for (const RW_VAR& request : PLC_driver.readList)
            runs.push_back({request.startAddress, request.count, request.areaType});
        return runs;
    }
};

// ---- Properties of one group -------------------------------------------------------------------

RC_GTEST_FIXTURE_PROP(Building, CutsAndJoinsAnyGroupLikeTheModel, ())
{
    const std::vector<Stretch> group = *anyGroup();
    const int maxLength = *rc::gen::element(15, 15, 1, 4);
    QList<RW_VAR> requests = requestsOf(group);
    BitVarReCreat(requests, maxLength);
    RC_ASSERT(built() == modelRequests(group, maxLength));
}

RC_GTEST_FIXTURE_PROP(Building, ReadsEachSingleElementOnceInAscendingOrder, ())
{
    const std::set<int> elements = *rc::gen::container<std::set<int>>(rc::gen::inRange(0, 200));
    std::vector<Stretch> group;
    for (int element : elements)
        group.push_back({element, 1, 0});
    QList<RW_VAR> requests = requestsOf(group);
    BitVarReCreat(requests, 15);

    std::vector<int> asked;
    for (const Stretch& run : built()) {
        RC_ASSERT(run.count >= 1 && run.count <= 15);
        for (qint64 i = 0; i < run.count; ++i)
            asked.push_back(static_cast<int>(run.start + i));
    }
    RC_ASSERT(std::adjacent_find(asked.begin(), asked.end(), std::greater_equal<int>()) ==
              asked.end());
    RC_ASSERT(std::includes(asked.begin(), asked.end(), elements.begin(), elements.end()));
}

RC_GTEST_FIXTURE_PROP(Building, ReturnsTheRestOfARunToTheCaller, ())
{
    const int start = *rc::gen::inRange(-50, 500);
    const int count = *rc::gen::inRange(-5, 100);
    const int maxLength = *rc::gen::inRange(1, 20);
    const bool appendRest = *rc::gen::arbitrary<bool>();
    RW_VAR run = readOf("T", start, count);
    addressAdd(run, maxLength, appendRest);

    const int whole = qMax(0, count) / maxLength * maxLength;
    std::vector<Stretch> expected;
    cut(expected, {start, appendRest ? count : whole, 5}, maxLength);
    RC_ASSERT(built() == expected);
    RC_ASSERT(run.startAddress == start + whole);
    RC_ASSERT(run.count == count - whole);
}

RC_GTEST_FIXTURE_PROP(Building, SortsAnyGroupByStartAndKeepsTheOrderOfEquals, ())
{
    const auto starts = *rc::gen::container<std::vector<int>>(rc::gen::inRange(-4, 12));
    std::vector<Stretch> expected;
    for (std::size_t i = 0; i < starts.size(); ++i)
        expected.push_back({starts[i], 1, static_cast<int>(i)});
    QList<RW_VAR> group = requestsOf(expected);
    Bubble_Sort(group);
    std::stable_sort(expected.begin(), expected.end(),
                     [](const Stretch& a, const Stretch& b) { return a.start < b.start; });
    PLC_driver.readList = group;
    RC_ASSERT(built() == expected);
}

// ---- Properties of a host's list ---------------------------------------------------------------

/// A host's variable: the indexes of its name and its address text below, its count and its area.
struct Variable
{
    int name, address, count, area;
};

const char* const kNames[] = {"A", "B", "Zone", "Zone1", "a", "plain", "Z"};
const int kCatalogued = 5; // the names before this one
const struct
{
    const char* text;
    int number;
} kAddresses[] = {{"0", 0},   {"1", 1},   {"2", 2},  {"7", 7},   {"14", 14},
                  {"15", 15}, {"30", 30}, {"", 0},   {"x", 0},   {"12a", 0},
                  {"-3", -3}, {" 9", 9},  {"+5", 5}, {"99", 99}, {"31", 31}};

rc::Gen<Variable> anyVariable()
{
    return rc::gen::map(
        rc::gen::tuple(rc::gen::inRange(0, 7), rc::gen::inRange(0, 15),
                       rc::gen::weightedOneOf<int>(
                           {{4, rc::gen::inRange(1, 4)}, {1, rc::gen::inRange(-2, 40)}}),
                       rc::gen::inRange(0, 256)),
        [](const std::tuple<int, int, int, int>& t) {
            return Variable{std::get<0>(t), std::get<1>(t), std::get<2>(t), std::get<3>(t)};
        });
}

RC_GTEST_FIXTURE_PROP(Building, RebuildsTheCyclicListOfAnyHostLikeTheModel, ())
{
    for (int i = 0; i < kCatalogued; ++i)
        declareIndexed(kNames[i]);
    settings.passComplete = 1;
    PLC_driver.readCycleCount = 5;
    const auto variables =
        *rc::gen::nonEmpty(rc::gen::container<std::vector<Variable>>(anyVariable()));
    QList<HOSTVAR> host;
    std::map<std::string, std::vector<Stretch>>
        groups; // a std::map orders names by their codes, like QString
    for (std::size_t i = 0; i < variables.size(); ++i) {
        const Variable& variable = variables[i];
        host.append(hostVar(kNames[variable.name], kAddresses[variable.address].text,
                            variable.count, static_cast<unsigned char>(variable.area)));
        const bool indexed = variable.name < kCatalogued;
        groups[kNames[variable.name]].push_back({indexed ? kAddresses[variable.address].number : 0,
                                                 indexed ? variable.count : 1,
                                                 static_cast<int>(i)});
    }
    QStringList expected;
    for (auto& [name, group] : groups) {
        std::stable_sort(group.begin(), group.end(),
                         [](const Stretch& a, const Stretch& b) { return a.start < b.start; });
        for (const Stretch& run : modelRequests(group, 15)) {
            const Variable& owner = variables[static_cast<std::size_t>(run.owner)];
            expected.append(QString("%1 %2 %3 %4 %5 %6")
                                .arg(name.c_str())
                                .arg(run.start)
                                .arg(run.count)
                                .arg(owner.area)
                                .arg(kAddresses[owner.address].text)
                                .arg(owner.name < kCatalogued));
        }
    }
    RW_VAR old = readOf("old");
    AddListReadVar(&old);
    const int size = ReCreatReadVarList(&host);

    QStringList actual;
    for (const RW_VAR& request : PLC_driver.readList)
        actual.append(QString("%1 %2 %3 %4 %5 %6")
                          .arg(request.tagName)
                          .arg(request.startAddress)
                          .arg(request.count)
                          .arg(request.areaType)
                          .arg(request.addressText)
                          .arg(request.reqFlag));
    RC_ASSERT(actual.join("\n").toStdString() == expected.join("\n").toStdString());
    RC_ASSERT(size == expected.size());
    RC_ASSERT(PLC_driver.readCycleCount == 0);
    RC_ASSERT(settings.passComplete == 0);
}

// ---- Properties of the two queues --------------------------------------------------------------

const int kCap = 1024;

/// The fields of a queued request that matter: its place, its variable and the call that queued it.
struct Entry
{
    int station, area, start, count, varType, varIndex, call;
    bool samePlace(const Entry& o) const
    {
        return std::tie(station, area, start, count) ==
               std::tie(o.station, o.area, o.start, o.count);
    }
    bool sameVariable(const Entry& o) const
    {
        return varType == o.varType && varIndex == o.varIndex;
    }
    bool operator==(const Entry& o) const
    {
        return samePlace(o) && sameVariable(o) && call == o.call;
    }
};

std::ostream& operator<<(std::ostream& out, const Entry& e)
{
    return out << "call " << e.call << " station " << e.station << " at " << e.start;
}

class Queues : public Building
{
protected:
    Queues() { declareIndexed("T"); }

    static Entry anyEntry(int call)
    {
        const auto few = rc::gen::inRange(0, 2);
        return {*few, *few, *few, *few, *few, *few, call};
    }
    RW_VAR requestOf(const Entry& entry)
    {
        RW_VAR request = readOf("T", entry.start, entry.count);
        request.stationNo = entry.station;
        request.areaType = entry.area;
        request.varType = entry.varType;
        request.varIndex = entry.varIndex;
        request.hostField3 = entry.call;
        return request;
    }
    static std::vector<Entry> entriesOf(const QList<RW_VAR>& list)
    {
        std::vector<Entry> entries;
        for (const RW_VAR& r : list)
            entries.push_back({r.stationNo, r.areaType, r.startAddress, r.count, r.varType,
                               r.varIndex, r.hostField3});
        return entries;
    }
    /// Fills a queue up to `size` with requests that differ from every generated one.
    std::vector<Entry> fill(QList<RW_VAR>& list, int size)
    {
        std::vector<Entry> entries;
        for (int i = 0; i < size; ++i) {
            entries.push_back({9, 9, 9, 9, 9, 9, -1 - i});
            list.append(requestOf(entries.back()));
        }
        return entries;
    }
};

RC_GTEST_FIXTURE_PROP(Queues, AcceptWritesLikeTheModel, ())
{
    std::vector<Entry> model = fill(PLC_driver.writeList, *rc::gen::element(0, 0, kCap - 3));
    const int calls = *rc::gen::inRange(0, 25);
    for (int call = 0; call < calls; ++call) {
        const Entry entry = anyEntry(call);
        const int mode = *rc::gen::weightedElement<int>({{6, 0}, {1, 1}, {1, 2}});
        const auto older = model.size() < 2
                               ? model.end()
                               : std::find_if(model.begin() + 1, model.end(),
                                              [&](const Entry& e) { return e.samePlace(entry); });
        if (mode != 1 && older != model.end())
            *older = entry;
        else if (mode == 1 || model.size() < kCap)
            model.push_back(entry);
        RW_VAR request = requestOf(entry);
        RC_ASSERT(AddListWriteVar(&request, mode) == static_cast<int>(model.size()));
    }
    RC_ASSERT(entriesOf(PLC_driver.writeList) == model);
}

RC_GTEST_FIXTURE_PROP(Queues, AcceptOneShotReadsLikeTheModel, ())
{
    settings.multiStation = *rc::gen::element(0, 1);
    settings.defaultStation = *rc::gen::element(0, 1, 5);
    std::vector<Entry> model = fill(PLC_driver.onceReadList, *rc::gen::element(0, 0, kCap - 3));
    const int calls = *rc::gen::inRange(0, 25);
    for (int call = 0; call < calls; ++call) {
        Entry entry = anyEntry(call);
        const int mode = *rc::gen::weightedElement<int>({{6, 0}, {1, 1}, {1, 2}});
        RW_VAR request = requestOf(entry);
        if (mode != 1 && settings.multiStation == 0)
            entry.station = settings.defaultStation;
        const bool queued = std::any_of(model.begin(), model.end(), [&](const Entry& e) {
            return e.samePlace(entry) && e.sameVariable(entry);
        });
        if (mode == 1 || (!queued && model.size() < kCap))
            model.push_back(entry);
        RC_ASSERT(AddListOnceReadVar(&request, mode) == static_cast<int>(model.size()));
    }
    RC_ASSERT(entriesOf(PLC_driver.onceReadList) == model);
}

} // namespace
