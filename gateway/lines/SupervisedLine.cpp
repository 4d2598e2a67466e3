#include "SupervisedLine.h"

#include "ChildMessage.h"
#include "Message.h"
#include "UserError.h"

#include <utility>

namespace micro850::gateway {

namespace {

const int kLineItself = -1;
// A worker beats once a second.
const std::chrono::milliseconds kSilence(2500);

} // namespace

SupervisedLine::SupervisedLine(Owner& owner, LineSettings settings, const Clock& clock,
                               const WallClock& wallClock, const SupervisionSettings& supervision)
    : m_owner(owner), m_settings(std::move(settings)), m_clock(clock), m_wallClock(wallClock),
      m_supervision(supervision), m_image(m_settings, clock, wallClock),
      m_filter(m_settings.project.variables), m_supervisor(*this, clock, supervision),
      m_requests([this](const QByteArray& line) { return m_supervisor.send(line); }),
      m_status(Json::object()),
      m_whyDown(QStringLiteral("the worker of this line is not started yet"))
{
}

QByteArray SupervisedLine::opening()
{
    return host::lineOf({{"request", "open"},
                         {"line", m_settings.name.toStdString()},
                         {"file", m_settings.projectFile.toStdString()},
                         {"project", m_settings.projectText.toStdString()}});
}

void SupervisedLine::tick(bool mayStart)
{
    m_supervisor.tick(mayStart);
    const bool isSilent = m_clock.now() - m_supervisor.lastHeard() > kSilence;
    tellAll(m_image.markOld(isSilent));
    const QVector<int> heartbeats = m_filter.popHeartbeats(m_clock.now(), kTick);
    for (const int variable : heartbeats)
        m_owner.handleValue(*this, variable);
    if (!m_supervisor.isSteady())
        return;
    m_isMuted = false;
    m_lastEnd.reset();
    const QMap<int, State> untold = std::exchange(m_untold, {});
    for (auto state = untold.constBegin(); state != untold.constEnd(); ++state)
        tell(state.key(), *state);
}

bool SupervisedLine::isNews(int variable)
{
    const GatewayValue& value = m_image.value(variable);
    return m_filter.isNews(variable, {value.type, value.bytes, value.quality, value.error},
                           m_clock.now());
}

// Listeners know the values that are kept: dead bands and heartbeats go on from them.
void SupervisedLine::keepValues(const SupervisedLine& old)
{
    m_image.keepValues(old.m_image);
    for (int i = 0; i < m_image.size(); ++i) {
        if (m_image.value(i).quality != host::Quality::Never)
            isNews(i);
    }
}

void SupervisedLine::tellValue(int variable)
{
    if (isNews(variable))
        m_owner.handleValue(*this, variable);
}

void SupervisedLine::tellAll(const QVector<int>& variables)
{
    for (const int variable : variables)
        tellValue(variable);
}

void SupervisedLine::handleLine(const QByteArray& line)
{
    Json message = host::jsonOf(host::messageIn(line, "message of a worker"));
    if (!message.contains("event")) {
        if (message.contains("values")) {
            takeValues(message["values"]);
            stamp(message["values"]);
        }
        m_requests.takeReply(std::move(message));
        pumpRequests();
        return;
    }
    const QString event = textIn(message, "event");
    if (event == QLatin1String("values"))
        takeValues(message["values"]);
    else if (event == QLatin1String("ages"))
        takeAges(message);
    else if (event == QLatin1String("state"))
        takeState(message);
    else if (event == QLatin1String("opening"))
        m_supervisor.grant(std::chrono::milliseconds(numberIn(message, "patienceMs", 600000)));
    else if (event == QLatin1String("failed"))
        m_supervisor.noteReason(textIn(message, "text"));
    else
        throw UserError("event: " + event.toStdString() + " is unknown");
}

void SupervisedLine::takeValues(const Json& values)
{
    if (!values.is_array())
        throw UserError("values is no list");
    for (const Json& object : values) {
        const int changed = m_image.take(object);
        if (changed >= 0)
            tellValue(changed);
    }
}

// A worker gives ages. Stamps are those of the image: there is one wall clock.
void SupervisedLine::stamp(Json& values) const
{
    for (Json& object : values)
        object = jsonOf(m_image.value(m_image.indexOf(textIn(object, "name"))));
}

void SupervisedLine::takeAges(const Json& event)
{
    const auto ages = event.find("ages");
    if (ages == event.end())
        throw UserError("ages are missing");
    m_image.takeAges(static_cast<int>(numberIn(event, "first", m_image.size())), *ages);
    const auto status = event.find("status");
    if (status != event.end() && status->is_object())
        takeStatus(*status);
    m_whyDown.clear();
}

// That an overload ended is known of a worker that had seen it: the next one has yet to measure.
void SupervisedLine::takeStatus(const Json& status)
{
    const bool hadOverload = m_status.contains("overload");
    m_status = status;
    const QString overload = status.contains("overload") ? textIn(status, "overload") : QString();
    if (overload == m_overload || (overload.isEmpty() && !hadOverload))
        return;
    m_overload = overload;
    LineEvent event;
    event.time = m_wallClock.now();
    event.line = m_settings.name;
    event.state =
        overload.isEmpty() ? QStringLiteral("overload ended") : QStringLiteral("overload");
    event.text =
        overload.isEmpty() ? QStringLiteral("the line holds every interval again") : overload;
    m_owner.handleNotice(event);
}

void SupervisedLine::takeState(const Json& event)
{
    const int station =
        event.contains("station") ? static_cast<int>(numberIn(event, "station", 65535)) : -1;
    tell(station, {textIn(event, "state"), textIn(event, "text")});
}

void SupervisedLine::tell(int station, const State& state)
{
    if (m_isMuted) {
        m_untold[station] = state;
        return;
    }
    const State before = m_states.value(station);
    if (before.state == state.state && before.text == state.text)
        return;
    if (station == kLineItself)
        m_states.clear(); // it is news how the stations are then
    m_states.insert(station, state);
    LineEvent event;
    event.time = m_wallClock.now();
    event.line = m_settings.name;
    event.station = station;
    event.state = state.state;
    event.text = state.text;
    m_owner.handleEvent(event);
}

void SupervisedLine::handleEnd(const QString& how, Duration pause)
{
    const QString ended = how.isEmpty()
                              ? QStringLiteral("the worker of this line ended")
                              : QStringLiteral("the worker of this line ended (%1)").arg(how);
    const QString reason =
        ended + QStringLiteral("; it is started again in %1 s").arg(secondsText(pause));
    m_isMuted = m_isMuted || m_lastEnd == how;
    m_untold.clear();
    if (!m_isMuted) {
        tell(kLineItself, {QStringLiteral("worker ended"), reason});
    }
    m_lastEnd = how;
    markDown(reason);
    tellAll(m_image.markStale(reason));
    m_requests.failAll(reason);
}

void SupervisedLine::markDown(const QString& reason)
{
    m_whyDown = reason;
    m_status.erase("memoryKb");
    m_status.erase("overload");
    if (m_status.contains("stations")) {
        for (Json& station : m_status["stations"]) {
            if (station.value("state", "") == "disabled")
                continue;
            station["state"] = "line down";
            station["connected"] = false;
            station["problem"] = reason.toStdString();
        }
    }
}

Json SupervisedLine::status() const
{
    Json status = {{"line", m_settings.name.toStdString()},
                   {"project", m_settings.projectFile.toStdString()},
                   {"variables", m_image.size()},
                   {"workerPid", m_supervisor.pid() > 0 ? Json(m_supervisor.pid()) : Json()},
                   {"workerStarts", m_supervisor.starts()},
                   {"waitingRequests", m_requests.size()}};
    const std::optional<qint64> oldest = m_image.oldestMs();
    status["oldestMs"] = oldest ? Json(*oldest) : Json();
    status["port"] = m_settings.project.port.device.toStdString();
    status["settings"] = m_settings.project.port.text().toStdString();
    status.update(m_status);
    if (!m_whyDown.isEmpty()) {
        status["up"] = false;
        status["error"] = m_whyDown.toStdString();
        status["reportedError"] = m_whyDown.toStdString();
    }
    return status;
}

void SupervisedLine::ask(qint64 id, Json request, const LineService::Answer& answer)
{
    m_requests.add(id, std::move(request), answer);
}

void SupervisedLine::pumpRequests()
{
    m_requests.pump(m_whyDown.isEmpty() ? QStringLiteral("the worker of this line does not run")
                                        : m_whyDown);
}

int SupervisedLine::retire(const QString& reason)
{
    const int pid = m_supervisor.retire();
    m_requests.failAll(reason);
    return pid;
}

} // namespace micro850::gateway
