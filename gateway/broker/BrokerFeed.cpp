#include "BrokerFeed.h"

#include "ChildMessage.h"
#include "Message.h"
#include "UserError.h"

#include <QtCore/QRandomGenerator>

#include <csignal>
#include <utility>

namespace micro850::gateway {

namespace {

// What the process has not taken out of the socket yet. More waits here, where it is bounded.
const qint64 kEnoughWaiting = qint64(256) * 1024;
// A line of values ends with the value that makes it longer than this.
const int kEnoughBytes = 64 * 1024;
// Types come to be known one after the other.
const std::chrono::seconds kCatalogueInterval(1);
// The journal has all of them.
const int kMostUnansweredTold = 100;
// What a message needs besides its text.
const int kOverhead = 64;

QString newRun()
{
    return QString::number(QRandomGenerator::system()->generate64(), 16);
}

QByteArray textOf(const Json& object)
{
    return QByteArray::fromStdString(object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

} // namespace

BrokerFeed::BrokerFeed(Owner& owner, const QString& kind, const Json& settings, const Clock& clock,
                       const SupervisionSettings& supervision)
    : m_owner(owner), m_kind(kind), m_settings(settings), m_clock(clock),
      m_supervision(supervision), m_run(newRun()), m_supervisor(*this, clock, supervision),
      m_status(Json::object()), m_whyDown(QStringLiteral("its process is not started yet")),
      m_self(std::make_shared<bool>(true))
{
    m_pumps.setSingleShot(true);
    QObject::connect(&m_pumps, &QTimer::timeout, &m_pumps, [this] { pump(); });
}

BrokerFeed::~BrokerFeed()
{
    const int pid = m_supervisor.retire();
    if (pid > 0)
        ::kill(pid, SIGKILL);
}

QByteArray BrokerFeed::opening()
{
    m_isOpen = false;
    m_alive = std::make_shared<bool>(true);
    return host::lineOf({{"request", "open"},
                         {"kind", m_kind.toStdString()},
                         {"settings", m_settings},
                         {"run", m_run.toStdString()}});
}

void BrokerFeed::change(const Json& settings)
{
    m_settings = settings;
    m_isLeaving = m_supervisor.isRunning();
    pump();
}

void BrokerFeed::tick()
{
    if (mayStartOnceMore())
        m_supervisor.hurry();
    m_supervisor.tick(!m_isStopping || mayStartOnceMore());
    pump();
    if (m_isStopping && !isGone() && m_killed < 0 && m_clock.now() >= m_killAt) {
        m_killed = m_supervisor.retire();
        if (m_killed > 0)
            ::kill(m_killed, SIGKILL);
        report(QStringLiteral("delivery ended"),
               QStringLiteral("its process did not end in order and was killed"));
    }
    if (m_killed > 0 && endOf(m_killed))
        m_killed = 0;
    tellNotKept();
    if (m_supervisor.isSteady())
        m_lastEnd.reset();
}

void BrokerFeed::stop()
{
    m_isStopping = m_isLeaving = true;
    m_startsBeforeStop = m_supervisor.starts();
    m_killAt = m_clock.now() + m_supervision.timeToEnd;
    pump();
}

// Otherwise what is held would be lost, since nothing but the process has it on disk.
bool BrokerFeed::mayStartOnceMore() const
{
    return m_isStopping && isGone() && !m_held.empty() &&
           m_supervisor.starts() == m_startsBeforeStop && m_clock.now() < m_killAt;
}

void BrokerFeed::tellNotKept()
{
    if (!m_isStopping || m_held.empty() || !isGone() || mayStartOnceMore() ||
        std::exchange(m_toldNotKept, true))
        return;
    m_leftOut += static_cast<qint64>(m_held.size());
    report(QStringLiteral("delivery lost values"),
           QStringLiteral("its process did not take what was held for it before the end; "
                          "messages lost: %1")
               .arg(m_held.size()));
}

bool BrokerFeed::isGone() const
{
    return m_supervisor.pid() <= 0 && !m_supervisor.isRunning();
}

bool BrokerFeed::hasEnded() const
{
    return isGone() && m_killed <= 0 && (!m_isStopping || m_held.empty() || m_toldNotKept);
}

const BrokerFeed::Entry& BrokerFeed::entry(qint64 number) const
{
    return m_held.at(static_cast<std::size_t>(number - m_first));
}

void BrokerFeed::addValue(const Subject& subject, const QByteArray& value, qint64 time)
{
    add(subject, {true, time, value});
}

void BrokerFeed::addEvent(const char* kind, const Subject& subject, const Json& event)
{
    Json message = host::eventNamed(kind);
    message.update(event);
    add(subject, {false, 0, textOf(message)});
}

void BrokerFeed::add(const Subject& subject, Entry entry)
{
    m_bytes += entry.text.size() + kOverhead;
    m_held.push_back(std::move(entry));
    m_numbers[subject] = last();
    while (m_bytes > kMostHeld && m_held.size() > 1)
        removeOldest();
    if (!m_pumps.isActive())
        m_pumps.start(0);
}

// The process may still keep what it got; it is known when it does not.
void BrokerFeed::removeOldest()
{
    if (m_first < m_next) {
        m_lastUncovered = m_first;
    } else {
        ++m_leftOut;
        m_next = m_first + 1;
        tellLeftOut();
    }
    m_bytes -= m_held.front().text.size() + kOverhead;
    m_held.pop_front();
    ++m_first;
}

// Once each time that there is no room.
void BrokerFeed::tellLeftOut()
{
    if (std::exchange(m_toldLeftOut, true))
        return;
    report(QStringLiteral("delivery lost values"),
           QStringLiteral("its process takes no values; the oldest are left out, %1 so far")
               .arg(m_leftOut));
}

void BrokerFeed::handleLine(const QByteArray& line)
{
    const Json message = host::jsonOf(host::messageIn(line, "message of a process"));
    if (message.contains("request"))
        return takeOrder(message);
    const QString event = textIn(message, "event");
    if (event == QLatin1String("kept"))
        takeKept(numberIn(message, "number", m_next - 1));
    else if (event == QLatin1String("status"))
        takeStatus(message);
    else if (event == QLatin1String("log"))
        takeLog(message);
    else if (event == QLatin1String("opened"))
        takeOpened(message);
    else if (event == QLatin1String("opening"))
        m_supervisor.grant(std::chrono::milliseconds(numberIn(message, "patienceMs", 600000)));
    else if (event == QLatin1String("failed"))
        m_supervisor.noteReason(textIn(message, "text"));
    else
        throw UserError("event: " + event.toStdString() + " is unknown");
}

void BrokerFeed::takeStatus(const Json& message)
{
    const auto status = message.find("status");
    if (status == message.end() || !status->is_object())
        throw UserError("status is no object");
    m_status = *status;
}

// The last process may have committed more than it had told.
void BrokerFeed::takeOpened(const Json& message)
{
    const bool isSame = textIn(message, "run") == m_run;
    const qint64 kept = isSame ? numberIn(message, "number", m_lastSent) : m_lastKept;
    if (m_lastUncovered > kept) {
        m_leftOut += m_lastUncovered - kept;
        tellLeftOut();
    }
    m_lastUncovered = 0;
    takeKept(kept);
    m_next = m_first;
    m_isOpen = true;
    m_whyDown.clear();
    sendCatalogue();
    sendCurrent();
    pump();
}

void BrokerFeed::takeKept(qint64 number)
{
    m_lastKept = std::max(m_lastKept, number);
    while (!m_held.empty() && m_first <= number) {
        m_bytes -= m_held.front().text.size() + kOverhead;
        m_held.pop_front();
        ++m_first;
    }
    if (m_toldLeftOut && m_isOpen && m_held.empty()) {
        m_toldLeftOut = false;
        report(QStringLiteral("delivery"),
               QStringLiteral("its process has all that was held for it; "
                              "%1 messages were left out so far")
                   .arg(m_leftOut));
    }
    pump();
}

// The reply can come when the process, or this feed, is gone.
void BrokerFeed::takeOrder(const Json& message)
{
    if (textIn(message, "request") != QLatin1String("write"))
        throw UserError("request: is unknown");
    const qint64 id = numberIn(message, "id", INT64_MAX);
    m_owner.order(*this, message,
                  [this, id, message, alive = std::weak_ptr<bool>(m_alive),
                   self = std::weak_ptr<bool>(m_self)](const Json& reply) {
                      if (!alive.expired())
                          m_supervisor.send(host::lineOf({{"id", id}, {"reply", reply}}));
                      else if (!self.expired())
                          noteUnanswered(message, reply);
                  });
}

// Who gave the order hears nothing more of it.
void BrokerFeed::noteUnanswered(const Json& order, const Json& reply)
{
    if (++m_unanswered > kMostUnansweredTold)
        return;
    const auto error = reply.find("error");
    const Json outcome = error == reply.end() || !error->is_object()
                             ? reply.value("outcome", Json())
                             : error->value("code", Json());
    report(
        QStringLiteral("delivery problem"),
        QStringLiteral("the order for %1/%2 has its result (%3) after the process that had asked "
                       "for it ended: the result is not published")
            .arg(textIn(order, "line"), textIn(order, "name"),
                 outcome.is_string() ? QString::fromStdString(outcome.get<std::string>())
                                     : QStringLiteral("unknown")));
}

void BrokerFeed::takeLog(const Json& message)
{
    const bool isWarning = textIn(message, "priority") == QLatin1String("warning");
    report(isWarning ? QStringLiteral("delivery problem") : QStringLiteral("delivery"),
           textIn(message, "text"));
}

void BrokerFeed::report(const QString& state, const QString& text)
{
    m_owner.tell(state, m_kind + QStringLiteral(": ") + text);
}

void BrokerFeed::handleEnd(const QString& how, Duration pause)
{
    m_isOpen = false;
    m_alive.reset();
    m_next = m_first;
    const bool wasAsked = m_toldToLeave;
    m_isLeaving = m_isStopping;
    m_toldToLeave = false;
    m_status.erase("memoryKb");
    m_whyDown = QStringLiteral("its process ended (%1); it is started again in %2 s")
                    .arg(how, secondsText(pause));
    if (wasAsked) {
        m_whyDown = QStringLiteral("its process is started with other settings");
        m_supervisor.hurry();
        return;
    }
    if (m_isStopping)
        m_whyDown = QStringLiteral("its process ended (%1) while the service ended").arg(how);
    if (m_lastEnd != how || m_isStopping)
        report(QStringLiteral("delivery ended"), m_whyDown);
    m_lastEnd = how;
}

bool BrokerFeed::takesMore() const
{
    return m_isOpen && m_supervisor.isRunning() && m_supervisor.waitingBytes() < kEnoughWaiting;
}

void BrokerFeed::pump()
{
    if (!m_isOpen || m_toldToLeave)
        return;
    const bool isDue = m_hasNewType && m_clock.now() >= m_nextCatalogue;
    if ((m_hasNewCatalogue || isDue) && takesMore())
        sendCatalogue();
    while (m_next <= last() && takesMore()) {
        if (!sendNext())
            return;
    }
    if (m_isLeaving && m_next > last())
        m_toldToLeave = m_supervisor.send(host::lineOf({{"request", "stop"}}));
}

void BrokerFeed::sendCatalogue()
{
    m_hasNewCatalogue = false;
    m_hasNewType = false;
    m_nextCatalogue = m_clock.now() + kCatalogueInterval;
    Json message = host::eventNamed("catalogue");
    message.update(m_owner.catalogue());
    m_supervisor.send(host::lineOf(message));
}

bool BrokerFeed::sendNext()
{
    qint64 next = m_next;
    QByteArray line;
    if (entry(next).isValue) {
        line = valuesFrom(next);
    } else {
        line = entry(next).text;
        line.chop(1);
        line += R"(,"number":)" + QByteArray::number(next) + "}\n";
        ++next;
    }
    if (!m_supervisor.send(line))
        return false;
    m_next = next;
    m_lastSent = std::max(m_lastSent, m_next - 1);
    return true;
}

QByteArray BrokerFeed::valuesFrom(qint64& number) const
{
    QByteArray times;
    QByteArray values;
    const qint64 first = number;
    while (number <= last() && entry(number).isValue && values.size() < kEnoughBytes) {
        if (number != first) {
            times += ',';
            values += ',';
        }
        times += QByteArray::number(entry(number).time);
        values += entry(number).text;
        ++number;
    }
    return R"({"event":"values","first":)" + QByteArray::number(first) + R"(,"times":[)" + times +
           R"(],"values":[)" + values + "]}\n";
}

// What was told last about a subject either is kept, so that the process needs it, or comes again.
void BrokerFeed::addCurrentValue(const Subject& subject, const QByteArray& value)
{
    if (m_numbers.value(subject, 0) >= m_first)
        return;
    m_current += m_current.isEmpty() ? R"({"event":"current","values":[)" : ",";
    m_current += value;
    if (m_current.size() < kEnoughBytes)
        return;
    m_supervisor.send(m_current + "]}\n");
    m_current.clear();
}

void BrokerFeed::addCurrentState(const Subject& subject, const Json& event)
{
    if (m_numbers.value(subject, 0) >= m_first)
        return;
    Json message = host::eventNamed("current");
    message.update(event);
    m_supervisor.send(host::lineOf(message));
}

void BrokerFeed::sendCurrent()
{
    m_current.clear();
    m_owner.visitCurrent(*this);
    if (!m_current.isEmpty())
        m_supervisor.send(m_current + "]}\n");
    m_current.clear();
}

void BrokerFeed::forget(const std::function<bool(const Subject& subject)>& isGone)
{
    for (auto subject = m_numbers.begin(); subject != m_numbers.end();)
        subject = isGone(subject.key()) ? m_numbers.erase(subject) : std::next(subject);
}

void BrokerFeed::sendStatus(const Json& lines)
{
    if (takesMore() && !m_toldToLeave)
        m_supervisor.send(host::lineOf({{"event", "status"}, {"lines", lines}}));
}

bool BrokerFeed::isConnected() const
{
    const Json connection = m_status.value("connection", Json());
    return m_isOpen && connection.is_object() && connection.value("state", Json()) == "connected";
}

Json BrokerFeed::status() const
{
    Json status = {{"pid", m_supervisor.pid() > 0 ? Json(m_supervisor.pid()) : Json()},
                   {"starts", m_supervisor.starts()},
                   {"held", m_held.size()},
                   {"leftOut", m_leftOut}};
    if (!m_whyDown.isEmpty())
        status["problem"] = m_whyDown.toStdString();
    status.update(m_status);
    return status;
}

} // namespace micro850::gateway
