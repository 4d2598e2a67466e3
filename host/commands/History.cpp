#include "Commands.h"
#include "CsvOptions.h"
#include "DurationText.h"
#include "HistoryReader.h"
#include "LocalTime.h"
#include "Moment.h"
#include "Output.h"
#include "Resampler.h"
#include "StandardStreams.h"
#include "UserError.h"
#include "VisibleText.h"
#include "WideRows.h"

#include <QtCore/QDateTime>
#include <QtCore/QRegularExpression>

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
    CsvOptions form;
    std::string every;
    std::string take;
    std::string hold;
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

// A heading in the form of a file.
std::string headingOf(const CsvForm& form, const char* heading)
{
    QStringList fields = QString::fromLatin1(heading).split(',');
    fields.first() = form.timeHeading();
    return form.line(fields).toStdString();
}

std::string csvOf(const CsvForm& form, const HistoryValue& row)
{
    const HistoryVariable& variable = *row.variable;
    return form
        .line({form.timeText(row.time), csvText(variable.name), QString::number(variable.station),
               csvText(variable.tag), QString::number(variable.element), csvText(variable.type),
               cellOf(form, row.value), csvText(variable.unit), csvText(row.quality),
               csvText(row.error), csvText(variable.line), csvText(row.state),
               row.sequence < 0 ? QString() : QString::number(row.sequence)})
        .toStdString();
}

std::string csvOf(const CsvForm& form, const HistoryWrite& row)
{
    return form
        .line({form.timeText(row.time), csvText(row.line), csvText(row.name),
               QString::number(row.element), cellOf(form, row.oldValue), cellOf(form, row.newValue),
               csvText(row.outcome), csvText(row.error), csvText(row.client),
               QString::number(row.uid), QString::number(row.pid), QString::number(row.sequence)})
        .toStdString();
}

std::string csvOf(const CsvForm& form, const HistoryEvent& row)
{
    return form
        .line({form.timeText(row.time), csvText(row.line),
               row.station < 0 ? QString() : QString::number(row.station), csvText(row.state),
               csvText(row.text), QString::number(row.sequence)})
        .toStdString();
}

// A row that was made of several has no number of its own.
template<typename Row> Json objectOf(const Row& row)
{
    Json object = jsonOf(row);
    if (row.sequence < 0)
        object.erase("sequence");
    return object;
}

/// Prints rows in the form that is asked for.
class Printer
{
public:
    Printer(const HistoryOptions& options, const char* heading)
        : m_options(options), m_form(options.form.form())
    {
        if (options.csv)
            printHeading(headingOf(m_form, heading));
    }
    /// Only for lines.
    explicit Printer(const HistoryOptions& options)
        : m_options(options), m_form(options.form.form())
    {
    }
    void printHeading(const std::string& heading)
    {
        m_pieces.add((m_form.bom ? "\xEF\xBB\xBF" : "") + heading);
    }
    bool printLine(const QString& line)
    {
        ++m_rows;
        m_pieces.add(line.toStdString());
        return true;
    }
    template<typename Row> bool print(const Row& row)
    {
        ++m_rows;
        if (m_options.csv)
            m_pieces.add(csvOf(m_form, row));
        else if (m_options.output.json)
            m_pieces.add(
                visibleJson(objectOf(row).dump(-1, ' ', false, Json::error_handler_t::replace)));
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
    CsvForm m_form;
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

// Milliseconds of "10s", "15min", "1h", "7d" and "PT1H30M".
qint64 durationOf(const std::string& text, const std::string& option)
{
    static const QRegularExpression form(QStringLiteral("^([0-9]{1,9})(ms|s|min|h|d|w)$"));
    const QRegularExpressionMatch match = form.match(QString::fromStdString(text));
    qint64 duration = 0;
    if (match.hasMatch()) {
        const QString unit = match.captured(2);
        const qint64 milliseconds = unit == QLatin1String("ms")    ? 1
                                    : unit == QLatin1String("s")   ? 1000
                                    : unit == QLatin1String("min") ? 60000
                                    : unit == QLatin1String("h")   ? 3600000
                                    : unit == QLatin1String("d")   ? 86400000
                                                                   : 7 * qint64(86400000);
        duration = match.captured(1).toLongLong() * milliseconds;
    } else if (const std::optional<std::int64_t> microseconds = parseDuration(text)) {
        duration = *microseconds / 1000;
    }
    if (duration < 1 || duration > 366 * qint64(86400000))
        throw UserError(option + ": " + inQuotes(text) +
                        " is no time (use 10s, 15min, 1h or 7d, at most 366d)");
    return duration;
}

ResampleSettings resampleOf(const HistoryOptions& options, const HistoryFilter& filter)
{
    ResampleSettings settings;
    settings.period = durationOf(options.every, "--every");
    settings.take = options.take == "mean"  ? Take::Mean
                    : options.take == "min" ? Take::Minimum
                    : options.take == "max" ? Take::Maximum
                                            : Take::Last;
    if (!options.hold.empty())
        settings.hold = durationOf(options.hold, "--hold");
    settings.from = filter.from;
    return settings;
}

/// Passes the values on, as they were recorded or one for each period.
class Values
{
public:
    using Each = HistoryReader::Each<HistoryValue>;

    Values(HistoryReader& reader, const HistoryOptions& options, const HistoryFilter& filter)
        : m_reader(reader), m_options(options), m_filter(filter)
    {
    }

    void read(const Each& each)
    {
        if (m_options.every.empty())
            return m_reader.values(m_filter, each);
        const ResampleSettings settings = resampleOf(m_options, m_filter);
        // What was recorded before the first period holds in it.
        HistoryFilter filter = m_filter;
        filter.from = filter.from && settings.hold > 0
                          ? std::optional<qint64>(*filter.from - settings.hold)
                          : std::nullopt;
        Resampler resampler(settings, each);
        bool goesOn = true;
        m_reader.values(filter, [&](const HistoryValue& row) {
            goesOn = resampler.add(row);
            return goesOn;
        });
        if (goesOn)
            resampler.finish();
        m_leftOut = resampler.leftOut();
    }
    /// The variables of which nothing was taken.
    const QStringList& leftOut() const { return m_leftOut; }

private:
    HistoryReader& m_reader;
    const HistoryOptions& m_options;
    HistoryFilter m_filter;
    QStringList m_leftOut;
};

// The columns are known only when all rows have been seen, so that they are read twice.
qint64 printWide(Values& values, const HistoryOptions& options)
{
    Printer printer(options);
    WideRows rows(options.form.form(), options.every.empty(),
                  [&printer](const QString& line) { return printer.printLine(line); });
    values.read([&rows](const HistoryValue& row) {
        rows.note(row);
        return true;
    });
    printer.printHeading(rows.heading().toStdString());
    values.read([&rows](const HistoryValue& row) { return rows.add(row); });
    rows.finish();
    return printer.finish();
}

qint64 print(HistoryReader& reader, const HistoryOptions& options, const HistoryFilter& filter,
             const Output& output)
{
    if (options.writes || options.events) {
        Printer printer(options, options.writes ? kWriteHeading : kEventHeading);
        const auto each = [&printer](const auto& row) { return printer.print(row); };
        if (options.writes)
            reader.writes(filter, each);
        else
            reader.events(filter, each);
        return printer.finish();
    }
    Values values(reader, options, filter);
    qint64 rows = 0;
    if (options.form.wide) {
        rows = printWide(values, options);
    } else {
        Printer printer(options, kValueHeading);
        values.read([&printer](const HistoryValue& row) { return printer.print(row); });
        rows = printer.finish();
    }
    for (const QString& name : values.leftOut())
        output.note(
            QStringLiteral("%1: is no number, and left out (--take last has it)").arg(name));
    return rows;
}

// What cannot be had together.
void requireConsistent(const HistoryOptions& options)
{
    if (options.csv && options.output.json)
        throw UserError("--csv and --json are two forms of the same rows (leave out one)");
    if (options.writes && options.events)
        throw UserError("--writes and --events are two tables (leave out one)");
    const bool hasValues = !options.writes && !options.events;
    if (!hasValues && (options.form.wide || !options.every.empty()))
        throw UserError("--wide and --every are for values (leave out --writes and --events)");
    if (options.every.empty() && (!options.take.empty() || !options.hold.empty()))
        throw UserError("--take and --hold say what becomes of the values of a period (name its "
                        "length with --every, such as 10s)");
    options.form.require(options.csv);
    options.form.form();
}

int run(const HistoryOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    requireConsistent(options);
    const HistoryFilter filter = filterOf(options);
    HistoryReader reader(host::textOf(options.file));
    if (reader.isLog() && (options.writes || options.events || !options.line.empty()))
        throw UserError(options.file + ": is a log, which has values only, of no line (leave out "
                                       "--writes, --events and --line)");
    if (print(reader, options, filter, output) == 0)
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
    options->form.addTo(history, "With --csv: a row for each time, with a column for each element "
                                 "of each variable");
    history.text("--every", options->every,
                 "One row for each variable and period of this length: 10s, 15min, 1h, 1d");
    history.choice(
        "--take", options->take, {"last", "mean", "min", "max"},
        "What --every takes of the values of a period: last (default), mean, min or max");
    history.text("--hold", options->hold,
                 "With --every: so long a value holds after it was recorded (default: until the "
                 "next one)");
    options->output.addTo(history);
    history.footer(
        "Times are local with their offset from UTC; in CSV and JSON they are UTC. A local time "
        "that comes twice, when summer time ends, is the first in --from and the second in --to.\n"
        "Rows are in the order of their times. Where the clock was set back, the sequence tells "
        "the order in which they were recorded.\n"
        "With --every a value holds until the next one of its variable was recorded, and the mean "
        "is that over time. Periods of days begin at local midnight.\n"
        "Example:\n  micro850-host history /var/lib/micro850/history.sqlite --match Level --from "
        "-1h\n"
        "  micro850-host history values.db --csv --wide --every 15min --take mean --time "
        "spreadsheet\n"
        "Exit status: 0 done, 1 the file could not be read or the output not be written, 2 usage, "
        "or the file is neither a history nor a log.");
}

} // namespace micro850::host
