// Project files: any text is read or refused with one line. A project that is read can be polled.

#include "ExactNumbers.h"
#include "Project.h"
#include "TagAddress.h"
#include "Writable.h"
#include "complaint.h"

#include <QtCore/QSet>

#include <algorithm>
#include <cmath>
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

const int kDay = 24 * 60 * 60 * 1000;

void checkLimits(const micro850::host::Variable& variable)
{
    FUZZ_CHECK(variable.deadband >= 0);
    for (const auto& limit : {variable.minimum, variable.maximum})
        FUZZ_CHECK(!limit || (limit->isNumber() && !std::isnan(limit->number())));
    if (variable.minimum && variable.maximum)
        FUZZ_CHECK(micro850::host::compareNumbers(*variable.minimum, *variable.maximum) <= 0);
}

void checkRates(const micro850::host::Variable& variable)
{
    const int interval = variable.intervalMs.value_or(0);
    FUZZ_CHECK(interval >= 0 && interval <= kDay);
    FUZZ_CHECK(!variable.intervalMs || variable.poll == micro850::host::PollMode::Cyclic);
    FUZZ_CHECK(variable.heartbeatMs == 0 || variable.heartbeatMs >= 100);
    FUZZ_CHECK(variable.heartbeatMs <= kDay);
    FUZZ_CHECK(std::isfinite(variable.deadband));
    FUZZ_CHECK(variable.writesPerMinute.value_or(1) >= 1);
}

// What the programs do with a project that was read.
void checkUses(micro850::host::Project project, const std::string& name)
{
    try {
        micro850::host::requireWritableVariables(project, QString::fromStdString(name));
    } catch (const micro850::UserError& error) {
        fuzz::checkComplaint(error, name + ':');
    }
    project.showRaw();
    project.setInterval(500);
    for (const micro850::host::Variable& variable : project.variables) {
        checkLimits(variable);
        FUZZ_CHECK(variable.unit.isEmpty() && variable.intervalMs);
    }
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
    checkLimits(variable);
    checkRates(variable);
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

// A file that is refused has at least one mistake, each with a line of the file.
void checkMistakes(const QString& path, std::ptrdiff_t lines)
{
    const auto mistakes = micro850::host::Project::mistakesIn(path);
    FUZZ_CHECK(!mistakes.empty() && mistakes.size() <= micro850::host::kMostMistakes);
    int before = 0;
    for (const micro850::host::ProjectMistake& mistake : mistakes) {
        FUZZ_CHECK(mistake.line >= before && mistake.line <= lines);
        before = mistake.line;
        fuzz::checkComplaint(micro850::UserError(mistake.message), path.toStdString() + ':');
        fuzz::checkShownText(QString::fromStdString(mistake.problem));
    }
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
        const auto project = micro850::host::Project::fromFile(path);
        check(project);
        checkUses(project, path.toStdString());
        FUZZ_CHECK(std::find(bytes, bytes + size, 0) == bytes + size);
        FUZZ_CHECK(micro850::host::Project::mistakesIn(path).empty());
    } catch (const micro850::UserError& error) {
        fuzz::checkComplaint(error, path.toStdString() + ':');
        checkMistakes(path, 1 + std::count(bytes, bytes + size, '\n'));
    }
    return 0;
}
