#include "EventFeed.h"

#include "HistoryRows.h"
#include "Message.h"
#include "RecordObjects.h"
#include "RequestKeys.h"

#include <QtCore/QRandomGenerator>

#include <algorithm>
#include <cstring>

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

EventStream::~EventStream()
{
    if (m_feed)
        m_feed->m_streams.erase(this);
}

void EventStream::begin(bool anew)
{
    // A browser connects again after so many milliseconds.
    m_text = "retry: 1000\n\n";
    if (anew)
        m_text += m_feed->encoded("reloaded", "{}", 0);
    startPass(true);
}

void EventStream::resume(qint64 number)
{
    m_text = "retry: 1000\n\n";
    m_next = number;
    m_valuesUpTo = number - 1;
    m_catchUpTo = number - 1;
    // Ages that were told meanwhile are not kept.
    m_text += m_feed->encoded("ages", m_feed->agesText(), number - 1);
}

void EventStream::handleReload()
{
    m_inPass = false;
    m_next = std::min(m_next, m_feed->m_last);
    m_valuesUpTo = m_catchUpTo = m_feed->m_last;
}

int EventStream::read(char* bytes, int size)
{
    int copied = 0;
    while (copied < size) {
        if (m_taken == m_text.size()) {
            m_text = m_feed ? next() : QByteArray();
            m_taken = 0;
        }
        if (m_text.isEmpty())
            break;
        const int count = std::min(size - copied, m_text.size() - m_taken);
        std::memcpy(bytes + copied, m_text.constData() + m_taken, static_cast<std::size_t>(count));
        m_taken += count;
        copied += count;
    }
    return copied == 0 && !m_feed ? kEnd : copied;
}

// Empty when there is nothing now.
QByteArray EventStream::next()
{
    while (m_inPass || m_next <= m_feed->m_last) {
        const QByteArray text = m_inPass ? nextOfPass() : nextOfFeed();
        if (!text.isEmpty())
            return text;
    }
    return QByteArray();
}

void EventStream::startPass(bool isSnapshot)
{
    m_inPass = true;
    m_isSnapshot = isSnapshot;
    m_since = isSnapshot ? -1 : m_valuesUpTo;
    m_passBegan = m_feed->m_last;
    m_variable = 0;
    if (isSnapshot)
        m_next = m_passBegan + 1;
}

// Empty when nothing of the event is for this reader.
QByteArray EventStream::nextOfFeed()
{
    if (m_next < m_feed->firstKept()) {
        startPass(true);
        return QByteArray();
    }
    const EventFeed::Frame& frame = m_feed->frame(m_next);
    const bool hasValues = frame.kind == EventFeed::Kind::Values;
    if (hasValues && m_next > m_valuesUpTo && m_next <= m_catchUpTo) {
        startPass(false);
        return QByteArray();
    }
    const qint64 number = m_next++;
    if (frame.kind == EventFeed::Kind::Reloaded) {
        startPass(true);
        return frame.bytes;
    }
    if (hasValues && number <= m_valuesUpTo)
        return QByteArray();
    m_valuesUpTo = std::max(m_valuesUpTo, number);
    return frame.bytes;
}

// Empty when nothing changed that is not sent.
QByteArray EventStream::nextOfPass()
{
    const QVector<qint64>& changedBy = m_feed->m_changedBy;
    const int size = changedBy.size();
    QByteArray data = R"({"values":[)";
    bool isFirst = true;
    for (; m_variable < size && (isFirst || data.size() < kUsualPart); ++m_variable) {
        if (changedBy.at(m_variable) <= m_since)
            continue;
        if (!isFirst)
            data += ',';
        isFirst = false;
        data += m_feed->m_context.values.text(m_variable);
    }
    while (m_variable < size && changedBy.at(m_variable) <= m_since)
        ++m_variable;
    const bool isLast = m_variable == size;
    data += m_isSnapshot && !isLast ? R"(],"more":true})" : "]}";
    // Who goes away during a pass gets the pass again.
    const qint64 before = m_isSnapshot ? 0 : std::min(m_next - 1, m_valuesUpTo);
    if (isLast) {
        m_inPass = false;
        m_valuesUpTo = m_passBegan;
        m_catchUpTo = m_feed->m_last;
    }
    if (isFirst && !m_isSnapshot)
        return QByteArray();
    const qint64 id = isLast ? std::min(m_next - 1, m_passBegan) : before;
    return m_feed->encoded(m_isSnapshot ? "snapshot" : "values", data, id);
}

} // namespace micro850::gateway
