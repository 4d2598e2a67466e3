#include "EventFeed.h"

#include "EventStream.h"
#include "HistoryRows.h"
#include "Message.h"
#include "RecordObjects.h"
#include "RequestKeys.h"

#include <QtCore/QRandomGenerator>

namespace micro850::gateway {

namespace {

const int kCollectMs = 250;
const int kTimesMs = 2000;
// So long a reader can be away and get only what came meanwhile.
const Duration kNeededFor = std::chrono::seconds(60);

QByteArray textOf(const Json& object)
{
    QByteArray text = host::lineOf(object);
    text.chop(1);
    return text;
}

QByteArray newRun()
{
    return QByteArray::number(QRandomGenerator::system()->generate64(), 16);
}

} // namespace

EventFeed::EventFeed(WebContext& context, IsAdmitted isAdmitted)
    : m_context(context), m_isAdmitted(std::move(isAdmitted)), m_run(newRun())
{
    m_changedBy.fill(0, m_context.index.size());
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
        expectKeys(exchange->request(), {});
        HttpResponse response;
        response.type = "text/event-stream";
        response.headers.append(HttpHeader{"Cache-Control", "no-store"});
        response.headers.append(HttpHeader{"X-Accel-Buffering", "no"}); // of a reverse proxy
        if (exchange->request().method != "HEAD")
            response.stream = open(caller, exchange->request().header("last-event-id"));
        exchange->answer(std::move(response));
    };
    router.add("GET", "/api/v1/events", answer);
}

std::shared_ptr<HttpStream> EventFeed::open(const Caller& caller, const QByteArray& lastId)
{
    if (!isNeeded())
        forgetAll();
    auto stream = std::make_shared<EventStream>(*this, caller);
    m_streams.insert(stream.get());
    isNeeded(); // from now on, also when it goes at once
    m_isKept = true;
    const int dash = lastId.indexOf('-');
    bool isNumber = false;
    const qint64 last = lastId.mid(dash + 1).toLongLong(&isNumber);
    const bool isOurs = dash > 0 && isNumber && lastId.left(dash) == m_run && last <= m_last;
    if (isOurs && last + 1 >= firstKept())
        stream->resume(last + 1);
    else
        stream->begin(!lastId.isEmpty() && (!isOurs || last < m_lastReload));
    return stream;
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
    for (int at = 0; at < changed.size();) {
        QByteArray data = R"({"values":[)";
        const qint64 number = m_last + 1;
        for (bool isFirst = true;
             at < changed.size() && (isFirst || data.size() < EventStream::kUsualPart);
             isFirst = false)
        {
            if (!isFirst)
                data += ',';
            const int variable = changed.at(at++);
            m_isChanged[variable] = false;
            m_changedBy[variable] = number;
            data += m_context.values.text(variable);
        }
        append(Kind::Values, "values", data += "]}");
    }
    wakeAll();
}

void EventFeed::addEvent(const char* event, const LineEvent& what)
{
    if (!isNeeded())
        return forgetAll();
    append(Kind::Other, event, textOf(objectOf(what)));
    wakeAll();
}

void EventFeed::addWrite(const JournalEntry& entry)
{
    if (!isNeeded())
        return forgetAll();
    append(Kind::Other, "write", textOf(objectOf(entry)));
    wakeAll();
}

void EventFeed::forgetAll()
{
    if (!std::exchange(m_isKept, false))
        return;
    m_frames.clear();
    m_bytes = 0;
    ++m_last; // else the next event would seem to follow what is forgotten
}

// What comes every two seconds is worth nothing later: only the last one is kept.
void EventFeed::tellTimes()
{
    if (!isNeeded())
        return forgetAll();
    endUnwanted();
    if (m_streams.empty())
        return;
    if (m_lastAges >= firstKept())
        forgetFrame(frame(m_lastAges));
    append(Kind::Ages, "ages", agesText());
    m_lastAges = m_last;
    if (m_lastStatus >= firstKept())
        forgetFrame(frame(m_lastStatus));
    append(Kind::Status, "status", textOf(m_context.status()));
    m_lastStatus = m_last;
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

QByteArray EventFeed::agesText() const
{
    QByteArray text = R"({"ages":{)";
    for (int line = 0; line < m_context.lines.size(); ++line) {
        const LineSettings& settings = m_context.lines.line(line);
        text += (line > 0 ? "," : "") + textOf(host::jsonOf(settings.name)) + ":[";
        for (int variable = 0; variable < settings.project.variables.size(); ++variable) {
            const qint64 age = m_context.lines.ageMs(line, variable);
            if (variable > 0)
                text += ',';
            text += age < 0 ? QByteArray("null") : QByteArray::number(age);
        }
        text += ']';
    }
    return text + "}}";
}

void EventFeed::handleReload()
{
    m_changed.clear();
    m_changedBy.fill(0, m_context.index.size());
    m_isChanged.fill(false, m_context.index.size());
    for (Frame& frame : m_frames) {
        if (frame.kind == Kind::Values || frame.kind == Kind::Ages)
            forgetFrame(frame);
    }
    append(Kind::Reloaded, "reloaded", "{}");
    m_lastReload = m_last;
    for (EventStream* stream : m_streams)
        stream->handleReload();
    wakeAll();
}

QByteArray EventFeed::encoded(const char* event, const QByteArray& data, qint64 id) const
{
    return "id: " + m_run + '-' + QByteArray::number(id) + "\nevent: " + event + "\ndata: " + data +
           "\n\n";
}

void EventFeed::append(Kind kind, const char* event, const QByteArray& data)
{
    m_frames.push_back({kind, encoded(event, data, ++m_last)});
    m_bytes += m_frames.back().bytes.size();
    const std::size_t kMostFrames = 10000;
    while (m_frames.size() > 1 && (m_bytes > kMostBytes || m_frames.size() > kMostFrames)) {
        forgetFrame(m_frames.front());
        m_frames.pop_front();
    }
}

void EventFeed::forgetFrame(Frame& frame)
{
    m_bytes -= frame.bytes.size();
    frame.bytes = QByteArray();
}

void EventFeed::wakeAll()
{
    for (EventStream* stream : m_streams)
        stream->wake();
}

} // namespace micro850::gateway
