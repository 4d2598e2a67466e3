#include "EventFeed.h"

#include "EventStream.h"
#include "Problem.h"
#include "RecordObjects.h"
#include "RequestKeys.h"

namespace micro850::gateway {

namespace {

const int kCollectMs = 250;
const int kTimesMs = 2000;
// So long a reader can be away and get only what came meanwhile.
const Duration kNeededFor = std::chrono::seconds(60);

} // namespace

EventFeed::EventFeed(WebContext& context, IsAdmitted isAdmitted)
    : m_context(context), m_isAdmitted(std::move(isAdmitted)), m_log(context)
{
    m_isChanged.fill(false, m_context.index.size());
    m_soon.setSingleShot(true);
    m_soon.setInterval(kCollectMs);
    QObject::connect(&m_soon, &QTimer::timeout, [this] { flush(); });
    m_times.setInterval(kTimesMs);
    QObject::connect(&m_times, &QTimer::timeout, [this] { tellTimes(); });
    m_times.start();
}

EventFeed::~EventFeed()
{
    for (EventStream* stream : m_streams)
        stream->detach();
}

void EventFeed::addRoutes(Router& router)
{
    const auto answer = [this](const HttpExchangePointer& exchange, const Caller& caller) {
        const HttpRequest& request = exchange->request();
        expectKeys(request, {QStringLiteral("after")});
        HttpResponse response;
        response.type = "text/event-stream";
        response.headers.append(HttpHeader{"Cache-Control", "no-store"});
        response.headers.append(HttpHeader{"X-Accel-Buffering", "no"}); // of a reverse proxy
        // A browser that connects again sends both: then it has got events.
        const QByteArray lastId = request.header("last-event-id");
        const QByteArray after = request.queryText(QStringLiteral("after")).toUtf8();
        if (request.method != "HEAD")
            response.stream = lastId.isEmpty() && !after.isEmpty() ? openAfter(caller, after)
                                                                   : open(caller, lastId);
        exchange->answer(std::move(response));
    };
    router.add("GET", "/api/v1/events", answer);
}

std::shared_ptr<EventStream> EventFeed::newStream(const Caller& caller)
{
    auto stream = std::make_shared<EventStream>(
        m_log, caller, [this](EventStream* gone) { m_streams.erase(gone); });
    m_streams.insert(stream.get());
    return stream;
}

std::shared_ptr<HttpStream> EventFeed::open(const Caller& caller, const QByteArray& lastId)
{
    keepFromNowOn();
    const auto stream = newStream(caller);
    const std::optional<qint64> last = m_log.numberOf(lastId);
    if (const std::optional<qint64> next = kept(lastId))
        stream->resume(*next);
    else
        stream->begin(!lastId.isEmpty() && (!last || *last < m_log.lastReload()));
    return stream;
}

std::shared_ptr<HttpStream> EventFeed::openAfter(const Caller& caller, const QByteArray& id)
{
    keepFromNowOn();
    const auto stream = newStream(caller);
    if (const std::optional<qint64> next = kept(id)) {
        stream->resume(*next);
        stream->catchUp();
    } else {
        stream->begin(true);
    }
    return stream;
}

std::optional<qint64> EventFeed::kept(const QByteArray& lastId) const
{
    const std::optional<qint64> last = m_log.numberOf(lastId);
    return last && *last + 1 >= m_log.firstKept() ? std::optional(*last + 1) : std::nullopt;
}

QByteArray EventFeed::lastEvent()
{
    keepFromNowOn();
    return m_log.idOf(m_log.last());
}

// Also when the reader goes at once.
void EventFeed::keepFromNowOn()
{
    if (!isNeeded())
        forgetAll();
    m_neededUntil = m_context.clock.now() + kNeededFor;
    m_isKept = true;
}

// True when somebody reads, or may come back.
bool EventFeed::isNeeded()
{
    const Duration now = m_context.clock.now();
    if (!m_streams.empty())
        m_neededUntil = now + kNeededFor;
    return now < m_neededUntil;
}

void EventFeed::addValue(int number)
{
    if (!isNeeded())
        return forgetAll();
    if (m_isChanged.at(number))
        return;
    m_isChanged[number] = true;
    m_changed.append(number);
    if (!m_soon.isActive())
        m_soon.start();
}

void EventFeed::flush()
{
    const QVector<int> changed = std::exchange(m_changed, {});
    for (const int variable : changed)
        m_isChanged[variable] = false;
    m_log.appendValues(changed);
    wakeAll();
}

void EventFeed::addEvent(const char* event, const LineEvent& what)
{
    if (!isNeeded())
        return forgetAll();
    m_log.append(RecentEvents::Kind::Other, event, jsonText(objectOf(what)));
    wakeAll();
}

void EventFeed::addWrite(const JournalEntry& entry)
{
    if (!isNeeded())
        return forgetAll();
    m_log.append(RecentEvents::Kind::Other, "write", jsonText(objectOf(entry)));
    wakeAll();
}

void EventFeed::forgetAll()
{
    if (std::exchange(m_isKept, false))
        m_log.forgetAll();
}

// What comes every two seconds is worth nothing later: only the last one is kept.
void EventFeed::tellTimes()
{
    if (!isNeeded())
        return forgetAll();
    endUnwanted();
    if (m_streams.empty())
        return;
    m_log.forget(m_lastAges);
    m_log.append(RecentEvents::Kind::Ages, "ages", m_log.agesText());
    m_lastAges = m_log.last();
    m_log.forget(m_lastStatus);
    m_log.append(RecentEvents::Kind::Status, "status", jsonText(m_context.status()));
    m_lastStatus = m_log.last();
    wakeAll();
}

void EventFeed::endUnwanted()
{
    std::vector<EventStream*> unwanted;
    for (EventStream* const stream : m_streams) {
        if (!m_isAdmitted(stream->caller()))
            unwanted.push_back(stream);
    }
    for (EventStream* const stream : unwanted) {
        m_streams.erase(stream);
        stream->detach();
        stream->wake();
    }
}

void EventFeed::handleReload()
{
    m_changed.clear();
    m_isChanged.fill(false, m_context.index.size());
    m_log.handleReload();
    m_log.append(RecentEvents::Kind::Reloaded, "reloaded", "{}");
    for (EventStream* stream : m_streams)
        stream->handleReload();
    wakeAll();
}

void EventFeed::wakeAll()
{
    for (EventStream* stream : m_streams)
        stream->wake();
}

} // namespace micro850::gateway
