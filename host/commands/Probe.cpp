#include "Connection.h"
#include "Interrupt.h"
#include "Output.h"
#include "Prober.h"
#include "TraceRecorder.h"
#include "UserError.h"
#include "Visible.h"

#include <functional>
#include <memory>

namespace micro850::host {

namespace {

const int kUsualSpeeds[] = {9600, 19200, 38400, 57600, 115200};

struct ProbeOptions
{
    LineOptions line;
    OutputOptions output;
    int station = 1;
    bool scan = false;
};

QString hex(quint32 value, int digits)
{
    return QStringLiteral("0x") +
           QString::number(value, 16).toUpper().rightJustified(digits, QLatin1Char('0'));
}

QStringList report(const PortSettings& port, const ProbeResult& result)
{
    const Identity& identity = result.identity;
    const qint64 ms = wholeMilliseconds(result.roundTrip);
    return {QStringLiteral("port          %1").arg(port.text()),
            QStringLiteral("vendor        %1").arg(identity.vendor),
            QStringLiteral("device type   %1").arg(identity.deviceType),
            QStringLiteral("product code  %1").arg(identity.productCode),
            QStringLiteral("revision      %1.%2")
                .arg(identity.major)
                .arg(identity.minor, 3, 10, QLatin1Char('0')),
            QStringLiteral("serial        %1").arg(hex(identity.serial, 8)),
            QStringLiteral("status        %1").arg(hex(identity.status, 4)),
            QStringLiteral("name          %1").arg(visibleValue(identity.name)),
            QStringLiteral("round trip    %1 ms")
                .arg(ms == 0 ? QStringLiteral("<1") : QString::number(ms))};
}

Json reportObject(const PortSettings& port, const ProbeResult& result)
{
    Json object = {
        {"port", port.device.toStdString()}, {"baud", port.baud}, {"answered", result.answered}};
    if (!result.answered) {
        object["error"] = result.error.toStdString();
        return object;
    }
    const Identity& identity = result.identity;
    object["vendor"] = identity.vendor;
    object["deviceType"] = identity.deviceType;
    object["productCode"] = identity.productCode;
    object["major"] = identity.major;
    object["minor"] = identity.minor;
    object["serial"] = identity.serial;
    object["status"] = identity.status;
    object["name"] = identity.name.toStdString();
    object["roundTripMs"] = wholeMilliseconds(result.roundTrip);
    return object;
}

// A scan goes on where a device server cannot set one of the speeds.
ProbeResult probeOnce(Line& line, const PortSettings& port, const ProbeOptions& options,
                      const std::function<ProbeResult()>& probe)
{
    try {
        requireOpen(line, port);
    } catch (const UserError&) {
        if (!options.scan || !line.refusesSettings())
            throw;
        ProbeResult result;
        result.error = line.lossReason();
        return result;
    }
    return probe();
}

int run(const ProbeOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    if (options.scan && options.line.baud != 0)
        throw UserError("--baud: --scan tries all usual speeds (leave one of the two out)");
    const Project project = projectOf(options.line);
    requirePort(project, options.line);
    if (options.scan && !project.port.setsSpeed()) {
        throw UserError("--scan: the server of " + project.port.device.toStdString() +
                        " sets the speed itself (leave --scan out, or use rfc2217:// if the "
                        "server speaks it)");
    }
    QVector<int> speeds = {project.port.baud};
    if (options.scan)
        speeds = QVector<int>(std::begin(kUsualSpeeds), std::end(kUsualSpeeds));
    TraceRecorder trace(options.line.trace, options.line.force);
    const DriverLibrary library(textOf(options.line.driver));
    const SystemClock clock;
    Prober prober(library.api(), options.station);
    Progress progress(output, QStringLiteral("trying speeds"), speeds.size());
    bool heard = false;
    const Interrupt interrupt;
    for (int i = 0; i < speeds.size(); ++i) {
        interrupt.throwIfRequested();
        progress.show(i);
        PortSettings port = project.port;
        port.baud = speeds.at(i);
        const std::unique_ptr<Line> line = lineFor(port);
        const ProbeResult result = probeOnce(*line, port, options, [&] {
            return prober.probe(*line, clock, port, trace.observer());
        });
        line->close();
        progress.clear();
        if (result.answered) {
            output.data(reportObject(port, result), report(port, result));
            trace.close();
            return kExitDone;
        }
        heard = heard || result.heard;
        output.data(reportObject(port, result), QString());
        output.error(port.text() + QStringLiteral(": ") + result.error);
    }
    if (!heard) {
        output.note(QStringLiteral("check cable and speed%1")
                        .arg(QLatin1String(options.scan ? "" : ", or try all speeds with --scan")));
    }
    trace.close();
    return kExitRefused;
}

} // namespace

void addProbe(CommandLine& line)
{
    const auto options = std::make_shared<ProbeOptions>();
    CommandOptions probe = line.addCommand("probe", "Identify the controller on the line",
                                           [options] { return run(*options); });
    probe.flag("--scan", options->scan,
               "Try the usual speeds, 9600 to 115200, in turn (without --baud)");
    probe.text("--project", options->line.project, "Project file: its port");
    probe.integer("--station", options->station, 0, 65535,
                  "Number under which the driver keeps the controller (default 1); it is not sent: "
                  "whatever is at the other end answers");
    options->line.addTo(probe);
    options->output.addTo(probe);
    probe.footer(std::string("Example:\n  micro850-host probe --port /dev/ttyUSB0 --scan\n") +
                 kStatuses);
}

} // namespace micro850::host
