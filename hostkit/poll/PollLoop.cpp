#include "PollLoop.h"

#include <algorithm>

namespace micro850::host {

namespace {

const std::chrono::milliseconds kIdlePause(20);
// The first pause before a device that went away is opened again, and the longest.
const std::chrono::milliseconds kFirstOpenPause(250);
const std::chrono::seconds kLongestOpenPause(5);
// The same for the probes of a station that does not answer.
const std::chrono::seconds kFirstProbePause(1);
const std::chrono::seconds kLongestProbePause(5);
// Set-ups without an answer until a station counts as dead. One may fall victim to a peer that
// takes it for the repetition of the last message it saw.
const int kSetUpsUntilDead = 2;
// Connection requests that the driver sends within one set-up.
const int kOpensOfSetUp = 4;

Duration grown(Duration pause, Duration first, Duration longest)
{
    return std::min(longest, std::max(first, 2 * pause));
}

} // namespace

PollLoop::PollLoop(const DriverApi& api, Line& line, const Clock& clock, const Project& project)
    : m_project(project), m_line(line), m_clock(clock), m_exchange(line, clock, project.port),
      m_driver(api, project.stations.first().number, project.port.retryLimit), m_values(project)
{
    m_exchange.setMeanwhile([this] { storeArrived(); });
    for (const StationSettings& settings : project.stations) {
        Station& station = m_stations[settings.number];
        station.number = settings.number;
        station.name = settings.name;
        station.state = settings.enabled ? Station::State::Connecting : Station::State::Disabled;
        m_driver.enableStation(settings.number, settings.enabled);
    }
    for (int i = 0; i < project.variables.size(); ++i) {
        const Variable& variable = project.variables.at(i);
        const TagKey key = {variable.station, variable.tag};
        declare(key);
        m_variablesOf[key].append(i);
        if (variable.area != 0)
            m_tags[key].area = variable.area;
    }
}

void PollLoop::declare(const TagKey& key)
{
    if (m_tags.contains(key))
        return;
    m_driver.declare({key.name});
    m_tags[key].area = m_tags.size() + 1;
}

void PollLoop::step()
{
    if (!openLine())
        return;
    probeDeadStations();
    lookAfterTags();
    pumpOperations();
    if (m_replan)
        replan();
    if (Protocol* next = m_driver.next())
        transact(*next);
    else
        idle();
}

bool PollLoop::openLine()
{
    if (m_line.isOpen()) {
        m_wasOpen = true;
        return true;
    }
    const Duration now = m_clock.now();
    if (now < m_nextOpen) {
        pauseFor(m_nextOpen - now);
        return false;
    }
    if (m_line.open(m_lineError)) {
        m_lineReconnects += m_wasOpen ? 1 : 0;
        m_lineError.clear();
        return true;
    }
    m_openPause = grown(m_openPause, kFirstOpenPause, kLongestOpenPause);
    m_nextOpen = now + m_openPause;
    return false;
}

// The transaction in flight stays queued and goes out again when the device is back.
void PollLoop::loseLine()
{
    storeArrived();
    m_line.close();
    m_lineError = QStringLiteral("the device is gone");
    m_openPause = grown(m_openPause, kFirstOpenPause, kLongestOpenPause);
    m_nextOpen = m_clock.now() + m_openPause;
}

void PollLoop::pauseFor(Duration time)
{
    m_line.pause(std::min<Duration>(time, kIdlePause));
}

// One idle call stands between two bursts of the driver; from the second on nothing is to be sent
// that would acknowledge the last reply.
void PollLoop::idle()
{
    storeArrived();
    if (++m_idleSteps < 2)
        return;
    m_exchange.acknowledge();
    pauseFor(kIdlePause);
}

void PollLoop::finish()
{
    storeArrived();
    m_exchange.acknowledge();
}

void PollLoop::transact(Protocol& sent)
{
    m_idleSteps = 0;
    m_refusal.clear();
    m_connectionLost = false;
    const QByteArray frame = sent.frame; // whole: `sendLength` may be that of an earlier patch
    Station& station = m_stations[sent.var.stationNo];
    const qint64 bytesBefore = station.counters.bytes();
    const Answer answer = m_exchange.run(frame, station.counters);
    const Request& request = answer.request;
    const bool answered = answer.outcome == Answer::Outcome::Answered;
    m_statistics.add(m_clock.now(), static_cast<int>(station.counters.bytes() - bytesBefore),
                     answered ? std::make_optional(answer.roundTrip) : std::nullopt);
    switch (answer.outcome) {
    case Answer::Outcome::DeviceGone:
        loseLine();
        break;
    case Answer::Outcome::TimedOut:
        m_openPause = Duration(0); // the device carries bytes, even if nobody answers
        takeSilence(sent, request);
        break;
    case Answer::Outcome::Answered:
        m_openPause = Duration(0);
        station.lastAnswer = m_clock.now();
        if (sent.var.tagName.isEmpty())
            takeSetUpReply(sent, request, answer);
        else
            takeDataReply(sent, request, answer);
        break;
    }
    takeFinished();
}

void PollLoop::takeSilence(Protocol& sent, const Request& request)
{
    Station& station = m_stations[sent.var.stationNo];
    const Verdict verdict = m_driver.reportSilence(sent);
    if (verdict == Verdict::NoConnection)
        setUpFailed(station, request, QStringLiteral("no answer"));
    else
        takeVerdict(verdict, station);
}

void PollLoop::takeSetUpReply(Protocol& sent, const Request& request, const Answer& answer)
{
    Station& station = m_stations[sent.var.stationNo];
    const bool opens = request.service == kForwardOpen;
    if (opens && !answer.reply.good()) {
        // Without an identifier there is no connection; the driver would take any bytes for one.
        m_driver.reportSilence(sent);
        setUpFailed(station, request, statusText(answer.reply));
    } else if (m_driver.handOver(sent, answer.data) == Verdict::NoConnection) {
        setUpFailed(station, request, QStringLiteral("unusable answer"));
    } else if (opens) {
        connected(station);
    } else {
        station.refusedOpens = 0;
    }
}

void PollLoop::connected(Station& station)
{
    const bool returns = station.state == Station::State::Dead;
    station.counters.reconnects += station.wasConnected ? 1 : 0;
    station.wasConnected = true;
    station.state = Station::State::Connected;
    station.probing = false;
    station.failedSetUps = 0;
    station.probePause = Duration(0);
    station.error.clear();
    for (int i = 0; i < m_values.size(); ++i) {
        const bool due = returns || !m_values.wasRead(i);
        if (due && m_project.variables.at(i).station == station.number)
            readOnce(i);
    }
}

// The driver gives up a set-up with its first request unanswered, or its second four times.
void PollLoop::setUpFailed(Station& station, const Request& request, const QString& why)
{
    station.error = why;
    if (request.service == kForwardOpen && ++station.refusedOpens < kOpensOfSetUp)
        return;
    station.refusedOpens = 0;
    ++station.failedSetUps;
    if (station.state == Station::State::Dead || station.failedSetUps >= kSetUpsUntilDead)
        markDead(station);
}

void PollLoop::takeDataReply(Protocol& sent, const Request& request, const Answer& answer)
{
    Station& station = m_stations[sent.var.stationNo];
    if (saysNoConnection(answer.reply)) {
        m_connectionLost = true;
        takeVerdict(m_driver.dropConnection(sent), station);
        return;
    }
    const RW_VAR var = sent.var; // `sent` is gone once its reply is taken
    const bool reads = request.service == kReadTagFragmented;
    if (!answer.reply.good())
        m_refusal = statusText(answer.reply);
    const Verdict verdict = reads && !answer.reply.good()
                                ? m_driver.handOverRefusal(sent, answer.data)
                                : m_driver.handOver(sent, answer.data);
    takeVerdict(verdict, station);
    if (verdict != Verdict::Done)
        return;
    if (!answer.reply.good())
        takeRefusal(var, request);
    else if (reads)
        takeValues(var, request, answer.reply);
}

void PollLoop::takeVerdict(Verdict verdict, Station& station)
{
    if (verdict != Verdict::Dropped)
        return;
    station.state = Station::State::Connecting;
    // The driver drops the station's writes with its connection and reports the one in flight only.
    // The others were not sent.
    const int queued = m_queued.value(station.number, 0);
    takeFinished();
    const auto left = m_operations.find(queued);
    if (left != m_operations.end() && left->state == Operation::State::Queued &&
        left->kind == Operation::Kind::Write)
    {
        left->state = Operation::State::Waiting;
        m_waiting[station.number].prepend(queued);
        m_queued.remove(station.number);
    }
}

// The driver tries the connection of a station again and again before it serves another one, so
// that a dead one is taken out of its lists. The driver drops the station's queued requests without
// a word.
void PollLoop::markDead(Station& station)
{
    station.state = Station::State::Dead;
    station.probing = false;
    station.probePause = grown(station.probePause, kFirstProbePause, kLongestProbePause);
    station.nextProbe = m_clock.now() + station.probePause;
    m_driver.enableStation(station.number, false);
    QQueue<int> ids = m_waiting.take(station.number);
    ids += m_queued.take(station.number);
    for (const int id : ids) {
        const auto found = m_operations.find(id);
        if (found != m_operations.end())
            end(*found, Operation::State::Failed,
                QStringLiteral("station %1 does not answer").arg(station.number));
    }
}

void PollLoop::probeDeadStations()
{
    const Duration now = m_clock.now();
    for (Station& station : m_stations) {
        if (station.state != Station::State::Dead || station.probing || now < station.nextProbe)
            continue;
        // Until the outcome of the set-up takes it out again or brings it back. The lists may hold
        // no request of the station, so that one is queued.
        station.probing = true;
        m_driver.enableStation(station.number, true);
        const auto tag = m_tags.lowerBound({station.number, QString()});
        if (tag != m_tags.end() && tag.key().station == station.number)
            askFor(tag.key());
    }
}

Quality PollLoop::quality(int variable) const
{
    const Station station = m_stations.value(m_project.variables.at(variable).station);
    return m_values.quality(variable, m_clock.now(), station.alive() && m_line.isOpen());
}

} // namespace micro850::host
