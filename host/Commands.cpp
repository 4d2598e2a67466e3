#include "Commands.h"

#include "LiveTable.h"
#include "SerialLine.h"
#include "Session.h"
#include "Terminal.h"
#include "TraceFile.h"
#include "UserError.h"

#include <QtCore/QTime>

#include <cstdio>
#include <iostream>

namespace host {

namespace {

const char kDefaultProject[] = "project.json";

// The project that the options name, or one that only has the port.
Project projectOf(const Options& options)
{
    Project project;
    if (options.project.isEmpty())
        project.stations.append(StationSettings());
    else
        project = Project::fromFile(options.project);
    if (!options.port.isEmpty())
        project.port.device = options.port;
    if (options.baud != 0)
        project.port.baud = options.baud;
    if (!project.port.device.isEmpty())
        return project;
    const std::string where =
        options.project.isEmpty() ? "" : options.project.toStdString() + ": port.device: ";
    throw micro850::UserError(where + "no port is given (name it with --port DEVICE" +
                              (where.empty() ? " or --project FILE" : " or in the file") + ")");
}

// A variable of the project, or a tag of the default station.
struct Target
{
    TagKey tag;
    TagAddress address;
};

Target targetOf(const TagAddress& address, const Project& project, const Options& options)
{
    Target target = {{project.stations.first().number, address.tag}, address};
    if (const Variable* variable = project.variable(address.tag)) {
        target.tag = {variable->station, variable->tag};
        target.address.element += variable->element;
        if (!address.indexed)
            target.address.elements = variable->length;
        target.address.indexed = address.indexed || variable->length > 1;
    }
    if (options.station >= 0)
        target.tag.first = options.station;
    return target;
}

QByteArray valueOf(const micro850::CipType& type, const QString& text, const QString& name)
{
    try {
        return elementFromText(type, text);
    } catch (const micro850::UserError& error) {
        throw micro850::UserError(name.toStdString() + ": " + error.what());
    }
}

void printLine(const QString& line)
{
    std::cout << line.toStdString() << '\n';
}

/// The driver and the line, open, for the time of a command.
class Connection
{
public:
    Connection(const Options& options, const Project& project)
        : m_library(options.driver), m_line(project.port)
    {
        QString error;
        if (!m_line.open(error)) {
            throw micro850::UserError((project.port.device +
                                       QStringLiteral(": cannot be opened: ") + error +
                                       QStringLiteral(" (choose the port with --port)"))
                                          .toStdString());
        }
    }
    ~Connection() { m_line.close(); }

    const DriverApi& api() const { return m_library.api(); }
    SerialLine& line() { return m_line; }
    const SteadyClock& clock() const { return m_clock; }

private:
    DriverLibrary m_library;
    SerialLine m_line;
    SteadyClock m_clock;
};

// For single reads and writes: nothing is polled besides.
Project withoutVariables(Project project, const QVector<Target>& targets)
{
    project.variables.clear();
    for (const Target& target : targets) {
        if (!project.hasStation(target.tag.first)) {
            StationSettings station;
            station.number = target.tag.first;
            project.stations.append(station);
        }
    }
    return project;
}

/// Shows the poll loop: a table that is drawn anew on a terminal, a line a change elsewhere.
class Display
{
public:
    Display(PollLoop& loop, const Project& project, const Clock& clock, double interval)
        : m_loop(loop), m_table(loop, project), m_clock(clock), m_terminal(stdout),
          m_intervalMs(m_terminal.isTerminal() ? 100 : static_cast<int>(interval * 1000))
    {
    }

    void update()
    {
        const qint64 now = m_clock.now();
        if (now < m_next)
            return;
        m_next = now + m_intervalMs;
        if (m_terminal.isTerminal()) {
            m_terminal.draw(m_table.lines(m_terminal.width(), m_terminal.rows(), now));
        } else {
            printChanges();
            tellStates();
        }
    }

    const LiveTable& table() const { return m_table; }

    /// Shows what has changed since the last update and gives the terminal back.
    void close()
    {
        m_next = 0;
        update();
        m_terminal.restore();
    }

private:
    // Values that become stale, or good again, change too.
    void printChanges()
    {
        QSet<int> changed = m_loop.values().takeChanged();
        m_qualities.resize(m_loop.values().size());
        for (int i = 0; i < m_qualities.size(); ++i) {
            const Quality quality = m_loop.quality(i);
            if (quality != m_qualities.at(i))
                changed.insert(i);
            m_qualities[i] = quality;
        }
        QList<int> sorted = changed.values();
        std::sort(sorted.begin(), sorted.end());
        const QString time = QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz "));
        for (const int variable : sorted) {
            if (m_loop.values().wasRead(variable) || !m_loop.values().error(variable).isEmpty())
                printLine(time + m_table.changeLine(variable));
        }
        if (!sorted.isEmpty())
            std::cout.flush();
    }

    // The state of the line and of the stations, which the table shows.
    void tellStates()
    {
        QStringList states(m_table.lineState());
        for (const Station& station : m_loop.stations())
            states +=
                QStringLiteral("station %1: %2").arg(station.number).arg(stateText(station.state));
        for (int i = 0; i < states.size(); ++i) {
            if (states.at(i) != m_states.value(i))
                std::cerr << "micro850-host: " << states.at(i).toStdString() << '\n';
        }
        m_states = states;
    }

    PollLoop& m_loop;
    LiveTable m_table;
    const Clock& m_clock;
    Terminal m_terminal;
    QVector<Quality> m_qualities;
    QStringList m_states;
    int m_intervalMs;
    qint64 m_next = 0;
};

void summarise(const LiveTable& table, qint64 now)
{
    for (const QString& line : table.stationLines(now))
        std::cerr << "micro850-host: " << line.toStdString() << '\n';
    if (!table.complete())
        std::cerr << "micro850-host: some variables were never read\n";
}

} // namespace

int poll(const Options& given)
{
    Options options = given;
    if (options.project.isEmpty())
        options.project = QString::fromLatin1(kDefaultProject);
    const Project project = projectOf(options);
    TraceFile trace(options.trace);
    Connection connection(options, project);
    PollLoop loop(connection.api(), connection.line(), connection.clock(), project);
    trace.attach(loop.exchange());
    Display display(loop, project, connection.clock(), options.interval);
    Interrupt interrupt;
    const auto end = static_cast<qint64>(options.seconds * 1000);
    while (!interrupt.requested() && (end == 0 || connection.clock().now() < end)) {
        loop.step();
        display.update();
    }
    loop.finish();
    display.close();
    summarise(display.table(), connection.clock().now());
    return display.table().complete() ? micro850::kExitDone : micro850::kExitRefused;
}

int read(const Options& options)
{
    const Project project = projectOf(options);
    QVector<Target> targets;
    for (const QString& text : options.arguments)
        targets.append(targetOf(TagAddress::fromText(text), project, options));
    const Project bare = withoutVariables(project, targets);
    TraceFile trace(options.trace);
    Connection connection(options, bare);
    Session session(connection.api(), connection.line(), connection.clock(), bare);
    trace.attach(session.exchange());
    for (const Target& target : targets) {
        const micro850::CipType& type = session.typeOf(target.tag);
        const QVector<QByteArray> elements =
            session.read(target.tag, target.address.element, target.address.elements);
        for (int i = 0; i < elements.size(); ++i)
            printLine(target.address.elementName(i) + QStringLiteral(" = ") +
                      elementText(type, elements.at(i)));
    }
    return micro850::kExitDone;
}

int write(const Options& options)
{
    const Project project = projectOf(options);
    QVector<Target> targets;
    QStringList texts;
    for (const QString& text : options.arguments) {
        const Assignment assignment = Assignment::fromText(text);
        targets.append(targetOf(assignment.address, project, options));
        texts.append(assignment.value);
    }
    const Project bare = withoutVariables(project, targets);
    TraceFile trace(options.trace);
    Connection connection(options, bare);
    Session session(connection.api(), connection.line(), connection.clock(), bare);
    trace.attach(session.exchange());

    // All values are checked against their types before the first is written.
    QVector<QByteArray> values;
    for (int i = 0; i < targets.size(); ++i) {
        const micro850::CipType& type = session.typeOf(targets.at(i).tag);
        requireWritable(type, targets.at(i).address.tag);
        values.append(valueOf(type, texts.at(i), targets.at(i).address.elementName(0)));
    }
    for (int i = 0; i < targets.size(); ++i) {
        const Target& target = targets.at(i);
        session.write(target.tag, target.address.element, values.at(i));
        const micro850::CipType& type = session.typeOf(target.tag);
        const QByteArray now = session.read(target.tag, target.address.element, 1).first();
        const QString line =
            target.address.elementName(0) + QStringLiteral(" = ") + elementText(type, now);
        if (now != values.at(i)) {
            throw micro850::UserError((line + QStringLiteral(" was read back after ") +
                                       texts.at(i) +
                                       QStringLiteral(" was written (the program may set it)"))
                                          .toStdString(),
                                      micro850::kExitRefused);
        }
        printLine(line);
    }
    return micro850::kExitDone;
}

} // namespace host
