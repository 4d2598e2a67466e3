// memory VARIABLES: the heap that the driver and the host kit use for so many cyclic variables, all
// of which have a value, and by how much the memory of the process grew. The variables are elements
// of DINT arrays of up to 1,000, each read alone. Prints JSON.

#include "DriverLibrary.h"
#include "PollLoop.h"
#include "UserError.h"
#include "simulated_line.h"

#include <QtCore/QCoreApplication>

#include <cstdio>
#include <fstream>
#include <malloc.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace {

const int kElements = 1000;

std::string plantText(int variables)
{
    std::string tags;
    for (int first = 0; first < variables; first += kElements)
        tags += std::string(first == 0 ? "" : ",") + R"({"name": "Values)" +
                std::to_string(first / kElements) + R"(", "type": "DINT", "length": )" +
                std::to_string(kElements) + "}";
    return "{\"tags\": [" + tags + "]}";
}

micro850::host::Project projectOf(int variables)
{
    std::string entries;
    for (int i = 0; i < variables; ++i) {
        const std::string tag = "Values" + std::to_string(i / kElements);
        const std::string element = std::to_string(i % kElements);
        entries += i == 0 ? R"({"name": ")" : R"(,{"name": ")";
        entries += tag;
        entries += '_';
        entries += element;
        entries += R"(", "tag": ")";
        entries += tag;
        entries += R"(", "element": )";
        entries += element;
        entries += '}';
    }
    const std::string text = R"({"stations": [{"number": 1}], "variables": [)" + entries + "]}";
    return micro850::host::Project::fromText(QString::fromStdString(text), "");
}

std::size_t heapInUse()
{
    const auto heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

// Bytes of the process in memory.
std::size_t resident()
{
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stoul(line.substr(6)) * 1024;
    }
    throw micro850::UserError("/proc/self/status has no VmRSS");
}

decltype(micro850::host::DriverApi::recreateReadList) recreateReadList = nullptr;
bool hostEnds = false;

// A host empties the driver's list when it ends. Here the list stays, to be measured.
int recreateReadListUnlessHostEnds(QList<HOSTVAR>* list)
{
    return hostEnds ? 0 : recreateReadList(list);
}

/// The host kit's objects.
struct Host
{
    Host(const micro850::host::DriverApi& api, micro850::host::Line& line,
         const micro850::Clock& clock, int variables)
        : project(projectOf(variables)), loop(api, line, clock, project)
    {
    }
    micro850::host::Project project;
    micro850::host::PollLoop loop;
};

nlohmann::json measure(int variables)
{
    micro850::VirtualClock clock;
    micro850::sim::Controller controller(
        clock, micro850::sim::TagTable::fromText(plantText(variables), "plant"));
    micro850::sim::FaultyLine line(clock, controller);
    SimulatedLine port(clock, line);
    const micro850::host::DriverLibrary library(QStringLiteral(MICRO850_LIBRARY));

    const std::size_t heapBefore = heapInUse();
    const std::size_t residentBefore = resident();
    micro850::host::DriverApi api = library.api();
    recreateReadList = api.recreateReadList;
    api.recreateReadList = &recreateReadListUnlessHostEnds;
    auto host = std::make_unique<Host>(api, port, clock, variables);
    for (int read = 0; read < variables;) {
        host->loop.step();
        while (read < variables && host->loop.values().wasRead(read))
            ++read;
    }
    const std::size_t heapAll = heapInUse();
    const std::size_t residentAll = resident();
    hostEnds = true;
    host.reset(); // the driver's lists and values belong to the process and stay
    const std::size_t heapOfDriver = heapInUse() - heapBefore;
    return {{"variables", variables},
            {"driver", heapOfDriver},
            {"host_kit", heapAll - heapBefore - heapOfDriver},
            {"resident", residentAll - residentBefore}};
}

} // namespace

int main(int argc, char** argv)
{
    const int variables = argc == 2 ? std::atoi(argv[1]) : 0;
    if (variables < 1) {
        std::fprintf(stderr, "usage: memory VARIABLES, from 1\n");
        return 2;
    }
    const QCoreApplication app(argc, argv);
    try {
        std::printf("%s\n", measure(variables).dump().c_str());
        return 0;
    } catch (const micro850::UserError& error) {
        std::fprintf(stderr, "memory: %s\n", error.what());
        return 1;
    }
}
