// Project files: any text is read or refused with one line. A project that is read can be polled.

#include "Project.h"
#include "TagAddress.h"
#include "complaint.h"

#include <QtCore/QSet>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

namespace {

void checkPort(const micro850::host::PortSettings& port)
{
    FUZZ_CHECK(port.baud >= 300 && port.baud <= 4000000);
    FUZZ_CHECK(port.dataBits == 7 || port.dataBits == 8);
    FUZZ_CHECK(port.stopBits == 1 || port.stopBits == 2);
    FUZZ_CHECK(port.deviceBudgetMs >= 0 && port.timeoutMs >= 0 && port.retryLimit >= 0);
}

void checkVariable(const micro850::host::Project& project, const micro850::host::Variable& variable)
{
    FUZZ_CHECK(!variable.tag.isEmpty() && variable.tag.size() <= micro850::host::kLongestTag);
    FUZZ_CHECK(project.hasStation(variable.station));
    FUZZ_CHECK(variable.element >= 0 && variable.length >= 1);
    FUZZ_CHECK(variable.element + variable.length - 1 <= micro850::host::kLargestElement);
    FUZZ_CHECK(variable.area >= 0 && variable.area <= 255);
    FUZZ_CHECK(project.variable(variable.name) == &variable);
    fuzz::checkShownText(variable.name + variable.unit);
}

void check(const micro850::host::Project& project)
{
    checkPort(project.port);
    FUZZ_CHECK(!project.variables.isEmpty() && !project.stations.isEmpty());
    QSet<int> numbers;
    for (const micro850::host::StationSettings& station : project.stations)
        numbers.insert(station.number);
    FUZZ_CHECK(numbers.size() == project.stations.size());
    for (const micro850::host::Variable& variable : project.variables)
        checkVariable(project, variable);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    // As the program: from a file, whose bytes may be anything.
    static const int file = memfd_create("project", 0);
    static const QString path = QStringLiteral("/proc/self/fd/%1").arg(file);
    FUZZ_CHECK(ftruncate(file, 0) == 0);
    FUZZ_CHECK(pwrite(file, bytes, size, 0) == static_cast<ssize_t>(size));
    try {
        check(micro850::host::Project::fromFile(path));
        FUZZ_CHECK(std::find(bytes, bytes + size, 0) == bytes + size);
    } catch (const micro850::UserError& error) {
        fuzz::checkComplaint(error, path.toStdString() + ':');
    }
    return 0;
}
