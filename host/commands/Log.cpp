#include "Changes.h"
#include "Rates.h"
#include "Recorder.h"
#include "RunLoop.h"
#include "UserError.h"

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
            values.error(index)};
}

std::unique_ptr<Recorder> recorderOf(const LogOptions& options, const Output& output)
{
    const auto note = [&output](const QString& text) { output.note(text); };
    return options.csv.empty() ? Recorder::sqlite(textOf(options.sqlite), note)
                               : Recorder::csv(textOf(options.csv), note);
}

/// Records the variables that changed, or all at an interval.
class Logging : public LoopView
{
public:
    Logging(RunLoop& run, const Project& project, const LogOptions& options, const Output& output)
        : m_plant(run.plant()), m_project(project), m_output(output),
          m_changes(m_plant, project, run.table()), m_recorder(recorderOf(options, output)),
          m_interval(options.rates.givenInterval())
    {
    }

    void update(Duration now) override
    {
        if (m_interval == Duration(0)) {
            record(m_changes.popVariables(now));
        } else if (isDue(now)) {
            record(all());
        }
        for (const QString& state : m_changes.popStates())
            m_output.note(state);
        if (now < m_nextFlush)
            return;
        m_nextFlush = now + kFlushInterval;
        m_recorder->flush();
    }
    /// Records what changed since the last step.
    void close(Duration now) override
    {
        if (m_interval == Duration(0))
            record(m_changes.popVariables(now));
        m_recorder->flush();
    }

    qint64 rows() const { return m_rows; }

private:
    // The first time is when every variable has a value or an error, or its station does not
    // answer.
    bool isDue(Duration now)
    {
        const QVector<int> variables = all();
        const auto isKnown = [this](int variable) { return this->isKnown(variable); };
        m_begun = m_begun || std::all_of(variables.begin(), variables.end(), isKnown);
        if (!m_begun || now < m_next)
            return false;
        // From one due time to the next, so that the interval does not grow by the time of a step.
        m_next += m_interval;
        if (m_next <= now)
            m_next = now + m_interval;
        return true;
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
        const QDateTime time = QDateTime::currentDateTimeUtc();
        for (const int variable : variables) {
            m_recorder->add(sampleOf(m_plant, m_project, variable, time));
            ++m_rows;
        }
    }

    Plant& m_plant;
    const Project& m_project;
    const Output& m_output;
    Changes m_changes;
    std::unique_ptr<Recorder> m_recorder;
    Duration m_interval;
    bool m_begun = false;
    Duration m_next{0};
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

int run(LogOptions options)
{
    const Output output(options.output.json, options.output.quiet);
    if (options.csv.empty() == options.sqlite.empty())
        throw UserError("log writes one file (name it with --csv FILE or --sqlite FILE)");
    const bool toOutput = options.csv == "-";
    if (toOutput && output.json())
        throw UserError("--csv - and --json both write to standard output (leave out one)");
    setDefaultProject(options.line);
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
    const std::string file = toOutput              ? "standard output"
                             : options.csv.empty() ? options.sqlite
                                                   : options.csv;
    output.note(textOf(file) + (logging.rows() == 1
                                    ? QStringLiteral(": 1 row written")
                                    : QStringLiteral(": %1 rows written").arg(logging.rows())));
    if (output.json())
        output.data({{"file", file}, {"rows", logging.rows()}}, QString());
    loop.summarise(output);
    return loop.exitStatus();
}

} // namespace

void addLog(CommandLine& line)
{
    const auto options = std::make_shared<LogOptions>();
    CommandOptions log = line.addCommand("log", "Record values with their time and quality",
                                         [options] { return run(*options); });
    log.text("PROJECT", options->line.project, "Project file (default project.json)");
    log.text("--csv", options->csv, "Append to this comma-separated file; - is standard output");
    log.text("--sqlite", options->sqlite, "Append to the table samples of this database");
    log.text("--match", options->match,
             "Read only the variables whose names contain this, or match it with * and ?");
    options->rates.addTo(log, "Record every variable at this interval in seconds (default: each "
                              "change)");
    log.number("--seconds", options->seconds, 0.1, 1e9, "End after this many seconds");
    log.flag("--raw", options->raw, kRawHelp);
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
        "Example:\n  micro850-host log examples/plant.project.json --csv values.csv "
        "--port /tmp/plc\n"
        "Exit status: 0 every variable was read, 1 at least one was not, 2 usage or "
        "configuration.");
}

} // namespace micro850::host
