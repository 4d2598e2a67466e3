#include "ChangePrinter.h"
#include "Connection.h"
#include "Recorder.h"
#include "TraceFile.h"
#include "UserError.h"

#include <memory>

namespace micro850::host {

namespace {

// What a kill may cost at most.
const std::chrono::milliseconds kFlushInterval(500);

struct LogOptions
{
    LineOptions line;
    OutputOptions output;
    std::string csv;
    std::string sqlite;
    std::string match;
    double seconds = 0;
    double interval = 0;
};

// Scaled numbers are recorded with the digits that are shown.
std::optional<CipValue> valueOf(const ValueStore& values, const Variable& variable, int index)
{
    if (!values.wasRead(index))
        return std::nullopt;
    if (variable.length != 1)
        return CipValue::ofText(values.texts(index).join(' ').toLatin1().toStdString());
    return variable.scales(*values.type(index))
               ? CipValue::ofReal(values.texts(index).first().toDouble())
               : values.values(index).first();
}

Sample sampleOf(const PollLoop& loop, const Project& project, int index, const QDateTime& time)
{
    const Variable& variable = project.variables.at(index);
    const ValueStore& values = loop.values();
    const CipType* type = values.type(index);
    return {time,
            variable.name,
            variable.station,
            variable.tag,
            variable.element,
            type ? QString::fromLatin1(type->name) : QString(),
            valueOf(values, variable, index),
            variable.unit,
            qualityText(loop.quality(index)),
            values.error(index)};
}

/// Writes what has changed, or everything at an interval.
class Logging
{
public:
    Logging(PollLoop& loop, const Project& project, const LogOptions& options, const Output& output)
        : m_loop(loop), m_project(project), m_table(loop, project),
          m_changes(loop, project, m_table, output),
          m_recorder(options.csv.empty() ? Recorder::sqlite(textOf(options.sqlite))
                                         : Recorder::csv(textOf(options.csv))),
          m_match(textOf(options.match)), m_interval(fromSeconds(options.interval))
    {
        m_changes.setMatch(m_match);
    }

    void update(Duration now)
    {
        if (m_interval == Duration(0)) {
            write(m_changes.popChanged());
        } else if (now >= m_next) {
            m_next = now + m_interval;
            write(all());
        }
        m_changes.tellStates();
        if (now < m_nextFlush)
            return;
        m_nextFlush = now + kFlushInterval;
        m_recorder->flush();
    }
    void close() { m_recorder->flush(); }

    qint64 rows() const { return m_rows; }
    const LiveTable& table() const { return m_table; }

private:
    QVector<int> all() const
    {
        QVector<int> variables;
        for (int i = 0; i < m_table.size(); ++i) {
            if (matches(m_table.name(i), m_match))
                variables.append(i);
        }
        return variables;
    }
    void write(const QVector<int>& variables)
    {
        const QDateTime time = QDateTime::currentDateTimeUtc();
        for (const int variable : variables) {
            m_recorder->add(sampleOf(m_loop, m_project, variable, time));
            ++m_rows;
        }
    }

    PollLoop& m_loop;
    const Project& m_project;
    LiveTable m_table;
    ChangePrinter m_changes;
    std::unique_ptr<Recorder> m_recorder;
    QString m_match;
    Duration m_interval;
    Duration m_next{0};
    Duration m_nextFlush{0};
    qint64 m_rows = 0;
};

int run(const LogOptions& options)
{
    const Output output(options.output.json, options.output.quiet);
    if (options.csv.empty() == options.sqlite.empty())
        throw UserError("log writes one file (name it with --csv FILE or --sqlite FILE)");
    const Project project = projectOf(options.line);
    requirePort(project, options.line);
    TraceFile trace(textOf(options.line.trace));
    Connection connection(options.line, project);
    PollLoop loop(connection.api(), connection.line(), connection.clock(), project);
    loop.exchange().setObserver(trace.observer());
    Logging logging(loop, project, options, output);
    Interrupt interrupt;
    const Duration end = fromSeconds(options.seconds);
    const auto over = [&] { return end != Duration(0) && connection.clock().now() >= end; };
    while (!interrupt.requested() && !over()) {
        loop.step();
        logging.update(connection.clock().now());
    }
    loop.finish();
    logging.close();
    const std::string file = options.csv.empty() ? options.sqlite : options.csv;
    output.note(
        QStringLiteral("%1: %2 rows written").arg(textOf(file), QString::number(logging.rows())));
    if (output.json())
        output.data({{"file", file}, {"rows", logging.rows()}}, QString());
    summarise(loop, project, logging.table(), output, connection.clock().now());
    return logging.table().complete() ? kExitDone : kExitRefused;
}

} // namespace

void addLog(CommandLine& line)
{
    const auto options = std::make_shared<LogOptions>();
    options->line.project = "project.json";
    CommandOptions log = line.addCommand("log", "Record values with their time and quality",
                                         [options] { return run(*options); });
    log.text("PROJECT", options->line.project, "Project file (default project.json)");
    log.text("--csv", options->csv, "Append to this comma-separated file");
    log.text("--sqlite", options->sqlite, "Append to the table samples of this database");
    log.text("--match", options->match,
             "Record the variables whose names contain this, or match it with * and ?");
    log.number("--interval", options->interval, 0.0, 1e9,
               "Record every variable once in so many seconds (else each change)");
    log.number("--seconds", options->seconds, 0.1, 1e9, "End after so many seconds");
    options->line.addTo(log);
    options->output.addTo(log);
    log.footer("What is older than a second survives a kill of the program.\n"
               "Example:\n  micro850-host log examples/plant.project.json --csv values.csv "
               "--port /tmp/plc\n"
               "Exit status: 0 every variable was read, 1 some never was, 2 usage or "
               "configuration.");
}

} // namespace micro850::host
