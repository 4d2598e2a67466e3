// client_host DEVICE BAUD ELEMENTS READS: reads the elements of the tag Values, a DINT array,
// through the reference host's poll loop and the driver that the host loads.

#include "client.h"

#include "DriverLibrary.h"
#include "PollLoop.h"
#include "SerialLine.h"
#include "UserError.h"

#include <QtCore/QCoreApplication>

namespace {

micro850::host::Project projectOf(const Task& task)
{
    const QString text = QStringLiteral(
        R"({"stations": [{"number": 1}], "variables": [{"tag": "Values", "length": %1}]})");
    micro850::host::Project project =
        micro850::host::Project::fromText(text.arg(task.values), "bench");
    project.port.device = QString::fromLocal8Bit(task.device);
    project.port.baud = task.baud;
    return project;
}

// The cycle has settled when every element has a value and the list has been rebuilt for the type.
void settle(micro850::host::PollLoop& loop, int cycle)
{
    while (!loop.values().wasRead(0) && loop.lineError().isEmpty() &&
           loop.values().error(0).isEmpty())
        loop.step();
    for (int i = 0; i < cycle; ++i)
        loop.step();
}

int run(const Task& task)
{
    const micro850::host::DriverLibrary library(QStringLiteral(MICRO850_LIBRARY));
    const micro850::host::Project project = projectOf(task);
    micro850::host::SerialLine line(project.port);
    const micro850::SystemClock clock;
    micro850::host::PollLoop loop(library.api(), line, clock, project);
    // An array that does not fit into one reply is read in several.
    const int parts =
        micro850::host::runsOf(project.variables.first(), micro850::cipTypeNamed("DINT")).size();
    settle(loop, parts);
    const micro850::host::Counters& counters = loop.stations().first().counters();
    const qint64 from = counters.answered;
    Stopwatch watch;
    watch.start();
    while (counters.answered < from + qint64(parts) * task.reads && counters.timedOut == 0 &&
           loop.lineIsUp())
        loop.step();
    watch.report(task.reads);
    if (counters.timedOut == 0 && loop.lineIsUp() && loop.values().error(0).isEmpty())
        return 0;
    std::fprintf(stderr, "client_host: %s: no value (%s)\n", task.device,
                 qPrintable(loop.lineError() + loop.values().error(0)));
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    const Task task = taskFrom(argc, argv);
    const QCoreApplication app(argc, argv);
    try {
        return run(task);
    } catch (const micro850::UserError& error) {
        std::fprintf(stderr, "client_host: %s\n", error.what());
        return error.status();
    }
}
