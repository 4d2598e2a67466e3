#include "Commands.h"
#include "Output.h"
#include "TraceReport.h"

#include <QtCore/QDateTime>

#include <memory>

namespace micro850::host {

namespace {

struct TraceOptions
{
    OutputOptions output;
    std::string file;
    bool summary = false;
};

const char* kindName(TraceEvent::Kind kind)
{
    switch (kind) {
    case TraceEvent::Kind::Request:
        return "request";
    case TraceEvent::Kind::Repetition:
        return "repetition";
    case TraceEvent::Kind::Reply:
        return "reply";
    case TraceEvent::Kind::StrayReply:
        return "stray";
    case TraceEvent::Kind::Corrupt:
        return "corrupt";
    case TraceEvent::Kind::Control:
        break;
    }
    return "control";
}

QString timeText(qint64 microseconds)
{
    return QDateTime::fromMSecsSinceEpoch(microseconds / 1000, Qt::UTC).toString(Qt::ISODateWithMs);
}

void print(const Output& output, const TraceEvent& event)
{
    const bool sent = event.direction == Direction::Sent;
    Json object = {{"time", timeText(event.microseconds).toStdString()},
                   {"direction", sent ? "sent" : "received"},
                   {"kind", kindName(event.kind)},
                   {"text", event.text.toStdString()}};
    QString line = timeText(event.microseconds) + QLatin1String(sent ? " > " : " < ") + event.text;
    if (event.roundTripMs >= 0) {
        object["roundTripMs"] = event.roundTripMs;
        line += QStringLiteral(" (%1 ms)").arg(event.roundTripMs, 0, 'f', 1);
    }
    output.data(object, line);
}

Json summaryObject(const TraceReport& report)
{
    Json classes = Json::array();
    for (const RoundTripClass& part : report.histogram())
        classes.push_back({{"withinMs", part.limitMs < 0 ? Json() : Json(part.limitMs)},
                           {"answers", part.answers}});
    Json failures = Json::object();
    for (auto it = report.failures().constBegin(); it != report.failures().constEnd(); ++it)
        failures[it.key().toStdString()] = it.value();
    Json statuses = Json::object();
    for (auto it = report.statuses().constBegin(); it != report.statuses().constEnd(); ++it)
        statuses[it.key().toStdString()] = it.value();
    const auto time = [&report](int percent) {
        const double ms = report.roundTripMs(percent);
        return ms < 0 ? Json() : Json(ms);
    };
    return {{"summary",
             {{"requests", report.requests()},
              {"answered", report.answered()},
              {"unanswered", report.unanswered()},
              {"openAtEnd", report.openAtEnd().isEmpty() ? 0 : 1},
              {"repeated", report.repetitions()},
              {"stray", report.stray()},
              {"corrupt", report.corrupt()},
              {"roundTripMsMedian", time(50)},
              {"roundTripMs99", time(99)},
              {"roundTripMsMost", time(100)},
              {"histogram", classes},
              {"statuses", statuses},
              {"failures", failures}}}};
}

int run(const TraceOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    TraceReport report;
    const std::string remark = readTrace(options.file, [&](const TraceRecord& record) {
        for (const TraceEvent& event : report.add(record)) {
            if (!options.summary)
                print(output, event);
        }
    });
    report.finish();
    if (!remark.empty())
        output.note(QString::fromStdString(options.file + ": " + remark));
    output.data(summaryObject(report), report.statistics());
    return kExitDone;
}

} // namespace

void addTrace(CommandLine& line)
{
    const auto options = std::make_shared<TraceOptions>();
    CommandOptions trace = line.addCommand("trace", "Decode a recorded trace, with statistics",
                                           [options] { return run(*options); });
    trace.requiredText("FILE", options->file, "A trace that --trace recorded: text or pcapng");
    trace.flag("--summary", options->summary, "Only the statistics");
    options->output.addTo(trace);
    trace.footer("Example:\n  micro850-host read Speed --port /tmp/plc --trace t.pcapng\n"
                 "  micro850-host trace t.pcapng\n"
                 "A last record that is cut short, by a kill or a full disk, is left out with a "
                 "note.\n"
                 "A request whose answer the recording does not reach is counted apart from those "
                 "that failed.\nTimes are UTC.\n"
                 "Exit status: 0 done, 1 the output could not be written, 2 usage, or the file is "
                 "not a trace.");
}

} // namespace micro850::host
