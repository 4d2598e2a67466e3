#include "Examination.h"

#include "Route.h"
#include "SerialLine.h"
#include "UserError.h"
#include "Visible.h"

#include <QtCore/QFileInfo>

namespace micro850::host {

namespace {

const int kUsualSpeeds[] = {38400, 9600, 19200, 57600, 115200};
const Parity kParities[] = {Parity::None, Parity::Even, Parity::Odd};
const int kNameWidth = 14;
// An acknowledgement alone is no echo.
const int kShortestEcho = 4;

QString milliseconds(Duration time)
{
    const int digits = time < std::chrono::milliseconds(1) ? 2 : 1;
    return QString::number(static_cast<double>(time.count()) / 1000, 'f', digits) +
           QStringLiteral(" ms");
}

QString identityText(const Identity& identity)
{
    const QString serial = QString::number(identity.serial, 16).toUpper();
    return QStringLiteral("%1, product code %2, revision %3.%4, serial 0x%5")
        .arg(visibleValue(identity.name))
        .arg(identity.productCode)
        .arg(identity.major)
        .arg(identity.minor, 3, 10, QLatin1Char('0'))
        .arg(serial.rightJustified(8, QLatin1Char('0')));
}

QString rightsText(const DeviceRights& rights)
{
    return QStringLiteral("%1 %2 %3: this user may %4use it")
        .arg(rights.mode, visible(rights.owner), visible(rights.group),
             rights.allowed ? QString() : QStringLiteral("not "));
}

QStringList textsOf(const QVector<DeviceUser>& users)
{
    QStringList texts;
    for (const DeviceUser& user : users)
        texts += QStringLiteral("%1 (process %2)").arg(visible(user.name)).arg(user.process);
    return texts;
}

} // namespace

Examination::Examination(const LineOptions& options, const Project& project, const Output& output)
    : m_options(options), m_project(project), m_output(output), m_library(textOf(options.driver)),
      m_prober(m_library.api(), project.stations.first().number)
{
    m_findings.port = project.port;
}

void Examination::report(const char* name, bool good, const QString& text, const Json& details)
{
    Json object = {{"check", name}, {"ok", good}, {"text", text.toStdString()}};
    if (!details.is_null())
        object.update(details);
    const QString line = QString::fromLatin1(name).leftJustified(kNameWidth) + text;
    m_lines += line;
    m_output.data(object, line);
}

void Examination::run(int reads)
{
    if (!m_findings.port.isNetwork())
        lookAtDevice();
    try {
        requireOwnPort(m_project, m_options, "doctor", m_output);
    } catch (const UserError& error) {
        m_findings.gateway = QString::fromUtf8(error.what());
        report("used by", false, m_findings.gateway);
        return;
    }
    if (!m_findings.port.isNetwork() && !m_findings.rights.allowed)
        return;
    findController();
    if (m_findings.answering)
        readAgain(reads);
}

void Examination::lookAtDevice()
{
    const QString& device = m_findings.port.device;
    DeviceRights& rights = m_findings.rights;
    rights = rightsOf(device);
    m_findings.otherDevices = serialDevices();
    const QString path = devicePath(device);
    const QString target = QFileInfo(path).canonicalFilePath();
    QString text = path;
    if (!rights.exists)
        text += QStringLiteral(": is not there");
    else if (!rights.isDevice)
        text += QStringLiteral(": is not a device");
    else if (target != path)
        text += QStringLiteral(", which is ") + target;
    report("device", rights.isDevice, visible(text));
    rights.allowed = rights.allowed && rights.isDevice;
    if (!rights.isDevice)
        return;
    report("rights", rights.allowed, rightsText(rights));
    lookAtUsers();
    lookAtPeers();
}

// Nobody else can tell that the settings of such a line decide nothing.
void Examination::lookAtPeers()
{
    m_findings.isPseudoTerminal = isPseudoTerminal(m_findings.port.device);
    if (!m_findings.isPseudoTerminal)
        return;
    m_findings.peers = textsOf(peersOf(m_findings.port.device));
    report("other end", true,
           (m_findings.peers.isEmpty() ? QStringLiteral("a program that this user cannot see")
                                       : m_findings.peers.join(QStringLiteral(", "))) +
               QStringLiteral(", by a pseudo-terminal: it has no speed and no parity"));
}

void Examination::lookAtUsers()
{
    m_findings.users = textsOf(usersOf(m_findings.port.device));
    // A program that simulates a controller may hold its own end.
    report("used by", true,
           m_findings.users.isEmpty() ? QStringLiteral("no other program that this user can see")
                                      : m_findings.users.join(QStringLiteral(", ")));
}

bool Examination::openLine(const PortSettings& port, Line& line)
{
    m_adapter.closed = adapterOf(port.device);
    try {
        requireOpen(line, port, m_options);
    } catch (const UserError& error) {
        if (line.refusesSettings())
            return false;
        m_findings.openError = QString::fromUtf8(error.what());
        report("open", false, m_findings.openError);
        return false;
    }
    m_adapter.open = adapterOf(port.device);
    m_adapter.lowLatency = line.lowLatency();
    // After the line is open, so that an earlier trace is not lost to a wrong port.
    if (!m_trace)
        m_trace = std::make_unique<TraceRecorder>(m_options.trace, m_options.force);
    return true;
}

// What comes back just as it went out is an echo.
Exchange::Observer Examination::observer()
{
    return [this, traced = m_trace->observer()](Exchange::Direction direction,
                                                const QByteArray& bytes, Duration now) {
        if (direction == Exchange::Direction::Out && bytes.size() > kShortestEcho)
            m_sent = bytes;
        else if (bytes.size() > kShortestEcho && m_sent.endsWith(bytes))
            m_findings.hasEcho = true;
        if (traced)
            traced(direction, bytes, now);
    };
}

ProbeResult Examination::ask(Line& line, const PortSettings& port)
{
    ProbeResult result =
        m_prober.probe(line, m_clock, port, observer(), [this] { return m_interrupt.requested(); });
    if (!result.answered)
        m_interrupt.throwIfRequested();
    m_findings.bytesCame = m_findings.bytesCame || result.counters.bytesReceived > 0;
    m_findings.cameLate = m_findings.cameLate || result.counters.late > 0;
    return result;
}

void Examination::findController()
{
    const PortSettings& port = m_findings.port;
    const std::unique_ptr<Line> line = lineFor(port);
    if (!openLine(port, *line))
        return;
    for (const QString& text : m_adapter.lines()) {
        m_lines += text;
        m_output.data(Json(), text);
    }
    if (const Json adapter = m_adapter.object(); m_output.json() && !adapter.is_null())
        m_output.data({{"check", "adapter"}, {"ok", true}, {"adapter", adapter}}, QString());
    m_findings.adapterAdvice = m_adapter.advice(port);
    const ProbeResult result = ask(*line, port);
    line->close();
    report("settings", result.answered,
           port.text().section(QStringLiteral(", "), -1) + QStringLiteral(": ") +
               (result.answered ? QStringLiteral("answers") : result.error));
    if (result.answered)
        reportController(result, port);
    else if (!port.setsSpeed() || !tryOtherSettings())
        report("controller", false, QStringLiteral("nobody answers"));
    report("echo", !m_findings.hasEcho,
           m_findings.hasEcho ? QStringLiteral("what is sent comes back") : QStringLiteral("none"));
}

bool Examination::tryOtherSettings()
{
    Progress progress(m_output, QStringLiteral("trying other settings"), 15);
    for (const Parity parity : kParities) {
        for (const int baud : kUsualSpeeds) {
            m_interrupt.throwIfRequested();
            PortSettings port = m_findings.port;
            if (port.baud == baud && port.parity == parity)
                continue;
            progress.show(m_findings.tried);
            port.baud = baud;
            port.parity = parity;
            const std::unique_ptr<Line> line = lineFor(port);
            ++m_findings.tried;
            if (!openLine(port, *line))
                continue;
            const ProbeResult result = ask(*line, port);
            line->close();
            if (!result.answered)
                continue;
            progress.clear();
            report("tried", true,
                   port.text().section(QStringLiteral(", "), -1) + QStringLiteral(": answers"));
            reportController(result, port);
            return true;
        }
    }
    progress.clear();
    report("tried", false,
           QStringLiteral("%1 other settings, 9600 to 115200 with no, even and odd parity: none "
                          "answers")
               .arg(m_findings.tried));
    return false;
}

void Examination::reportController(const ProbeResult& result, const PortSettings& port)
{
    m_findings.answering = port;
    report("controller", true, identityText(result.identity),
           {{"name", result.identity.name.toStdString()}, {"serial", result.identity.serial}});
}

void Examination::readAgain(int reads)
{
    const PortSettings& port = *m_findings.answering;
    const std::unique_ptr<Line> line = lineFor(port);
    if (!openLine(port, *line))
        return;
    ReadSeries& series = m_findings.series;
    Progress progress(m_output, QStringLiteral("reading"), reads);
    while (series.reads < reads) {
        m_interrupt.throwIfRequested();
        const ProbeResult result = ask(*line, port);
        ++series.reads;
        series.damaged += result.counters.corrupt;
        series.refused += result.counters.refusedByPeer;
        series.retries += result.counters.retries;
        if (result.answered) {
            ++series.answered;
            series.roundTrips += result.roundTrip;
        }
        progress.show(series.reads);
    }
    line->close();
    progress.clear();
    reportSeries();
}

void Examination::reportSeries()
{
    const ReadSeries& series = m_findings.series;
    const Duration median = series.roundTrip(50);
    const Duration most = series.roundTrip(99);
    if (series.answered > 0)
        report("round trip", true,
               QStringLiteral("median %1, 99 % within %2, %3 to %4, of %5 reads")
                   .arg(milliseconds(median), milliseconds(most), milliseconds(series.roundTrip(0)),
                        milliseconds(series.roundTrip(100)), QString::number(series.reads)),
               {{"medianMs", static_cast<double>(median.count()) / 1000},
                {"within99Ms", static_cast<double>(most.count()) / 1000},
                {"reads", series.reads}});
    report("damaged", series.damaged == 0 && series.refused == 0 && series.answered == series.reads,
           QStringLiteral("%1 of %2 replies (%3 %), %4 requests; %5 reads without an answer")
               .arg(series.damaged)
               .arg(series.answered + series.damaged)
               .arg(series.percentDamaged(), 0, 'f', 1)
               .arg(series.refused)
               .arg(series.reads - series.answered),
           {{"damagedReplies", series.damaged},
            {"damagedRequests", series.refused},
            {"unanswered", series.reads - series.answered}});
}

void Examination::closeTrace()
{
    if (m_trace)
        m_trace->close();
}

} // namespace micro850::host
