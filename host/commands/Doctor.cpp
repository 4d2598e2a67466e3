#include "Examination.h"

#include "OutputFile.h"
#include "UserError.h"
#include "Visible.h"

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QSysInfo>

#include <memory>
#include <optional>

namespace micro850::host {

namespace {

struct DoctorOptions
{
    LineOptions line;
    OutputOptions output;
    int reads = 200;
    std::string report;
};

// An earlier report is a document: it is not replaced.
std::optional<OutputFile> openReport(const std::string& file)
{
    if (file.empty())
        return std::nullopt;
    if (QFile::exists(textOf(file)))
        throw UserError("--report: " + file + " is there already (name another file)");
    return OutputFile::open(file);
}

std::string headOf(const DoctorOptions& options, const PortSettings& port)
{
    const QStringList lines = {
        QStringLiteral("micro850-host doctor"),
        QStringLiteral("time          ") +
            QDateTime::currentDateTime()
                .toOffsetFromUtc(QDateTime::currentDateTime().offsetFromUtc())
                .toString(Qt::ISODate),
        QStringLiteral("version       " MICRO850_VERSION ", Qt ") + QLatin1String(qVersion()),
        QStringLiteral("system        %1, %2 %3, %4")
            .arg(QSysInfo::prettyProductName(), QSysInfo::kernelType(), QSysInfo::kernelVersion(),
                 QSysInfo::currentCpuArchitecture()),
        QStringLiteral("line          ") + port.text(),
        QStringLiteral("project       ") +
            (options.line.project.empty() ? QStringLiteral("none") : textOf(options.line.project))};
    std::string text;
    for (const QString& line : lines)
        text += visible(line).toStdString() + '\n';
    return text;
}

int run(DoctorOptions options)
{
    const Output output(options.output.json, options.output.quiet);
    findProjectForPort(options.line);
    if (!options.line.gateway.empty())
        throw UserError("--gateway: doctor needs the port for itself (stop the gateway, and leave "
                        "the option out)");
    const Project project = projectOf(options.line);
    noteDefaults(options.line, project, output);
    requirePort(project, options.line);
    std::optional<OutputFile> report = openReport(options.report);
    Examination examination(options.line, project, output);
    examination.run(options.reads);
    const QStringList advice = adviceOf(examination.findings());
    const bool works = examination.findings().answering.has_value();
    if (advice.isEmpty() && works)
        examination.report("advice", true, QStringLiteral("nothing is wrong"));
    for (const QString& text : advice)
        examination.report("advice", false, text);
    if (report) {
        std::string text = headOf(options, project.port);
        for (const QString& line : examination.lines())
            text += visible(line).toStdString() + '\n';
        report->write(text);
        report->close();
        output.note(textOf(options.report) + QStringLiteral(": the report for a support mail"));
    }
    examination.closeTrace();
    return works && advice.isEmpty() ? kExitDone : kExitRefused;
}

} // namespace

void addDoctor(CommandLine& line)
{
    const auto options = std::make_shared<DoctorOptions>();
    CommandOptions doctor =
        line.addCommand("doctor", "Look for what is wrong with the line, and say what helps",
                        [options] { return run(*options); });
    doctor.text("--report", options->report,
                "Write all of it to this new file, for a support mail");
    doctor.integer("--reads", options->reads, 1, 100000,
                   "How often the controller is asked to measure the line (default 200)");
    doctor.text("--project", options->line.project, "Project file: its port");
    options->line.addTo(doctor);
    options->output.addTo(doctor);
    doctor.footer(
        "Looks at the device, the rights of this user, programs that use it, the adapter and its "
        "latency\ntimer, speed and parity, an echo, the controller, round trips, and damaged "
        "messages. It opens no\nconnection to the controller and changes nothing in it.\n"
        "Example:\n  micro850-host doctor --port /dev/ttyUSB0 --report line.txt\n"
        "Exit status: 0 nothing is wrong, 1 there is advice, 2 usage or configuration.");
}

} // namespace micro850::host
