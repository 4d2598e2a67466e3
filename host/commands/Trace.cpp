#include "Commands.h"
#include "Elements.h"
#include "FrameFields.h"
#include "FrameText.h"
#include "Interrupt.h"
#include "Moment.h"
#include "NamePattern.h"
#include "Output.h"
#include "TraceFollower.h"
#include "TraceReport.h"
#include "UserError.h"

#include <QtCore/QDateTime>

#include <memory>
#include <optional>

namespace micro850::host {

namespace {

// More bytes of a field go to the next line.
const int kBytesInLine = 8;

struct TraceOptions
{
    OutputOptions output;
    std::string file;
    bool summary = false;
    std::string match;
    std::string from;
    std::string to;
    bool errors = false;
    double gaps = 1;
    bool follow = false;
    int explain = 0;
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
    case TraceEvent::Kind::NoAnswer:
        return "no answer";
    case TraceEvent::Kind::Control:
        break;
    }
    return "control";
}

QString timeText(qint64 microseconds)
{
    return QDateTime::fromMSecsSinceEpoch(microseconds / 1000, Qt::UTC).toString(Qt::ISODateWithMs);
}

QString hexOf(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.toHex(' ').toUpper());
}

// Values one by one, as other commands have them; null for a message without values.
Json valuesOf(const TraceEvent& event)
{
    const bool isReply = event.kind == TraceEvent::Kind::Reply;
    const Reply reply = isReply ? decodeReply(event.data) : Reply();
    const bool isRead = isReply && reply.good() && reply.service == kReadTagFragmented;
    const bool isWrite = !isReply && event.request.service == kWriteTagFragmented;
    if (!isRead && !isWrite)
        return Json();
    const CipType* const type = cipTypeOf(isRead ? reply.typeCode() : event.request.typeCode);
    const ByteSlice bytes = isRead ? reply.values() : event.request.values;
    Json values = Json::array();
    if (!type || bytes.isEmpty())
        return values;
    for (const QByteArray& element : elementsOf(*type, bytes.bytes()))
        values.push_back(jsonOf(isoValue(*type, decodeElement(*type, element))));
    return values;
}

Json objectOf(const TraceEvent& event)
{
    const bool sent = event.direction == Direction::Sent;
    Json object = {{"time", timeText(event.microseconds).toStdString()},
                   {"direction", sent ? "sent" : "received"},
                   {"kind", kindName(event.kind)},
                   {"text", event.text.toStdString()}};
    if (event.roundTripMs >= 0)
        object["roundTripMs"] = event.roundTripMs;
    if (event.number > 0)
        object["number"] = event.number;
    if (event.station >= 0)
        object["station"] = event.station;
    if (!event.request.name.isEmpty())
        object["tag"] = event.request.tag().toStdString();
    const Json values = valuesOf(event);
    if (!values.is_null())
        object["values"] = values;
    if (event.attempt > 1)
        object["attempt"] = event.attempt;
    if (event.gapMs >= 0)
        object["gapMs"] = event.gapMs;
    object["ok"] = !event.failed;
    return object;
}

// "   12 2026-03-01T12:30:05.250Z > station 1: TNS 5 read Speed[0] x1"
QString lineOf(const TraceEvent& event)
{
    const char* const mark = event.kind == TraceEvent::Kind::NoAnswer ? " ! "
                             : event.direction == Direction::Sent     ? " > "
                                                                      : " < ";
    QString line =
        (event.number > 0 ? QString::number(event.number) : QString()).rightJustified(5) + ' ' +
        timeText(event.microseconds) + QLatin1String(mark);
    if (event.station >= 0)
        line += QStringLiteral("station %1: ").arg(event.station);
    line += event.text;
    if (event.roundTripMs >= 0)
        line += QStringLiteral(" (%1 ms)").arg(event.roundTripMs, 0, 'f', 1);
    return line;
}

/// Prints events. With `errors` only those of transactions that failed: each waits until that is
/// known, and there is one at most.
class EventPrinter
{
public:
    EventPrinter(const Output& output, const TraceOptions& options)
        : m_output(output), m_options(options)
    {
    }

    void add(const TraceEvent& event)
    {
        if (!m_options.errors)
            return print(event);
        const bool begins = event.kind == TraceEvent::Kind::Request;
        if (begins)
            m_waiting.reset();
        m_failed = (m_failed && !begins) || event.failed;
        if (!m_failed) {
            if (begins)
                m_waiting = event;
            return;
        }
        if (m_waiting)
            print(*m_waiting);
        m_waiting.reset();
        print(event);
    }

private:
    void print(const TraceEvent& event)
    {
        QStringList lines;
        if (event.gapMs >= m_options.gaps * 1000)
            lines +=
                QStringLiteral("      -- %1 s of silence --").arg(event.gapMs / 1000, 0, 'f', 2);
        m_output.data(objectOf(event), lines << lineOf(event));
    }

    const Output& m_output;
    const TraceOptions& m_options;
    std::optional<TraceEvent> m_waiting; ///< a request
    bool m_failed = false;
};

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
              {"failures", failures},
              {"longestGapMs", report.longestGapMs() < 0 ? Json() : Json(report.longestGapMs())}}}};
}

TraceFilter filterOf(const TraceOptions& options)
{
    if (options.match.empty() && options.from.empty() && options.to.empty())
        return nullptr;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const auto moment = [now](const std::string& text, const char* option, Bound bound) {
        return text.empty() ? std::optional<qint64>()
                            : std::optional<qint64>(momentOf(text, option, bound, now) * 1000);
    };
    const std::optional<qint64> from = moment(options.from, "--from", Bound::From);
    const std::optional<qint64> to = moment(options.to, "--to", Bound::To);
    if (from && to && *from >= *to)
        throw UserError("--from " + options.from + " is not before --to " + options.to);
    return [pattern = textOf(options.match), from, to](const QString& tag, qint64 microseconds) {
        return (!from || microseconds >= *from) && (!to || microseconds < *to) &&
               (pattern.isEmpty() || (!tag.isEmpty() && nameMatches(tag, pattern)));
    };
}

/// One recording: its messages, and at its end the statistics.
class Recording
{
public:
    Recording(const Output& output, const TraceOptions& options)
        : m_output(output), m_options(options), m_report(filterOf(options)),
          m_printer(output, options)
    {
    }

    void add(const TraceRecord& record) { print(m_report.add(record)); }
    void finish()
    {
        print(m_report.finish());
        m_output.data(summaryObject(m_report), m_report.statistics());
    }

private:
    void print(const QVector<TraceEvent>& events)
    {
        for (const TraceEvent& event : events) {
            if (!m_options.summary)
                m_printer.add(event);
        }
    }

    const Output& m_output;
    const TraceOptions& m_options;
    TraceReport m_report;
    EventPrinter m_printer;
};

// "   4  01 02        destination       node 0", in as many lines as the bytes need.
QStringList linesOf(const FrameField& field)
{
    QStringList lines;
    for (int at = 0; at < field.bytes.size(); at += kBytesInLine) {
        const QString bytes = hexOf(field.bytes.mid(at, kBytesInLine));
        QString line = QString::number(field.offset + at).rightJustified(4) + QStringLiteral("  ") +
                       bytes.leftJustified(3 * kBytesInLine + 1);
        if (at == 0)
            line += field.name.leftJustified(18) + QStringLiteral("  ") + field.meaning;
        while (line.endsWith(' '))
            line.chop(1);
        lines += line;
    }
    return lines;
}

void explain(const TraceEvent& event, const Output& output)
{
    Json object = objectOf(event);
    Json list = Json::array();
    QStringList lines = {lineOf(event)};
    for (const FrameField& field : frameFields(event.raw, event.request)) {
        lines += linesOf(field);
        list.push_back({{"offset", field.offset},
                        {"bytes", hexOf(field.bytes).toStdString()},
                        {"name", field.name.toStdString()},
                        {"meaning", field.meaning.toStdString()}});
    }
    object["fields"] = list;
    output.data(object, lines);
}

int explainOne(const TraceOptions& options, const Output& output)
{
    struct Found
    {
    };
    TraceReport report;
    try {
        readTrace(options.file, [&](const TraceRecord& record) {
            for (const TraceEvent& event : report.add(record)) {
                if (event.number != options.explain)
                    continue;
                explain(event, output);
                throw Found();
            }
        });
    } catch (const Found&) {
        return kExitDone;
    }
    throw UserError("--explain " + std::to_string(options.explain) + ": " + options.file +
                    " has only " + std::to_string(report.messages()) +
                    " messages (their numbers stand in front of them)");
}

int follow(const TraceOptions& options, const Output& output)
{
    const Interrupt interrupt;
    for (;;) {
        Recording recording(output, options);
        const FollowEnd end = followTrace(
            options.file, [&](const TraceRecord& record) { recording.add(record); },
            [&interrupt] { return interrupt.requested(); });
        recording.finish();
        if (end == FollowEnd::Asked)
            return kExitDone;
        output.note(textOf(options.file) + QStringLiteral(": is recorded anew from here on"));
    }
}

int run(const TraceOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    if (options.explain > 0 && (options.follow || options.summary || options.errors))
        throw UserError("--explain shows one message (leave out --follow, --summary and --errors)");
    if (options.explain > 0)
        return explainOne(options, output);
    if (options.follow)
        return follow(options, output);
    Recording recording(output, options);
    const std::string remark =
        readTrace(options.file, [&recording](const TraceRecord& record) { recording.add(record); });
    if (!remark.empty())
        output.note(QString::fromStdString(options.file + ": " + remark));
    recording.finish();
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
    trace.text(
        "--match", options->match,
        "Only requests whose tags contain this, or match it with * and ?, and their replies");
    trace.flag("--errors", options->errors, "Only requests that failed or were repeated");
    trace.text("--from", options->from,
               "Only requests from this time on: with an offset or Z, in local time, or -1h before "
               "now");
    trace.text("--to", options->to, "Only requests before this time");
    trace.number("--gaps", options->gaps, 0.001, 1e9,
                 "Show silences of this many seconds and longer (default 1)");
    trace.flag("--follow", options->follow, "Go on while the trace is recorded, until Ctrl-C");
    trace.integer("--explain", options->explain, 1, 2000000000,
                  "Only the message of this number, byte by byte");
    options->output.addTo(trace);
    trace.footer("Example:\n  micro850-host read Speed --port /tmp/plc --trace t.pcapng\n"
                 "  micro850-host trace t.pcapng\n"
                 "  micro850-host trace t.pcapng --explain 3\n"
                 "The number of a message stands in front of it; > was sent, < received, ! is a "
                 "request without an answer.\n"
                 "With --match, --from and --to the statistics are those of the requests that "
                 "match.\n"
                 "A last record that is cut short, by a kill or a full disk, is left out with a "
                 "note.\n"
                 "A request whose answer the recording does not reach is counted apart from those "
                 "that failed.\nTimes are UTC.\n"
                 "Exit status: 0 done, 1 the output could not be written, 2 usage, or the file is "
                 "not a trace.");
}

} // namespace micro850::host
