#include "WebService.h"

#include "Compression.h"
#include "EventFeed.h"
#include "Guard.h"
#include "HistoryApi.h"
#include "IpAddress.h"
#include "Metrics.h"
#include "PageFiles.h"
#include "Problem.h"
#include "RareLog.h"
#include "RecentTrends.h"
#include "RequestError.h"
#include "TlsFiles.h"
#include "UserError.h"
#include "ValuesApi.h"
#include "WebContext.h"

#include <QtCore/QTimer>

#include <deque>

namespace micro850::gateway {

namespace {

const int kRetryMs = 5000;

// The session has a secret.
bool canBeCompressed(const QStringList& path)
{
    return path.value(0) == QLatin1String("api") && path.last() != QLatin1String("session");
}

/// Gives every response the headers that protect browsers, and compresses lists.
class ProtectedExchange : public HttpExchange
{
public:
    explicit ProtectedExchange(HttpExchangePointer exchange) : m_exchange(std::move(exchange)) {}

    const HttpRequest& request() const override { return m_exchange->request(); }
    void answer(HttpResponse response) override
    {
        Guard::protect(response);
        if (canBeCompressed(request().path))
            compress(response, request());
        m_exchange->answer(std::move(response));
    }
    bool isWanted() const override { return m_exchange->isWanted(); }

private:
    HttpExchangePointer m_exchange;
};

// The address as a browser writes it. That of a server which listens everywhere helps nobody: the
// first of its names does.
QString addressText(const WebSettings& settings, int port)
{
    const bool isEncrypted = !settings.http.certificateFile.isEmpty();
    QString host = settings.http.address;
    if (isAnyAddress(host)) {
        if (settings.hosts.isEmpty())
            return QStringLiteral("port %1 of every address of this machine").arg(port);
        host = settings.hosts.first();
    }
    const bool isIPv6 = host.contains(':');
    return QStringLiteral("%1://%2:%3/")
        .arg(isEncrypted ? QStringLiteral("https") : QStringLiteral("http"),
             isIPv6 ? '[' + host + ']' : host)
        .arg(port);
}

TlsFiles filesOf(const HttpSettings& settings)
{
    return settings.certificateFile.isEmpty()
               ? TlsFiles()
               : TlsFiles::read(settings.certificateFile, settings.keyFile);
}

// Another one is needed for another place, and for another certificate.
bool isSameServer(const HttpSettings& a, const HttpSettings& b)
{
    return a.address == b.address && a.port == b.port && a.certificateFile == b.certificateFile &&
           a.keyFile == b.keyFile;
}

// A server at all addresses has the port of each.
bool areInEachOthersWay(const QString& a, const QString& b)
{
    const auto isEverywhere = [](const QString& address) {
        return address == QLatin1String("0.0.0.0") || address == QLatin1String("::");
    };
    return a == b || isEverywhere(a) || isEverywhere(b);
}

/// All that serves requests, while the web server is on.
class WebParts
{
public:
    WebParts(const WebNeeds& needs, const WebSettings& settings);
    ~WebParts();
    WebParts(const WebParts&) = delete;
    WebParts& operator=(const WebParts&) = delete;

    void change(const WebSettings& settings);
    QString address() const;
    Json status() const;

    void addValue(int number);
    void addEvent(const char* event, const LineEvent& what);
    void addWrite(const JournalEntry& entry);
    void handleReload();
    int numberOf(int line, int variable) const { return m_context.index.numberOf(line, variable); }

private:
    std::unique_ptr<HttpServer> newServer(const HttpSettings& settings);
    void changeServer(const HttpSettings& settings);
    void retireServer();
    void endRetired();
    void openAgain();
    void tellOpen();
    void tellServer(const char* state, const QString& text);
    void serve(const HttpExchangePointer& exchange);

    WebContext m_context;
    Guard m_guard;
    ValuesApi m_values{m_context};
    HistoryApi m_history{m_context};
    RecentTrends m_trends{m_context};
    EventFeed m_events;
    Metrics m_metrics;
    PageFiles m_page;
    Router m_router;
    RareLog m_mistakes;
    TlsFiles m_files;  ///< as the server has read them
    QTimer m_retry;    ///< while it cannot listen
    QString m_problem; ///< why it cannot listen
    struct Retired
    {
        std::unique_ptr<HttpServer> server;
        Duration since;
    };
    /// Null while it cannot listen. Before the others go, the exchanges of the servers have to.
    std::unique_ptr<HttpServer> m_server;
    std::deque<Retired> m_retired; ///< they answer what they have begun
    QTimer m_retiring;
};

WebParts::WebParts(const WebNeeds& needs, const WebSettings& settings)
    : m_context(needs), m_guard(settings, needs.clock, needs.wallClock, needs.warn),
      m_events(m_context, [this](const Caller& caller) { return m_guard.isStillAdmitted(caller); }),
      m_metrics({needs.lines, needs.status,
                 [this] { return m_server ? m_server->counters() : HttpCounters(); },
                 [this] { return m_events.readers(); }, [this] { return m_guard.counters(); }}),
      m_mistakes(needs.clock, needs.warn)
{
    m_context.settings = settings;
    m_retry.setInterval(kRetryMs);
    QObject::connect(&m_retry, &QTimer::timeout, [this] { openAgain(); });
    m_values.addRoutes(m_router);
    m_history.addRoutes(m_router);
    m_trends.addRoutes(m_router);
    m_events.addRoutes(m_router);
    m_context.lastEvent = [this] { return m_events.lastEvent(); };
    m_router.add("GET", "/api/v1/status",
                 [this](const HttpExchangePointer& exchange, const Caller&) {
                     exchange->answer(jsonResponse(m_context.status()));
                 });
    m_guard.addRoutes(m_router);
    m_metrics.addRoutes(m_router);
    m_page.addRoutes(m_router);
    m_files = filesOf(settings.http);
    m_server = newServer(settings.http);
    const int kLookMs = 100;
    m_retiring.setInterval(kLookMs);
    QObject::connect(&m_retiring, &QTimer::timeout, [this] { endRetired(); });
}

// Whoever waits for a write is told what is known of it.
WebParts::~WebParts()
{
    m_values.giveUp();
}

std::unique_ptr<HttpServer> WebParts::newServer(const HttpSettings& settings)
{
    return std::make_unique<HttpServer>(
        settings, m_context.clock,
        [this](const HttpExchangePointer& exchange) {
            serve(std::make_shared<ProtectedExchange>(exchange));
        },
        [](int status, const std::string& detail) {
            HttpResponse response = problem(status, "", detail);
            Guard::protect(response);
            return response;
        });
}

// Whatever goes wrong with one request, its client gets an answer and the service goes on.
void WebParts::serve(const HttpExchangePointer& exchange)
{
    try {
        const auto admitted = m_guard.admit(exchange->request());
        if (const auto* const refusal = std::get_if<HttpResponse>(&admitted))
            exchange->answer(*refusal);
        else
            m_router.route(exchange, std::get<Caller>(admitted));
    } catch (const RequestError& error) {
        exchange->answer(problemOf({{"code", error.code()}, {"text", error.what()}}));
    } catch (const UserError& error) {
        exchange->answer(problem(400, errorcode::kBadRequest, error.what()));
    } catch (const std::exception& error) {
        // What it says is for those who look after the service.
        m_mistakes.note("", QStringLiteral("web: a request failed: %1").arg(error.what()));
        exchange->answer(problem(500, "", "the gateway made a mistake; its log tells more"));
    }
}

// All of it, or nothing. The guard never lets in what the settings of another server allow.
void WebParts::change(const WebSettings& settings)
{
    const std::function<void()> changeGuard = m_guard.prepare(settings);
    changeServer(settings.http);
    changeGuard();
    m_context.settings = settings;
}

// Two servers cannot listen at the same port, not even for a moment: one at all addresses is in the
// way of one at a single address. A certificate may have been renewed in the same file.
void WebParts::changeServer(const HttpSettings& settings)
{
    const HttpSettings before = m_context.settings.http;
    // It could not listen there before the reload either, and goes on trying.
    if (!m_server && isSameServer(settings, before))
        return;
    const TlsFiles files = filesOf(settings);
    const bool hasOtherFiles = files.certificate != m_files.certificate || files.key != m_files.key;
    if (m_server && isSameServer(settings, before) && !hasOtherFiles)
        return m_server->change(settings);
    // Connections of the server before do not hinder another one, its listening does.
    if (settings.port == before.port && areInEachOthersWay(settings.address, before.address))
        retireServer();
    try {
        std::unique_ptr<HttpServer> next = newServer(settings);
        retireServer();
        m_server = std::move(next);
    } catch (const UserError&) {
        if (!m_server)
            openAgain();
        throw;
    }
    m_files = files;
    tellOpen();
}

// With the settings that it has.
void WebParts::openAgain()
{
    try {
        const TlsFiles files = filesOf(m_context.settings.http);
        m_server = newServer(m_context.settings.http);
        m_files = files;
        tellOpen();
    } catch (const UserError& error) {
        const bool isNew = m_problem.isEmpty();
        m_problem = QString::fromLocal8Bit(error.what());
        m_retry.start();
        if (isNew)
            tellServer("page stopped",
                       QStringLiteral("there is no page: %1; it is tried again").arg(m_problem));
    }
}

void WebParts::tellOpen()
{
    m_retry.stop();
    if (!std::exchange(m_problem, QString()).isEmpty())
        tellServer("page served", QStringLiteral("there is a page again"));
}

void WebParts::tellServer(const char* state, const QString& text)
{
    LineEvent event;
    event.time = m_context.wallClock.now();
    event.state = QLatin1String(state);
    event.text = text;
    if (m_context.alarm)
        m_context.alarm(event);
}

QString WebParts::address() const
{
    return addressText(m_context.settings,
                       m_server ? m_server->port() : m_context.settings.http.port);
}

Json WebParts::status() const
{
    const GuardCounters refused = m_guard.counters();
    Json status = {{"address", address().toStdString()},
                   {"connections", m_server ? m_server->counters().connections : 0},
                   {"readers", m_events.readers()},
                   {"refusedLogins", refused.logins},
                   {"refusedChanges", refused.changes}};
    if (!m_problem.isEmpty())
        status["problem"] = m_problem.toStdString();
    return status;
}

void WebParts::retireServer()
{
    if (!m_server)
        return;
    m_server->retire();
    m_retired.push_back({std::move(m_server), m_context.clock.now()});
    m_retiring.start();
    endRetired();
}

// Each write has its answer in a few seconds, whatever becomes of the line and its process.
void WebParts::endRetired()
{
    const Duration kLongest = std::chrono::seconds(20);
    const std::size_t kMost = 4;
    while (!m_retired.empty()) {
        const Retired& oldest = m_retired.front();
        const bool isOverdue =
            m_retired.size() > kMost || m_context.clock.now() - oldest.since > kLongest;
        if (isOverdue)
            m_values.giveUp(oldest.since);
        else if (!oldest.server->isOver())
            return;
        m_retired.pop_front();
    }
    m_retiring.stop();
}

void WebParts::addValue(int number)
{
    m_context.values.forget(number);
    m_trends.addValue(number);
    m_events.addValue(number);
}

void WebParts::addEvent(const char* event, const LineEvent& what)
{
    m_history.addEvent(what);
    m_events.addEvent(event, what);
}

void WebParts::addWrite(const JournalEntry& entry)
{
    m_history.addWrite(entry);
    m_events.addWrite(entry);
}

void WebParts::handleReload()
{
    m_context.index.rebuild();
    m_context.values.reset();
    ++m_context.generation;
    m_trends.handleReload();
    m_events.handleReload();
}

} // namespace

class WebService::Private
{
public:
    explicit Private(const WebNeeds& needs) : m_needs(needs) {}

    void change(const WebSettings& settings)
    {
        if (!settings.isOn)
            m_parts.reset();
        else if (m_parts)
            m_parts->change(settings);
        else
            m_parts = std::make_unique<WebParts>(m_needs, settings);
    }

    const WebNeeds m_needs;
    std::unique_ptr<WebParts> m_parts; ///< null while it is off
};

WebService::WebService(const WebNeeds& needs, const WebSettings& settings)
    : m_private(std::make_unique<Private>(needs))
{
    change(settings);
    needs.lines.addListener(*this);
}

WebService::~WebService()
{
    m_private->m_needs.lines.removeListener(*this);
}

void WebService::change(const WebSettings& settings)
{
    m_private->change(settings);
}

QString WebService::address() const
{
    return m_private->m_parts ? m_private->m_parts->address() : QString();
}

Json WebService::status() const
{
    return m_private->m_parts ? m_private->m_parts->status() : Json();
}

void WebService::tellAlarm(const LineEvent& event)
{
    handleEvent(event);
}

void WebService::handleValue(int line, int variable)
{
    if (m_private->m_parts)
        m_private->m_parts->addValue(m_private->m_parts->numberOf(line, variable));
}

void WebService::handleEvent(const LineEvent& event)
{
    if (m_private->m_parts)
        m_private->m_parts->addEvent("state", event);
}

void WebService::handleNotice(const LineEvent& event)
{
    if (m_private->m_parts)
        m_private->m_parts->addEvent("notice", event);
}

void WebService::handleWrite(const JournalEntry& entry)
{
    if (m_private->m_parts)
        m_private->m_parts->addWrite(entry);
}

void WebService::handleReload()
{
    if (m_private->m_parts)
        m_private->m_parts->handleReload();
}

} // namespace micro850::gateway
