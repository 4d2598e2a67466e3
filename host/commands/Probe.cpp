#include "AdapterReport.h"
#include "Connection.h"
#include "Interrupt.h"
#include "Output.h"
#include "Prober.h"
#include "Route.h"
#include "TraceRecorder.h"
#include "UserError.h"
#include "Visible.h"

#include <memory>
#include <optional>

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

QStringList report(const PortSettings& port, const ProbeResult& result,
                   const AdapterReport& adapter)
{
    const Identity& identity = result.identity;
    const qint64 ms = wholeMilliseconds(result.roundTrip);
    return QStringList(QStringLiteral("port          %1").arg(port.text())) + adapter.lines() +
           QStringList{QStringLiteral("vendor        %1").arg(identity.vendor),
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

Json reportObject(const PortSettings& port, const ProbeResult& result, const AdapterReport& adapter)
{
    Json object = {
        {"port", port.device.toStdString()}, {"baud", port.baud}, {"answered", result.answered}};
    if (const Json known = adapter.object(); !known.is_null())
        object["adapter"] = known;
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

/// Asks at one speed after the other.
class Probing
{
public:
    Probing(const ProbeOptions& options, const PortSettings& port, const Output& output)
        : m_options(options), m_port(port), m_output(output),
          m_library(textOf(options.line.driver)), m_prober(m_library.api(), options.station)
    {
    }

    /// Asks at this speed and prints the result. True when a controller answered.
    bool ask(int baud, Progress& progress);
    /// Prints what else is known after no speed was answered.
    void reportSilence() const;
    /// Throws UserError when the trace could not be written.
    void closeTrace();

private:
    ProbeResult probe(const PortSettings& port);

    const ProbeOptions& m_options;
    PortSettings m_port;
    const Output& m_output;
    const Interrupt m_interrupt; // before the line is open, so that it is closed in order
    const DriverLibrary m_library;
    const SystemClock m_clock;
    Prober m_prober;
    std::optional<TraceRecorder> m_trace;
    AdapterReport m_adapter;
    bool m_heard = false;
    bool m_unexplained = false;
};

ProbeResult Probing::probe(const PortSettings& port)
{
    m_adapter.closed = adapterOf(port.device);
    const std::unique_ptr<Line> line = lineFor(port);
    try {
        requireOpen(*line, port, m_options.line);
    } catch (const UserError&) {
        // A scan goes on where a device server cannot set one of the speeds.
        if (!m_options.scan || !line->refusesSettings())
            throw;
        ProbeResult result;
        result.error = line->lossReason();
        return result;
    }
    m_adapter.open = adapterOf(port.device);
    m_adapter.lowLatency = line->lowLatency();
    // After the line is open, so that an earlier trace is not lost to a wrong port.
    if (!m_trace)
        m_trace.emplace(m_options.line.trace, m_options.line.force);
    return m_prober.probe(*line, m_clock, port, m_trace->observer(),
                          [this] { return m_interrupt.requested(); });
}

bool Probing::ask(int baud, Progress& progress)
{
    m_interrupt.throwIfRequested();
    PortSettings port = m_port;
    port.baud = baud;
    const ProbeResult result = probe(port);
    progress.clear();
    if (!result.answered)
        m_interrupt.throwIfRequested();
    m_heard = m_heard || result.heard;
    m_unexplained = m_unexplained || result.unexplained;
    m_output.data(reportObject(port, result, m_adapter),
                  result.answered ? report(port, result, m_adapter) : QStringList());
    if (!result.answered)
        m_output.error(port.text() + QStringLiteral(": ") + result.error);
    else if (const QString advice = m_adapter.advice(port); !advice.isEmpty())
        m_output.note(advice);
    return result.answered;
}

void Probing::reportSilence() const
{
    if (!m_output.json()) // its objects have the adapter
        m_output.data(Json(), m_adapter.lines());
    if (const QString advice = m_adapter.advice(m_port); !advice.isEmpty())
        m_output.note(advice);
    const char* const remedy = m_options.scan       ? "check cable and speed"
                               : m_port.setsSpeed() ? "check cable and speed, or try all speeds "
                                                      "with --scan"
                                                    : "check cable and the speed set at the server";
    if (m_unexplained && !m_heard)
        m_output.note(QLatin1String(remedy));
}

void Probing::closeTrace()
{
    if (m_trace)
        m_trace->close();
}

int run(ProbeOptions options)
{
    const Output output(options.output.json, options.output.quiet);
    findProjectForPort(options.line);
    if (options.scan && options.line.baud != 0)
        throw UserError("--baud: --scan tries all usual speeds (leave one of the two out)");
    const Project project = projectOf(options.line);
    noteDefaults(options.line, project, output);
    requireOwnPort(project, options.line, "probe", output);
    requirePort(project, options.line);
    if (options.scan && !project.port.setsSpeed()) {
        throw UserError("--scan: the server of " + project.port.device.toStdString() +
                        " sets the speed itself (leave --scan out, or use rfc2217:// if the "
                        "server speaks it)");
    }
    QVector<int> speeds = {project.port.baud};
    if (options.scan)
        speeds = QVector<int>(std::begin(kUsualSpeeds), std::end(kUsualSpeeds));
    Probing probing(options, project.port, output);
    Progress progress(output, QStringLiteral("trying speeds"), speeds.size());
    bool answered = false;
    for (int i = 0; i < speeds.size() && !answered; ++i) {
        progress.show(i);
        answered = probing.ask(speeds.at(i), progress);
    }
    if (!answered)
        probing.reportSilence();
    probing.closeTrace();
    return answered ? kExitDone : kExitRefused;
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
