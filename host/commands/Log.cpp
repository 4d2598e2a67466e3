#include "ChangePrinter.h"
#include "Changes.h"
#include "CsvOptions.h"
#include "FilePattern.h"
#include "Raster.h"
#include "Rates.h"
#include "Recorder.h"
#include "RunLoop.h"
#include "UserError.h"

#include "VisibleText.h"

#include <QtCore/QRegularExpression>

#include <algorithm>
#include <memory>
#include <numeric>

namespace micro850::host {

namespace {

// A kill loses at most the samples of this time.
const std::chrono::milliseconds kFlushInterval(500);

struct LogOptions
{
    LineOptions line;
    OutputOptions output;
    std::string csv;
    std::string sqlite;
    std::string match;
    double seconds = 0;
    RateOptions rates;
    bool raw = false;
    CsvOptions form;
    std::string maximumSize;
    int keep = 0;
};

// Several elements are one text: their values with blanks between.
std::optional<CipValue> valueOf(const ValueStore& values, const Variable& variable, int index)
{
    if (!values.wasRead(index))
        return std::nullopt;
    if (variable.length != 1)
        return CipValue::ofText(values.texts(index).join(' ').toLatin1().toStdString());
    return values.values(index).first();
}

Sample sampleOf(const Plant& plant, const Project& project, int index, const QDateTime& time)
{
    const Variable& variable = project.variables.at(index);
    const ValueStore& values = plant.values();
    const CipType* type = values.type(index);
    return {time,
            variable.name,
            variable.station,
            variable.tag,
            variable.element,
            type ? QString::fromLatin1(type->name) : QString(),
            valueOf(values, variable, index),
            variable.unit,
            qualityText(plant.quality(index)),
            values.error(index),
            values.wasRead(index) ? values.values(index) : QVector<CipValue>()};
}

// "500k", "10M", "2G" in bytes; 0 without one.
qint64 bytesOf(const std::string& text)
{
    static const QRegularExpression form(QStringLiteral("^([1-9][0-9]{0,8})([kMG]?)$"));
    if (text.empty())
        return 0;
    const QRegularExpressionMatch match = form.match(textOf(text));
    if (!match.hasMatch())
        throw UserError("--max-size: " + inQuotes(text) +
                        " is no size (a number with k, M or G behind it, such as 10M)");
    const int power = QStringLiteral("kMG").indexOf(match.captured(2));
    qint64 bytes = match.captured(1).toLongLong();
    for (int i = 0; i <= power && !match.captured(2).isEmpty(); ++i)
        bytes *= 1024;
    return bytes;
}

QVector<WideColumn> columnsOf(const Project& project)
{
    QVector<WideColumn> columns;
    for (const Variable& variable : project.variables)
        columns.append({variable.name, variable.unit, variable.length});
    return columns;
}

std::unique_ptr<Recorder> recorderOf(const LogOptions& options, const Project& project,
                                     const Output& output)
{
    const auto note = [&output](const QString& text) { output.note(text); };
    const auto open = [&options, &project, note](const QString& path) {
        if (options.csv.empty())
            return Recorder::sqlite(path, note);
        return options.form.wide
                   ? Recorder::wideCsv(path, columnsOf(project), note, options.form.form())
                   : Recorder::csv(path, note, options.form.form());
    };
    const QString path = textOf(options.csv.empty() ? options.sqlite : options.csv);
    const Recorder::Rotation rotation = {bytesOf(options.maximumSize), options.keep,
                                         options.form.form().time != CsvTime::Utc};
    const FilePattern pattern(path);
    if (pattern.isPlain() && rotation.maximumBytes == 0 && rotation.keep == 0)
        return open(path == QLatin1String("-") ? path : pattern.pathFor(QDateTime(), 1));
    return Recorder::rotating(path, rotation, open, note);
}

// With --json alone, samples are objects on standard output.
bool isPrinted(const LogOptions& options)
{
    return options.output.json && options.csv.empty() && options.sqlite.empty();
}

/// Records the variables that changed, or all at an interval.
class Logging : public LoopView
{
public:
    Logging(RunLoop& run, const Project& project, const LogOptions& options, const Output& output)
        : m_plant(run.plant()), m_project(project), m_output(output),
          m_changes(m_plant, project, run.table()),
          m_recorder(isPrinted(options) ? nullptr : recorderOf(options, project, output)),
          m_wide(options.form.wide), m_interval(options.rates.givenInterval()), m_raster(m_interval)
    {
    }

    void update(Duration now) override
    {
        if (m_interval == Duration(0)) {
            recordChanges(now);
        } else if (hasBegun() && m_raster.isDue(now)) {
            record(all());
        }
        for (const QString& state : m_changes.popStates())
            m_output.note(state);
        if (now < m_nextFlush)
            return;
        m_nextFlush = now + kFlushInterval;
        flush();
    }
    /// Records what changed since the last step.
    void close(Duration now) override
    {
        if (m_interval == Duration(0))
            recordChanges(now);
        flush();
    }

    qint64 rows() const { return m_rows; }
    /// Those of a name that changes.
    QStringList files() const { return m_recorder ? m_recorder->files() : QStringList(); }

private:
    // A wide row has all variables, whichever of them changed.
    void recordChanges(Duration now)
    {
        const QVector<int> changed = m_changes.popVariables(now);
        if (!m_wide)
            return record(changed);
        m_changed = m_changed || !changed.isEmpty();
        if (!m_changed || !hasBegun())
            return;
        m_changed = false;
        record(all());
    }
    // The first time is when every variable has a value or an error, or its station does not
    // answer.
    bool hasBegun()
    {
        const QVector<int> variables = m_begun ? QVector<int>() : all();
        const auto isKnown = [this](int variable) { return this->isKnown(variable); };
        m_begun = m_begun || std::all_of(variables.begin(), variables.end(), isKnown);
        return m_begun;
    }
    bool isKnown(int variable) const
    {
        const ValueStore& values = m_plant.values();
        return values.wasRead(variable) || !values.error(variable).isEmpty() ||
               !isServed(m_project.variables.at(variable).station);
    }
    bool isServed(int number) const
    {
        const QVector<StationView> stations = m_plant.stationViews();
        return std::any_of(stations.begin(), stations.end(), [number](const StationView& each) {
            return each.number == number && each.isServed;
        });
    }
    QVector<int> all() const
    {
        QVector<int> variables(m_project.variables.size());
        std::iota(variables.begin(), variables.end(), 0);
        return variables;
    }
    void record(const QVector<int>& variables)
    {
        if (variables.isEmpty())
            return;
        const QDateTime time = QDateTime::currentDateTimeUtc();
        m_rows += m_wide ? 1 : variables.size();
        if (!m_recorder) {
            for (const int variable : variables)
                m_output.data(changeObject(m_plant, m_project, variable, time), QString());
            return;
        }
        for (const int variable : variables)
            m_recorder->add(sampleOf(m_plant, m_project, variable, time));
        m_recorder->endRow(time);
    }
    void flush()
    {
        if (m_recorder)
            m_recorder->flush();
    }

    Plant& m_plant;
    const Project& m_project;
    const Output& m_output;
    Changes m_changes;
    std::unique_ptr<Recorder> m_recorder; ///< null when samples are printed
    bool m_wide;
    bool m_changed = false; ///< since the last row
    Duration m_interval;
    Raster m_raster;
    bool m_begun = false;
    Duration m_nextFlush{0};
    qint64 m_rows = 0;
};

// What is recorded at an interval is read as often, and at least as often as without one.
void applyRates(RateOptions rates, Project& project)
{
    const double usual = kDefaultIntervalMs / 1000.0;
    if (rates.interval <= 0 || rates.interval > usual)
        rates.interval = usual;
    rates.applyTo(project);
}

// Says before anything is opened what cannot be.
void requireDestination(const LogOptions& options)
{
    const bool printed = isPrinted(options);
    const bool toOutput = options.csv == "-";
    if (!printed && options.csv.empty() == options.sqlite.empty())
        throw UserError("log writes one file (name it with --csv FILE or --sqlite FILE, or print "
                        "objects with --json)");
    if (toOutput && options.output.json)
        throw UserError("--csv - and --json both write to standard output (leave out one)");
    options.form.require(!options.csv.empty());
    options.form.form();
    bytesOf(options.maximumSize);
    if (!printed)
        static_cast<void>(FilePattern(textOf(options.csv.empty() ? options.sqlite : options.csv)));
    if ((toOutput || printed) && (options.keep > 0 || !options.maximumSize.empty()))
        throw UserError("--max-size and --keep are for files (name one with --csv FILE)");
}

QString nameOfFile(const LogOptions& options)
{
    if (isPrinted(options) || options.csv == "-")
        return QStringLiteral("standard output");
    return FilePattern(textOf(options.csv.empty() ? options.sqlite : options.csv))
        .pathFor(QDateTime(), 1);
}

void reportRows(const LogOptions& options, const Logging& logging, const Output& output)
{
    const QStringList files =
        logging.files().isEmpty() ? QStringList(nameOfFile(options)) : logging.files();
    const qint64 rows = logging.rows();
    const QString text = files.size() == 1 ? files.first()
                                           : QStringLiteral("%1 to %2, %3 files")
                                                 .arg(files.first(), files.last())
                                                 .arg(files.size());
    output.note(text + (rows == 1 ? QStringLiteral(": 1 row written")
                                  : QStringLiteral(": %1 rows written").arg(rows)));
    if (isPrinted(options) || !output.json())
        return;
    Json object = {{"file", files.last().toStdString()}, {"rows", rows}};
    for (const QString& file : files.size() > 1 ? files : QStringList())
        object["files"].push_back(file.toStdString());
    output.data(object, QString());
}

int run(LogOptions options)
{
    const Output output(options.output.json, options.output.quiet);
    requireDestination(options);
    findProject(options.line);
    Route route = routeOf(options.line, "log", output);
    route.project = withMatching(route.project, options.match, route.source);
    if (options.raw)
        route.project.showRaw();
    applyRates(options.rates, route.project);
    if (route.gateway)
        options.rates.noteGateway(output);
    const Project& project = route.project;
    requirePort(project, options.line);
    RunLoop loop(options.line, route);
    Logging logging(loop, project, options, output);
    loop.run(logging, options.seconds, output);
    reportRows(options, logging, output);
    loop.summarise(output);
    return loop.exitStatus();
}

} // namespace

void addLog(CommandLine& line)
{
    const auto options = std::make_shared<LogOptions>();
    CommandOptions log = line.addCommand("log", "Record values with their time and quality",
                                         [options] { return run(*options); });
    log.text("PROJECT", options->line.project,
             "Project file (default project.json, or plant.json, in the folder)");
    log.text("--csv", options->csv, "Append to this comma-separated file; - is standard output");
    log.text("--sqlite", options->sqlite, "Append to the table samples of this database");
    log.text("--match", options->match,
             "Read only the variables whose names contain this, or match it with * and ?");
    options->rates.addTo(log, "Record every variable at this interval in seconds (default: each "
                              "change)");
    log.number("--seconds", options->seconds, 0.1, 1e9, "End after this many seconds");
    log.flag("--raw", options->raw, kRawHelp);
    options->form.addTo(log, "With --csv: a row for each moment, with a column for each element of "
                             "each variable");
    log.text(
        "--max-size", options->maximumSize,
        "Begin a new file when one has this size, such as 10M; %N in its name is their number");
    log.integer("--keep", options->keep, 1, 1000000,
                "Delete the oldest files of the name's pattern, and leave so many");
    options->line.addTo(log);
    options->output.addTo(log);
    log.footer(
        "A kill of the program loses at most the last second. A last row that it cut short is "
        "removed when the file is continued.\n"
        "With --interval the recording begins when every variable has a value or an error.\n"
        "A text with control characters, or one that a spreadsheet would take for a formula, "
        "is in double quotes, with escapes such as \\n.\n"
        "In a database numbers are numbers whatever their type, true is 1, and NULL is only "
        "for a value\nthat was never read; micro850-host(1) tells the rest.\n"
        "With --wide, a value that is not good is an empty cell.\n"
        "With --json and no file, each value is an object on standard output.\n"
        "A name with %Y, %m, %d, %H and %M, such as values-%Y-%m-%d.csv, begins a new file when "
        "it changes: in UTC, or with --time local or spreadsheet in local time. %% is a percent "
        "sign.\n"
        "Example:\n  micro850-host log examples/plant.project.json --csv values.csv "
        "--port /tmp/plc\n"
        "  micro850-host log examples/plant.project.json --csv 'plant-%Y-%m-%d.csv' --wide "
        "--interval 1 --decimal comma --time spreadsheet --keep 31 --port /tmp/plc\n"
        "Exit status: 0 every variable was read, 1 at least one was not, 2 usage or "
        "configuration.");
}

} // namespace micro850::host
