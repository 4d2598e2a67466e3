#include "Commands.h"
#include "HistoryReader.h"
#include "LocalTime.h"
#include "Moment.h"
#include "Output.h"
#include "Recorder.h"
#include "StandardStreams.h"
#include "UserError.h"
#include "VisibleText.h"

#include <QtCore/QDateTime>

#include <map>
#include <memory>
#include <pwd.h>

namespace micro850::host {

namespace {

// Output is written in pieces.
const std::size_t kPiece = 1 << 16;

struct HistoryOptions
{
    OutputOptions output;
    std::string file;
    std::string match;
    std::string line;
    std::string from;
    std::string to;
    bool csv = false;
    bool writes = false;
    bool events = false;
};

/// Collects lines of standard output, so that a million of them is not a million calls.
class Pieces
{
public:
    void add(const std::string& line)
    {
        m_text += line + '\n';
        if (m_text.size() >= kPiece)
            flush();
    }
    void flush()
    {
        if (!m_text.empty())
            writeStandardOutput(m_text);
        m_text.clear();
    }

private:
    std::string m_text;
};

QString textOf(const Json& value)
{
    return QString::fromStdString(value.is_string()
                                      ? value.get<std::string>()
                                      : value.dump(-1, ' ', false, Json::error_handler_t::replace));
}

// A text is shown so that no two look alike; numbers and arrays as in JSON.
std::string shownOf(const Json& value)
{
    return value.is_string() ? visibleValue(value.get<std::string>()) : textOf(value).toStdString();
}

// "press/Level", or the name alone in a log, which knows no lines.
std::string nameOf(const QString& line, const QString& name)
{
    return visible((line.isEmpty() ? name : line + QLatin1Char('/') + name).toStdString());
}

std::string lineOf(const HistoryValue& row)
{
    std::string line =
        exactLocalTimeText(row.time) + ' ' + nameOf(row.variable->line, row.variable->name) + " = ";
    line += row.value.is_null() ? "?" : shownOf(row.value);
    if (!row.variable->unit.isEmpty())
        line += ' ' + visible(row.variable->unit.toStdString());
    if (row.quality == QLatin1String("good"))
        return line;
    line += " (" + visible(row.quality.toStdString());
    if (!row.error.isEmpty())
        line += ": " + visible(row.error.toStdString());
    return line + ')';
}

// "anna", where the system knows the user; else the number.
std::string userOf(int uid)
{
    const std::size_t kMostKnown = 1000; // a file can name any number of users
    static std::map<int, std::string> known;
    const auto found = known.find(uid);
    if (found != known.end())
        return found->second;
    if (known.size() == kMostKnown)
        known.clear();
    const passwd* const user = uid < 0 ? nullptr : ::getpwuid(static_cast<uid_t>(uid));
    return known[uid] = user ? visible(user->pw_name) : std::to_string(uid);
}

std::string lineOf(const HistoryWrite& row)
{
    std::string line = exactLocalTimeText(row.time) + ' ' + nameOf(row.line, row.name);
    if (row.element > 0)
        line += '[' + std::to_string(row.element) + ']';
    line += ": " + (row.oldValue.is_null() ? std::string("?") : shownOf(row.oldValue)) + " -> " +
            shownOf(row.newValue) + ", " + visible(row.outcome.toStdString());
    if (!row.error.isEmpty())
        line += " (" + visible(row.error.toStdString()) + ')';
    return line + ", by " + visible(row.client.toStdString()) + " (user " + userOf(row.uid) +
           ", process " + std::to_string(row.pid) + ')';
}

std::string lineOf(const HistoryEvent& row)
{
    std::string line = exactLocalTimeText(row.time) + ' ';
    if (!row.line.isEmpty())
        line += visible(row.line.toStdString()) + ": ";
    if (row.station >= 0)
        line += "station " + std::to_string(row.station) + ": ";
    line += visible(row.state.toStdString());
    return row.text == row.state ? line : line + ": " + visible(row.text.toStdString());
}

// The columns of a log come first, so that what reads a log reads a history too.
const char kValueHeading[] =
    "time,name,station,tag,element,type,value,unit,quality,error,line,state,sequence";
const char kWriteHeading[] = "time,line,name,element,old,new,outcome,error,client,uid,pid,sequence";
const char kEventHeading[] = "time,line,station,state,text,sequence";

std::string csvOf(const QStringList& cells)
{
    QStringList fields;
    for (const QString& cell : cells)
        fields.append(csvField(cell));
    return fields.join(',').toStdString();
}

// Numbers stay numbers, also those below 0.
QString valueCell(const Json& value)
{
    if (value.is_null())
        return QString();
    return value.is_string() || value.is_array() ? csvText(textOf(value)) : textOf(value);
}

std::string csvOf(const HistoryValue& row)
{
    const HistoryVariable& variable = *row.variable;
    return csvOf({utcText(row.time), csvText(variable.name), QString::number(variable.station),
                  csvText(variable.tag), QString::number(variable.element), csvText(variable.type),
                  valueCell(row.value), csvText(variable.unit), csvText(row.quality),
                  csvText(row.error), csvText(variable.line), csvText(row.state),
                  QString::number(row.sequence)});
}

std::string csvOf(const HistoryWrite& row)
{
    return csvOf({utcText(row.time), csvText(row.line), csvText(row.name),
                  QString::number(row.element), valueCell(row.oldValue), valueCell(row.newValue),
                  csvText(row.outcome), csvText(row.error), csvText(row.client),
                  QString::number(row.uid), QString::number(row.pid),
                  QString::number(row.sequence)});
}

std::string csvOf(const HistoryEvent& row)
{
    return csvOf({utcText(row.time), csvText(row.line),
                  row.station < 0 ? QString() : QString::number(row.station), csvText(row.state),
                  csvText(row.text), QString::number(row.sequence)});
}

/// Prints rows in the form that is asked for.
class Printer
{
public:
    Printer(const HistoryOptions& options, const char* heading) : m_options(options)
    {
        if (options.csv)
            m_pieces.add(heading);
    }
    template<typename Row> bool print(const Row& row)
    {
        ++m_rows;
        if (m_options.csv)
            m_pieces.add(csvOf(row));
        else if (m_options.output.json)
            m_pieces.add(
                visibleJson(jsonOf(row).dump(-1, ' ', false, Json::error_handler_t::replace)));
        else
            m_pieces.add(lineOf(row));
        return true;
    }
    qint64 finish()
    {
        m_pieces.flush();
        return m_rows;
    }

private:
    const HistoryOptions& m_options;
    Pieces m_pieces;
    qint64 m_rows = 0;
};

HistoryFilter filterOf(const HistoryOptions& options)
{
    HistoryFilter filter;
    filter.line = host::textOf(options.line);
    filter.name = host::textOf(options.match);
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (!options.from.empty())
        filter.from = momentOf(options.from, "--from", Bound::From, now);
    if (!options.to.empty())
        filter.to = momentOf(options.to, "--to", Bound::To, now);
    if (filter.from && filter.to && *filter.from >= *filter.to)
        throw UserError("--from " + options.from + " is not before --to " + options.to);
    return filter;
}

qint64 print(HistoryReader& reader, const HistoryOptions& options, const HistoryFilter& filter)
{
    Printer printer(options, options.writes   ? kWriteHeading
                             : options.events ? kEventHeading
                                              : kValueHeading);
    const auto each = [&printer](const auto& row) { return printer.print(row); };
    if (options.writes)
        reader.writes(filter, each);
    else if (options.events)
        reader.events(filter, each);
    else
        reader.values(filter, each);
    return printer.finish();
}

int run(const HistoryOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    if (options.csv && output.json())
        throw UserError("--csv and --json are two forms of the same rows (leave out one)");
    if (options.writes && options.events)
        throw UserError("--writes and --events are two tables (leave out one)");
    const HistoryFilter filter = filterOf(options);
    HistoryReader reader(host::textOf(options.file));
    if (reader.isLog() && (options.writes || options.events || !options.line.empty()))
        throw UserError(options.file + ": is a log, which has values only, of no line (leave out "
                                       "--writes, --events and --line)");
    if (print(reader, options, filter) == 0)
        output.note(host::textOf(options.file) + QStringLiteral(": no rows match"));
    return kExitDone;
}

} // namespace

void addHistory(CommandLine& line)
{
    const auto options = std::make_shared<HistoryOptions>();
    CommandOptions history =
        line.addCommand("history", "Read what micro850-gateway or log recorded in a database",
                        [options] { return run(*options); });
    history.requiredText("FILE", options->file,
                         "A history of micro850-gateway, or a database of log --sqlite; also while "
                         "it is written");
    history.text("--match", options->match,
                 "Only variables whose names contain this, or match it with * and ?");
    history.text("--line", options->line,
                 "Only lines whose names contain this, or match it with * and ?");
    history.text("--from", options->from,
                 "From this time on: 2026-11-22T14:30 in local time or with an offset such as "
                 "+01:00, or -15min, -1h, -7d before now");
    history.text("--to", options->to, "Before this time");
    history.flag("--writes", options->writes, "The journal of writes instead of the values");
    history.flag("--events", options->events, "What happened on the lines instead of the values");
    history.flag("--csv", options->csv, "Comma-separated rows on standard output");
    options->output.addTo(history);
    history.footer(
        "Times are local with their offset from UTC; in CSV and JSON they are UTC. A local time "
        "that comes twice, when summer time ends, is the first in --from and the second in --to.\n"
        "Rows are in the order of their times. Where the clock was set back, the sequence tells "
        "the order in which they were recorded.\n"
        "Example:\n  micro850-host history /var/lib/micro850/history.sqlite --match Level --from "
        "-1h\n"
        "Exit status: 0 done, 1 the file could not be read or the output not be written, 2 usage, "
        "or the file is neither a history nor a log.");
}

} // namespace micro850::host
