#include "HttpServer.h"

#include "HttpConnection.h"
#include "TcpListener.h"
#include "TlsFiles.h"
#include "UserError.h"

#include <QtCore/QHash>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <unordered_map>
#include <vector>

namespace micro850::gateway {

namespace {

/// Of each connection: twice the headers, and what the library notes of them.
const size_t kConnectionMemory = 24UL * 1024;
/// The limit of the settings, which can change, is our own.
const int kMostOfLibrary = 2000;
const int kTickMs = 100;
const std::size_t kMostTurnedAway = 64;
const Duration kTurnedAwayFor = std::chrono::seconds(1);
const char kPriorities[] = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";

HttpResponse plainRefusal(int status, const std::string& detail)
{
    HttpResponse response;
    response.status = status;
    response.type = "text/plain; charset=utf-8";
    response.body = QByteArray::fromStdString(detail) + '\n';
    return response;
}

QByteArray turnAwayBytes(const HttpResponse& response)
{
    QByteArray bytes =
        "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nRetry-After: 5\r\n";
    bytes += "Content-Type: " + response.type + "\r\n";
    for (const HttpHeader& header : response.headers)
        bytes += header.name + ": " + header.value + "\r\n";
    bytes += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n\r\n";
    return bytes + response.body;
}

std::set<QByteArray> proxiesOf(const HttpSettings& settings)
{
    std::set<QByteArray> proxies;
    for (const QString& proxy : settings.proxies) {
        const std::optional<QByteArray> address = canonicalAddress(proxy.toUtf8());
        if (!address)
            throw UserError("web.proxies: " + proxy.toStdString() + " is no IPv4 or IPv6 address");
        proxies.insert(*address);
    }
    return proxies;
}

size_t keepEscapes(void* /*server*/, MHD_Connection* /*connection*/, char* text)
{
    return std::strlen(text);
}

HttpConnection* connectionOf(MHD_Connection* library)
{
    const auto* info = MHD_get_connection_info(library, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info != nullptr ? static_cast<HttpConnection*>(info->socket_context) : nullptr;
}

void* beginRequest(void* /*server*/, const char* target, MHD_Connection* library)
{
    if (HttpConnection* connection = connectionOf(library))
        connection->begin(target);
    return nullptr;
}

MHD_Result handleRequest(void* /*server*/, MHD_Connection* library, const char* /*target*/,
                         const char* method, const char* version, const char* bytes, size_t* size,
                         void** /*request*/)
{
    HttpConnection* connection = connectionOf(library);
    return connection != nullptr ? connection->handle(method, version, bytes, size) : MHD_NO;
}

void completeRequest(void* /*server*/, MHD_Connection* library, void** /*request*/,
                     enum MHD_RequestTerminationCode /*reason*/)
{
    if (HttpConnection* connection = connectionOf(library))
        connection->complete();
}

} // namespace

class HttpServer::Private
{
public:
    Private(const HttpSettings& settings, const Clock& clock, Handler handler, Refusal refusal);
    ~Private();
    Private(const Private&) = delete;
    Private& operator=(const Private&) = delete;

    int port() const { return m_port; }
    HttpCounters counters() const;
    void change(const HttpSettings& settings);
    void retire();
    bool isOver() const { return m_connections.empty(); }

private:
    static void notify(void* server, MHD_Connection* library, void** context,
                       enum MHD_ConnectionNotificationCode code);
    void startLibrary();
    void watch();
    void run();
    void acceptClients();
    void add(int socket, const SocketAddress& peer);
    bool hasRoomFor(const QByteArray& peer, bool isProxy) const;
    void turnAway(int socket);
    void closeTurnedAway(Duration before);
    void handleGone();
    void remove(int socket);
    void tick();
    void finishAll();

    HttpSettings m_settings;
    const Clock& m_clock;
    Handler m_handler;
    Refusal m_refusal;
    HttpCounters m_counters;
    HttpShared m_shared{
        m_settings, m_clock, m_handler, m_refusal, m_counters, [this] { m_soon.start(0); }, {}, 0};
    TlsFiles m_tls;
    std::unique_ptr<TcpListener> m_listener; ///< null when it is retired
    const int m_port;
    MHD_Daemon* m_library = nullptr;
    int m_gone = -1; ///< an epoll descriptor that tells which peers have gone
    std::unordered_map<int, std::shared_ptr<HttpConnection>> m_connections; ///< by their sockets
    QHash<QByteArray, int> m_addresses; ///< how many connections each has
    std::deque<std::pair<int, Duration>> m_turnedAway;
    std::vector<std::unique_ptr<QSocketNotifier>> m_notifiers;
    QTimer m_soon;
    QTimer m_tick;
};

HttpServer::Private::Private(const HttpSettings& settings, const Clock& clock, Handler handler,
                             Refusal refusal)
    : m_settings(settings), m_clock(clock), m_handler(std::move(handler)),
      m_refusal(refusal ? std::move(refusal) : plainRefusal),
      m_tls(settings.certificateFile.isEmpty()
                ? TlsFiles()
                : TlsFiles::read(settings.certificateFile, settings.keyFile)),
      m_listener(std::make_unique<TcpListener>(settings.address, settings.port)),
      m_port(m_listener->port())
{
    m_shared.proxies = proxiesOf(settings);
    m_gone = ::epoll_create1(EPOLL_CLOEXEC);
    startLibrary();
    watch();
}

void HttpServer::Private::startLibrary()
{
    const bool isEncrypted = !m_tls.certificate.isEmpty();
    unsigned flags = MHD_USE_EPOLL | MHD_USE_NO_LISTEN_SOCKET | MHD_ALLOW_SUSPEND_RESUME;
    if (isEncrypted)
        flags |= MHD_USE_TLS;
    std::vector<MHD_OptionItem> options{
        {MHD_OPTION_UNESCAPE_CALLBACK, reinterpret_cast<intptr_t>(keepEscapes), nullptr},
        {MHD_OPTION_URI_LOG_CALLBACK, reinterpret_cast<intptr_t>(beginRequest), nullptr},
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(completeRequest), nullptr},
        {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(&Private::notify), this},
        {MHD_OPTION_CONNECTION_LIMIT, static_cast<intptr_t>(kMostOfLibrary), nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<intptr_t>(kConnectionMemory), nullptr},
        {MHD_OPTION_STRICT_FOR_CLIENT, 1, nullptr}};
    if (isEncrypted) {
        options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, m_tls.certificate.data()});
        options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, m_tls.key.data()});
        options.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(kPriorities)});
    }
    options.push_back({MHD_OPTION_END, 0, nullptr});
    m_library = MHD_start_daemon(flags, 0, nullptr, nullptr, handleRequest, nullptr,
                                 MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
    if (m_library == nullptr) {
        ::close(m_gone);
        throw UserError("web: the server cannot start (check the limit of open files)",
                        kExitRefused);
    }
}

void HttpServer::Private::watch()
{
    const auto add = [this](int descriptor, void (Private::*handle)()) {
        auto notifier = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
        QObject::connect(notifier.get(), &QSocketNotifier::activated,
                         [this, handle] { (this->*handle)(); });
        m_notifiers.push_back(std::move(notifier));
    };
    add(m_listener->descriptor(), &Private::acceptClients);
    add(m_gone, &Private::handleGone);
    add(MHD_get_daemon_info(m_library, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd, &Private::run);
    m_soon.setSingleShot(true);
    QObject::connect(&m_soon, &QTimer::timeout, [this] { run(); });
    QObject::connect(&m_tick, &QTimer::timeout, [this] { tick(); });
}

HttpServer::Private::~Private()
{
    m_notifiers.clear();
    const int kMostTurns = 32;
    finishAll();
    const auto isAnswering = [](const auto& each) { return each.second->isAnswering(); };
    for (int turn = 0; turn < kMostTurns; ++turn) {
        if (std::none_of(m_connections.begin(), m_connections.end(), isAnswering))
            break;
        MHD_run(m_library);
    }
    for (const auto& [socket, connection] : m_connections)
        connection->close();
    MHD_run(m_library);
    MHD_stop_daemon(m_library);
    ::close(m_gone);
    closeTurnedAway(Duration::max());
}

HttpCounters HttpServer::Private::counters() const
{
    HttpCounters counters = m_counters;
    counters.connections = static_cast<qint64>(m_connections.size());
    return counters;
}

// The library asks to be called again at once, or waits for its descriptor.
void HttpServer::Private::run()
{
    ++m_counters.turns;
    MHD_run(m_library);
    MHD_UNSIGNED_LONG_LONG milliseconds = 0;
    if (MHD_get_timeout(m_library, &milliseconds) == MHD_YES)
        m_soon.start(static_cast<int>(std::min<MHD_UNSIGNED_LONG_LONG>(milliseconds, 1000)));
}

void HttpServer::Private::acceptClients()
{
    const int kMostNew = 32; // the lines have their turn between them
    for (int i = 0; i < kMostNew; ++i) {
        SocketAddress peer;
        const int socket = m_listener->accept(peer);
        if (socket < 0)
            break;
        add(socket, peer);
    }
    m_soon.start(0);
}

void HttpServer::Private::add(int socket, const SocketAddress& peer)
{
    ++m_counters.accepted;
    if (!m_tick.isActive())
        m_tick.start(kTickMs);
    const auto connection =
        std::make_shared<HttpConnection>(m_shared, socket, addressText(peer.address));
    if (!hasRoomFor(connection->peer(), connection->isOfProxy())) {
        ++m_counters.refused;
        turnAway(socket);
        return;
    }
    m_connections[socket] = connection;
    ++m_addresses[connection->peer()];
    epoll_event event{};
    event.events = EPOLLRDHUP | EPOLLET;
    event.data.fd = socket;
    ::epoll_ctl(m_gone, EPOLL_CTL_ADD, socket, &event);
    // The library closes the socket when it does not take it.
    const auto* address = reinterpret_cast<const sockaddr*>(&peer.address);
    if (MHD_add_connection(m_library, socket, address, peer.size) != MHD_YES)
        remove(socket);
}

bool HttpServer::Private::hasRoomFor(const QByteArray& peer, bool isProxy) const
{
    if (m_connections.size() >= static_cast<std::size_t>(m_settings.mostConnections))
        return false;
    return isProxy || m_addresses.value(peer) < m_settings.mostPerAddress;
}

// It stays for a moment: what the peer has sent already would end it before the peer reads why.
void HttpServer::Private::turnAway(int socket)
{
    if (m_tls.certificate.isEmpty()) {
        const QByteArray bytes =
            turnAwayBytes(m_refusal(503, "too many connections are open already"));
        const auto size = static_cast<std::size_t>(bytes.size());
        const ssize_t ignored = ::send(socket, bytes.constData(), size, MSG_NOSIGNAL);
        static_cast<void>(ignored); // its buffer is empty, or the client is gone
    }
    ::shutdown(socket, SHUT_WR);
    m_turnedAway.emplace_back(socket, m_clock.now());
    if (m_turnedAway.size() > kMostTurnedAway)
        closeTurnedAway(m_turnedAway.front().second);
}

void HttpServer::Private::closeTurnedAway(Duration before)
{
    while (!m_turnedAway.empty() &&
           (m_turnedAway.front().second <= before || m_turnedAway.size() > kMostTurnedAway))
    {
        ::close(m_turnedAway.front().first);
        m_turnedAway.pop_front();
    }
}

void HttpServer::Private::handleGone()
{
    ++m_counters.turns;
    std::array<epoll_event, 64> events{};
    const int count = ::epoll_wait(m_gone, events.data(), static_cast<int>(events.size()), 0);
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        const auto found = m_connections.find(event.data.fd);
        if (found != m_connections.end())
            found->second->handleGone((event.events & (EPOLLHUP | EPOLLERR)) != 0);
    }
}

void HttpServer::Private::notify(void* server, MHD_Connection* library, void** context,
                                 enum MHD_ConnectionNotificationCode code)
{
    auto& self = *static_cast<Private*>(server);
    const int socket =
        MHD_get_connection_info(library, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
        *context = nullptr;
        self.remove(socket);
        return;
    }
    const auto found = self.m_connections.find(socket);
    if (found == self.m_connections.end())
        return;
    found->second->setLibrary(library);
    *context = found->second.get();
}

void HttpServer::Private::remove(int socket)
{
    const auto found = m_connections.find(socket);
    if (found == m_connections.end())
        return;
    const auto address = m_addresses.find(found->second->peer());
    if (address != m_addresses.end() && --*address == 0)
        m_addresses.erase(address);
    m_connections.erase(found);
}

void HttpServer::Private::tick()
{
    for (const auto& [socket, connection] : m_connections)
        connection->checkTimes();
    closeTurnedAway(m_clock.now() - kTurnedAwayFor);
    if (m_connections.empty() && m_turnedAway.empty())
        m_tick.stop();
}

void HttpServer::Private::change(const HttpSettings& settings)
{
    std::set<QByteArray> proxies = proxiesOf(settings);
    m_shared.proxies.swap(proxies);
    m_settings = settings;
}

void HttpServer::Private::finishAll()
{
    for (const auto& [socket, connection] : m_connections)
        connection->finish();
}

void HttpServer::Private::retire()
{
    if (!m_listener)
        return;
    m_notifiers.erase(m_notifiers.begin()); // of the listener
    m_listener.reset();
    finishAll();
    m_soon.start(0);
}

HttpServer::HttpServer(const HttpSettings& settings, const Clock& clock, Handler handler,
                       Refusal refusal)
    : m_private(std::make_unique<Private>(settings, clock, std::move(handler), std::move(refusal)))
{
}

HttpServer::~HttpServer() = default;

void HttpServer::change(const HttpSettings& settings)
{
    m_private->change(settings);
}

void HttpServer::retire()
{
    m_private->retire();
}

bool HttpServer::isOver() const
{
    return m_private->isOver();
}

int HttpServer::port() const
{
    return m_private->port();
}

HttpCounters HttpServer::counters() const
{
    return m_private->counters();
}

} // namespace micro850::gateway
