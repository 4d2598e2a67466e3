#include "PollLoop.h"

#include "FrameText.h"
#include "PlantTexts.h"
#include "TimedRuns.h"

#include <QtCore/QTime>

#include <algorithm>
#include <functional>

namespace micro850::host {

namespace {

const std::chrono::milliseconds kIdlePause(20);
const std::chrono::milliseconds kShortestPause(1);
// Of a loop whose caller wakes it up.
const std::chrono::milliseconds kLongestWait(100);
const std::chrono::milliseconds kLookInterval(100);
const std::chrono::seconds kLongestRest(10);
// After five single reads the driver makes one of its cycle.
const double kShareOfTimedReads = 5.0 / 6;

// The driver seeds the serial number of a connection with the second of the day, as this clock
// shows it. The time that is left of the present second, and a little more.
Duration restOfSecond()
{
    const int secondMs = 1000;
    const int marginMs = 5;
    return std::chrono::milliseconds(secondMs - QTime::currentTime().msec() + marginMs);
}

} // namespace

PollLoop::PollLoop(const DriverApi& api, Line& line, const Clock& clock, const Project& project)
    : m_project(project), m_clock(clock), m_line(line, clock),
      m_exchange(line, clock, project.port),
      m_driver(api, project.stations.first().number, project.port.retryLimit), m_values(project),
      m_types(project, clock, m_values), m_operations(m_driver, m_types),
      m_deferred(m_driver, m_values), m_connections(m_exchange, project.port),
      m_setsSpeed(project.port.setsSpeed())
{
    m_exchange.setMeanwhile([this] { storeValues(); });
    m_cycle.noteChange();
    for (const StationSettings& settings : project.stations) {
        m_stations.insert(settings.number, Station(settings));
        m_driver.enableStation(settings.number, settings.enabled);
    }
    for (int i = 0; i < project.variables.size(); ++i) {
        const Variable& variable = project.variables.at(i);
        declare({variable.station, variable.tag});
        if (m_stations.value(variable.station).state() == Station::State::Disabled)
            m_values.setError(
                i, QStringLiteral("station %1 is disabled in the project").arg(variable.station));
    }
}

void PollLoop::step()
{
    if (!m_line.ensureOpen() || waitsForOtherSerial())
        return;
    handleReopenedLine();
    // Where lines are full, a transaction has only just ended.
    const bool hasJustEnded = m_idleSteps == 0 && m_schedule.isEmpty();
    const Duration now = hasJustEnded ? m_endedAt : m_clock.now();
    probeDeadStations(now);
    askForTypes(now);
    m_operations.pump(m_stations);
    if (m_cycle.isDue(now))
        planCycle(now);
    if (!m_schedule.isEmpty() && startTimedRead(now))
        m_operations.pump(m_stations);
    Protocol* next = m_driver.next();
    if (!next)
        idle();
    else if (m_operations.hasAbandoned() &&
             m_operations.isAbandoned(next->var.varIndex, {next->var.stationNo, next->var.tagName}))
        takeBack(*next);
    else if (m_schedule.isEmpty())
        transact(*next);
    else
        transactTimed(*next, now);
}

bool PollLoop::noneIsServed() const
{
    return std::none_of(m_stations.cbegin(), m_stations.cend(), [](const Station& station) {
        return station.inService() && !station.isProbing();
    });
}

// The set-up that follows brings the station back or ends the probe. The driver connects only for a
// request, and its lists may hold none of this station; therefore one is queued.
void PollLoop::probeDeadStations(Duration now)
{
    if (!m_someAreDead)
        return;
    m_someAreDead = false;
    for (Station& station : m_stations) {
        m_someAreDead = m_someAreDead || station.state() == Station::State::Dead;
        if (!station.isProbeDue(now, noneIsServed()))
            continue;
        station.beginProbe();
        m_driver.enableStation(station.number(), true);
        if (const std::optional<TagKey> tag = m_types.firstTagOf(station.number()))
            m_operations.askForType(*tag);
    }
}

// Asks for the type of every tag that a variable shows, and lets variables back into the cycle.
void PollLoop::askForTypes(Duration now)
{
    if (now < m_nextLook)
        return;
    m_nextLook = now + kLookInterval;
    if (m_types.readmitVariables())
        m_cycle.noteChange();
    for (const TagKey& key : m_types.tagsToAskFor()) {
        const auto station = m_stations.constFind(key.station);
        if (station != m_stations.constEnd() && station->inService() && !station->isProbing())
            m_operations.askForType(key);
    }
}

void PollLoop::planCycle(Duration now)
{
    QVector<CyclicRead> reads = m_types.cyclicReads();
    m_cycle.noteRenewal(now, reads.size());
    const auto isTimed = [this](const CyclicRead& read) {
        return m_project.variables.at(read.variable).intervalMs.value_or(0) > 0;
    };
    const auto intervalOf = [this](const CyclicRead& read) {
        return std::chrono::milliseconds(*m_project.variables.at(read.variable).intervalMs);
    };
    const auto timed = std::stable_partition(reads.begin(), reads.end(), std::not_fn(isTimed));
    if (timed != reads.end() || !m_schedule.isEmpty()) {
        QVector<TimedRun> runs;
        for (auto read = timed; read != reads.end(); ++read)
            runs += timedRuns(m_project.variables.at(read->variable), *read, intervalOf(*read));
        reads.erase(timed, reads.end());
        m_schedule.setShare(reads.isEmpty() ? 1 : kShareOfTimedReads);
        m_schedule.plan(runs, now);
    }
    m_driver.setCyclicReads(planReads(m_project, reads, m_driver.localLink()));
}

// True when one was added to the operations. Only one is there at a time, so that whatever else is
// asked for waits for one transaction at most.
bool PollLoop::startTimedRead(Duration now)
{
    if (m_operations.contains(m_timedRead))
        return false;
    if (m_timedRead != 0) // it ended together with its station
        m_schedule.noteFailure(now);
    m_timedRead = 0;
    keepConnections(now);
    const std::optional<TimedRun> run = m_schedule.next(now);
    if (!run)
        return false;
    Operation operation;
    operation.kind = Operation::Kind::Read;
    operation.tag = run->tag;
    operation.element = run->element;
    operation.elements = run->elements;
    operation.variable = run->variable;
    operation.timed = true;
    m_timedRead = m_operations.add(operation);
    return true;
}

void PollLoop::transactTimed(Protocol& next, Duration began)
{
    const bool timed =
        m_timedRead != 0 && next.var.varIndex == m_timedRead && !next.var.tagName.isEmpty();
    const bool answered = transact(next);
    const Duration now = m_clock.now();
    const bool ended = m_timedRead != 0 && !m_operations.contains(m_timedRead);
    if (timed && answered && ended)
        m_schedule.noteAnswer(now, now - began);
    else if (ended)
        m_schedule.noteFailure(now);
    if (!timed || !answered)
        m_schedule.noteOther(now, now - began);
    if (ended)
        m_timedRead = 0;
    m_overload.note(m_schedule.load(), m_project);
}

// A controller closes a connection that is not used for half a minute. Its values would become
// stale between two reads.
void PollLoop::keepConnections(Duration now)
{
    for (const Station& station : m_stations) {
        if (station.alive() && now - station.lastAnswer().value_or(now) > kLongestRest)
            m_schedule.pull(station.number(), now);
    }
}

void PollLoop::readOnce(int variable)
{
    const Variable& asked = m_project.variables.at(variable);
    const CipType* type = m_types.readableType(variable);
    if (asked.poll != PollMode::Once || !type)
        return;
    m_operations.removeReads(asked.station, variable);
    for (const Run& run : runsOf(asked, *type)) {
        Operation operation;
        operation.variable = variable;
        operation.tag = {asked.station, asked.tag};
        operation.element = run.element;
        operation.elements = run.elements;
        m_operations.add(operation);
    }
}

// What was read before a new connection, or before the line was opened again, is no longer known to
// be true.
void PollLoop::readOnceAgain(const Station& station)
{
    for (int i = 0; i < m_values.size(); ++i) {
        if (m_project.variables.at(i).station == station.number())
            readOnce(i);
    }
}

// The driver keeps its connections while the line is closed, so that no station connects again.
void PollLoop::handleReopenedLine()
{
    if (m_reopened == m_line.reconnects())
        return;
    m_reopened = m_line.reconnects();
    for (const Station& station : m_stations) {
        if (!station.alive())
            continue;
        readOnceAgain(station);
        m_schedule.restart(station.number(), m_clock.now());
    }
}

// The driver returns no frame once between two bursts. From the second time on there is nothing to
// send that would acknowledge the last reply.
void PollLoop::idle()
{
    storeValues();
    if (++m_idleSteps < 2)
        return;
    m_exchange.acknowledge();
    Duration longest = m_wait ? kLongestWait : kIdlePause;
    if (!m_schedule.isEmpty() && m_timedRead == 0)
        longest = std::min(longest, m_schedule.wakeAt() - m_clock.now());
    pause(std::max<Duration>(longest, kShortestPause));
}

void PollLoop::pause(Duration time)
{
    if (m_wait)
        m_wait(time);
    else
        m_line.pause(time);
}

void PollLoop::storeValues()
{
    m_deferred.store();
    if (m_publish)
        m_publish();
}

void PollLoop::finish()
{
    storeValues();
    if (m_line.isOpen())
        m_connections.closeAll();
    m_exchange.acknowledge();
}

void PollLoop::addStation(const StationSettings& settings)
{
    if (m_stations.contains(settings.number))
        return;
    m_stations.insert(settings.number, Station(settings));
    m_latest = nullptr;
    m_driver.enableStation(settings.number, settings.enabled);
}

void PollLoop::probeSoon()
{
    for (Station& station : m_stations)
        station.probeSoon(m_clock.now());
}

// Mostly the one of the transaction before. Stations never go.
Station& PollLoop::stationNumbered(int number)
{
    if (!m_latest || m_latest->number() != number)
        m_latest = &m_stations[number];
    return *m_latest;
}

// True when an answer came.
bool PollLoop::transact(Protocol& sent)
{
    m_idleSteps = 0;
    Station& station = stationNumbered(sent.var.stationNo);
    const qint64 receivedBefore = station.counters().bytesReceived;
    const Answer answer = runExchange(sent, station.counters());
    m_endedAt = answer.endedAt;
    ReplyStatus status;
    switch (answer.outcome) {
    case Answer::Outcome::DeviceGone:
        handleLostLine(sent, station, status,
                       answer.garbled ? station.counters().bytesReceived - receivedBefore : 0);
        break;
    case Answer::Outcome::Interrupted:
        m_interrupted = true;
        mayHaveWritten(sent);
        break;
    case Answer::Outcome::TimedOut:
        m_line.noteTraffic();
        mayHaveWritten(sent);
        handleSilence(sent, answer, station, status);
        break;
    case Answer::Outcome::Answered:
        m_line.noteTraffic();
        station.noteAnswer(answer.endedAt);
        if (sent.var.tagName.isEmpty())
            handleSetUpReply(sent, answer, station);
        else
            handleDataReply(sent, answer, station, status);
        break;
    }
    m_operations.endFinished(status);
    return answer.outcome == Answer::Outcome::Answered;
}

// The driver can only give up a write together with its connection, which it then opens again.
void PollLoop::takeBack(Protocol& next)
{
    const ReplyStatus status;
    handleVerdict(m_driver.dropConnection(next), stationNumbered(next.var.stationNo), status);
    m_operations.endFinished(status);
}

// Call it for a request that was sent without an answer. True when it is a write.
bool PollLoop::mayHaveWritten(const Protocol& sent)
{
    return !sent.var.tagName.isEmpty() &&
           m_operations.noteUnanswered(sent.var.varIndex, {sent.var.stationNo, sent.var.tagName});
}

// A request stays queued in the driver and goes out again when the device is back. A write does
// not: it would overwrite what others have written since. The driver drops it with its connection.
void PollLoop::handleLostLine(Protocol& sent, Station& station, ReplyStatus& status,
                              qint64 strayBytes)
{
    storeValues();
    m_line.lose(strayBytes);
    if (!mayHaveWritten(sent))
        return;
    status.failure = lostLine(m_line.error());
    handleVerdict(m_driver.dropConnection(sent), station, status);
}

Answer PollLoop::runExchange(const Protocol& sent, Counters& counters)
{
    const QByteArray frame = sent.frame; // whole: `sendLength` can be that of an earlier frame
    const qint64 bytesBefore = counters.bytes();
    const qint64 sentBefore = counters.sent;
    m_exchange.setStation(sent.var.stationNo);
    const Answer answer = m_exchange.run(frame, counters);
    m_connections.note(sent.var.stationNo, frame, answer);
    const bool answered = answer.outcome == Answer::Outcome::Answered;
    if (answered && counters.sent - sentBefore > 1) // the answer may be to a repetition
        mayHaveWritten(sent);
    if (answer.outcome == Answer::Outcome::Interrupted)
        return answer;
    m_statistics.add(answer.endedAt, static_cast<int>(counters.bytes() - bytesBefore),
                     answered ? std::make_optional(answer.roundTrip) : std::nullopt);
    return answer;
}

void PollLoop::handleSilence(Protocol& sent, const Answer& answer, Station& station,
                             ReplyStatus& status)
{
    const Heard heard = answer.late      ? Heard::LateReplies
                        : answer.garbled ? Heard::Garbage
                                         : Heard::Nothing;
    status.failure = noReply(heard, m_setsSpeed);
    const Verdict verdict = m_driver.reportSilence(sent);
    if (verdict == Verdict::NoConnection)
        handleFailedSetUp(answer.request.service == kForwardOpen, status.failure, station);
    else
        handleVerdict(verdict, station, status);
}

void PollLoop::handleSetUpReply(Protocol& sent, const Answer& answer, Station& station)
{
    const bool opens = answer.request.service == kForwardOpen;
    if (opens && !answer.reply.good()) {
        handleRefusedOpen(sent, answer.reply, station);
    } else if (opens && !hasConnection(answer.reply)) {
        // Without an identifier there is no connection; the driver would accept any bytes as one.
        m_driver.reportSilence(sent);
        handleFailedSetUp(opens, unusableReply(), station);
    } else if (m_driver.handOver(sent, answer.frame) == Verdict::NoConnection) {
        handleFailedSetUp(opens, unusableReply(), station);
    } else if (opens) {
        handleConnected(station);
    } else {
        station.noteIdentity();
        // The controller answers, so that what is left of earlier connections can be closed. Many
        // controllers have only a few, and refuse one that has the number of an open one.
        m_connections.close(station.number());
    }
}

// After this report the driver draws another serial number. In the same second it would be the same
// one; therefore the report of a number in use waits for the next second. Until then the driver
// keeps the request.
void PollLoop::handleRefusedOpen(Protocol& sent, const Reply& reply, Station& station)
{
    const Failure failure = refusedConnection(reply);
    if (saysConnectionInUse(reply) && station.triesOtherSerial()) {
        m_exchange.acknowledge();
        m_nextSerialAt = m_clock.now() + restOfSecond();
        station.waitForOtherSerial(failure);
        return;
    }
    m_driver.reportSilence(sent);
    handleFailedSetUp(true, failure, station);
}

bool PollLoop::waitsForOtherSerial()
{
    if (!m_nextSerialAt)
        return false;
    const Duration now = m_clock.now();
    if (now < *m_nextSerialAt) {
        pause(*m_nextSerialAt - now);
        return true;
    }
    m_nextSerialAt.reset();
    if (Protocol* refused = m_driver.next()) {
        Station& station = stationNumbered(refused->var.stationNo);
        m_driver.reportSilence(*refused);
        handleFailedSetUp(true, station.failure(), station);
    }
    return false;
}

void PollLoop::handleConnected(Station& station)
{
    const Duration now = m_clock.now();
    station.connect(now);
    for (Station& other : m_stations)
        other.probeSoon(now);
    readOnceAgain(station);
    m_schedule.restart(station.number(), now);
}

// The driver tries to connect a station again and again before it serves another one. A dead
// station is therefore taken out of the driver's lists, and the driver drops its queued requests
// without a report.
void PollLoop::handleFailedSetUp(bool opens, const Failure& failure, Station& station)
{
    if (!station.failSetUp(opens, failure))
        return;
    station.markDead(m_clock.now());
    m_someAreDead = true;
    m_driver.enableStation(station.number(), false);
    m_operations.failAll(station.number(), failure);
    m_schedule.park(station.number());
}

void PollLoop::handleDataReply(Protocol& sent, const Answer& answer, Station& station,
                               ReplyStatus& status)
{
    if (saysNoConnection(answer.reply)) {
        status.connectionLost = true;
        status.failure = lostConnection(answer.reply);
        handleVerdict(m_driver.dropConnection(sent), station, status);
        return;
    }
    // `sent` is gone once the driver has its reply.
    const Asked asked = {
        {sent.var.stationNo, sent.var.tagName}, sent.var.varIndex, sent.var.startAddress};
    const bool good = answer.reply.good();
    const bool reads = answer.request.service == kReadTagFragmented;
    if (!good)
        status.refusal = statusText(answer.reply);
    const Verdict verdict = reads && !good ? m_driver.handOverRefusal(sent, answer.frame)
                                           : m_driver.handOver(sent, answer.frame);
    handleVerdict(verdict, station, status);
    if (verdict == Verdict::Done && reads) {
        if (good)
            handleValues(asked, answer);
        else
            handleRefusedRead(asked, status.refusal);
    }
}

void PollLoop::handleVerdict(Verdict verdict, Station& station, const ReplyStatus& status)
{
    if (verdict != Verdict::Dropped)
        return;
    station.loseConnection();
    m_operations.handleDroppedConnection(station.number(), status);
}

void PollLoop::handleValues(const Asked& asked, const Answer& answer)
{
    const TagKey& key = asked.key;
    const quint16 typeCode = answer.reply.typeCode();
    const bool learns = m_types.learn(key, typeCode);
    if (learns)
        m_cycle.noteChange();
    const CipType* const type = m_types.find(key)->type;
    // The driver asks for element 0 while it does not know the class, whatever the request says.
    const bool asAsked = static_cast<int>(answer.request.element) == asked.element;
    if (type && asAsked) {
        m_deferred.hold({key, type, asked.element, answer.reply.values(), answer.endedAt});
        if (m_operations.find(asked.varIndex, key))
            m_operations.setResult(asked.varIndex, m_deferred.store());
    }
    if (!learns)
        return;
    for (const int variable : m_types.variablesOf(key))
        readOnce(variable);
}

void PollLoop::handleRefusedRead(const Asked& asked, const QString& why)
{
    const TagKey& key = asked.key;
    if (!m_types.isKnown(key)) {
        m_types.refuseTag(key, why);
        return;
    }
    const Operation* operation = m_operations.find(asked.varIndex, key);
    const int variable = operation ? operation->variable : variableOf(asked.varIndex);
    if (variable >= 0)
        m_types.refuseVariable(variable, why);
    else if (!operation ||
             operation->timed) // one of those that the driver merged reaches beyond the tag
        m_types.forbidMerging(key);
    m_cycle.noteChange();
}

int PollLoop::read(const TagKey& key, int element, int elements)
{
    Operation operation;
    operation.kind = Operation::Kind::Read;
    operation.tag = key;
    operation.element = element;
    operation.elements = elements;
    operation.awaited = true;
    return m_operations.add(operation);
}

int PollLoop::write(const TagKey& key, int element, const QByteArray& value)
{
    Operation operation;
    operation.kind = Operation::Kind::Write;
    operation.tag = key;
    operation.element = element;
    operation.value = value;
    operation.awaited = true;
    return m_operations.add(operation);
}

int PollLoop::learn(const TagKey& key)
{
    Operation operation;
    operation.kind = Operation::Kind::Learn;
    operation.tag = key;
    operation.awaited = true;
    return m_operations.add(operation);
}

std::optional<Duration> PollLoop::aliveSince(int number) const
{
    const auto station = m_stations.constFind(number);
    if (station == m_stations.constEnd() || !station->alive() || !m_line.isOpen())
        return std::nullopt;
    return std::max(station->connectedAt(), m_line.openedAt());
}

Quality PollLoop::quality(int variable) const
{
    return m_values.quality(variable, m_clock.now(),
                            aliveSince(m_project.variables.at(variable).station));
}

LineView PollLoop::line() const
{
    return {m_project.port.device, m_project.port.text(), m_line.isOpen(), m_line.error(),
            m_line.reportedError()};
}

LineFigures PollLoop::figures() const
{
    const Duration now = m_clock.now();
    return {m_statistics.transactionsPerSecond(now),
            m_statistics.percentInUse(now, m_project.port),
            m_statistics.roundTrip(50),
            m_statistics.roundTrip(99),
            m_line.reconnects(),
            100 * m_schedule.load().share,
            m_overload.text(),
            m_statistics.roundTrips(),
            m_statistics.hasRates(now)};
}

QVector<StationView> PollLoop::stationViews() const
{
    QVector<StationView> views;
    views.reserve(m_stations.size());
    for (const Station& station : m_stations)
        views.append(viewOf(station, m_line.isOpen(), m_line.error()));
    return views;
}

} // namespace micro850::host
