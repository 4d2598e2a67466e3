#include "WebService.h"

#include "EventFeed.h"
#include "Guard.h"
#include "HistoryApi.h"
#include "Metrics.h"
#include "PageFiles.h"
#include "Problem.h"
#include "RecentTrends.h"
#include "RequestError.h"
#include "TlsFiles.h"
#include "UserError.h"
#include "ValuesApi.h"
#include "WebContext.h"

namespace micro850::gateway {

namespace {

/// Gives every response the headers that protect browsers.
class ProtectedExchange : public HttpExchange
{
public:
    explicit ProtectedExchange(HttpExchangePointer exchange) : m_exchange(std::move(exchange)) {}

    const HttpRequest& request() const override { return m_exchange->request(); }
    void answer(HttpResponse response) override
    {
        Guard::protect(response);
        m_exchange->answer(std::move(response));
    }
    bool isWanted() const override { return m_exchange->isWanted(); }

private:
    HttpExchangePointer m_exchange;
};

// The address as a browser writes it.
QString addressText(const WebSettings& settings, int port)
{
    const bool isEncrypted = !settings.http.certificateFile.isEmpty();
    const QString& address = settings.http.address;
    const bool isIPv6 = address.contains(':');
    return QStringLiteral("%1://%2:%3/")
        .arg(isEncrypted ? QStringLiteral("https") : QStringLiteral("http"),
             isIPv6 ? '[' + address + ']' : address)
        .arg(port);
}

TlsFiles filesOf(const HttpSettings& settings)
{
    return settings.certificateFile.isEmpty()
               ? TlsFiles()
               : TlsFiles::read(settings.certificateFile, settings.keyFile);
}

bool isSamePlace(const HttpSettings& a, const HttpSettings& b)
{
    return a.address == b.address && a.port == b.port;
}

/// All that serves requests, while the web server is on.
class WebParts
{
public:
    WebParts(const WebNeeds& needs, const WebSettings& settings);

    void change(const WebSettings& settings);
    QString address() const { return addressText(m_context.settings, m_server->port()); }

    void addValue(int number);
    void addEvent(const char* event, const LineEvent& what);
    void addWrite(const JournalEntry& entry);
    void handleReload();
    int numberOf(int line, int variable) const { return m_context.index.numberOf(line, variable); }

private:
    std::unique_ptr<HttpServer> newServer(const HttpSettings& settings);
    void changeServer(const HttpSettings& settings);
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
    TlsFiles m_files;                     ///< as the server has read them
    std::unique_ptr<HttpServer> m_server; ///< before the others go, its exchanges have to
};

WebParts::WebParts(const WebNeeds& needs, const WebSettings& settings)
    : m_context(needs), m_guard(settings, needs.clock, needs.wallClock),
      m_events(m_context, [this](const Caller& caller) { return m_guard.isStillAdmitted(caller); }),
      m_metrics({needs.lines, needs.status,
                 [this] { return m_server ? m_server->counters() : HttpCounters(); },
                 [this] { return m_events.readers(); }})
{
    m_context.settings = settings;
    m_values.addRoutes(m_router);
    m_history.addRoutes(m_router);
    m_trends.addRoutes(m_router);
    m_events.addRoutes(m_router);
    m_router.add("GET", "/api/v1/status",
                 [this](const HttpExchangePointer& exchange, const Caller&) {
                     exchange->answer(jsonResponse(m_context.status()));
                 });
    m_guard.addRoutes(m_router);
    m_metrics.addRoutes(m_router);
    m_page.addRoutes(m_router);
    m_files = filesOf(settings.http);
    m_server = newServer(settings.http);
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
        exchange->answer(problem(500, "", error.what()));
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

// Two servers cannot listen at the same place, not even for a moment. A certificate may have been
// renewed in the same file.
void WebParts::changeServer(const HttpSettings& settings)
{
    const HttpSettings before = m_context.settings.http;
    const TlsFiles files = filesOf(settings);
    const bool hasOtherFiles = files.certificate != m_files.certificate || files.key != m_files.key;
    if (settings == before && !hasOtherFiles)
        return;
    if (isSamePlace(settings, before))
        m_server.reset();
    try {
        m_server = newServer(settings);
    } catch (const UserError&) {
        if (!m_server)
            m_server = newServer(before);
        throw;
    }
    m_files = files;
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
