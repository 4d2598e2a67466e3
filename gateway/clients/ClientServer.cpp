#include "ClientServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <vector>

namespace micro850::gateway {

struct ClientServer::Connection
{
    explicit Connection(int descriptor)
        : socket(descriptor), input(descriptor, QSocketNotifier::Read),
          output(descriptor, QSocketNotifier::Write)
    {
        output.setEnabled(false);
    }
    ~Connection()
    {
        input.setEnabled(false);
        output.setEnabled(false);
        ::close(socket);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int socket;
    std::shared_ptr<Client> client;
    QSocketNotifier input;
    QSocketNotifier output;
};

namespace {

const int kMostAtOnce = 64 * 1024;

// The program's name as the system has it: any bytes.
QString programOf(int pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(file, name);
    return QString::fromStdString(name);
}

Peer peerOf(int socket)
{
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return Peer();
    return {static_cast<int>(credentials.uid), static_cast<int>(credentials.pid),
            programOf(credentials.pid)};
}

void turnAway(int socket, int most)
{
    const QByteArray line = host::lineOf(host::errorReply(
        Json(), errorcode::kBusy, std::to_string(most) + " clients are connected already"));
    const auto size = static_cast<std::size_t>(line.size());
    const ssize_t ignored = ::send(socket, line.constData(), size, MSG_NOSIGNAL | MSG_DONTWAIT);
    static_cast<void>(ignored); // its buffer is empty, or the client is gone
    ::close(socket);
}

} // namespace

ClientServer::ClientServer(const ClientNeeds& needs, const ClientSettings& settings)
    : m_context(needs)
{
    listen(settings);
    m_context.schedule = [this] { schedule(); };
    m_soon.setSingleShot(true);
    m_soon.setInterval(0);
    QObject::connect(&m_soon, &QTimer::timeout, [this] { proceedAll(); });
    m_second.setInterval(1000);
    QObject::connect(&m_second, &QTimer::timeout, [this] { handleSecond(); });
    m_second.start();
    m_context.lines.addListener(*this);
}

ClientServer::~ClientServer()
{
    m_context.lines.removeListener(*this);
    m_connections.clear();
}

void ClientServer::listen(const ClientSettings& settings)
{
    if (!m_listening || m_listening->path() != settings.path) {
        auto listening = std::make_unique<ListeningSocket>(settings.path);
        m_accept =
            std::make_unique<QSocketNotifier>(listening->descriptor(), QSocketNotifier::Read);
        m_listening = std::move(listening);
        QObject::connect(m_accept.get(), &QSocketNotifier::activated, [this] { acceptClients(); });
    }
    m_settings = settings;
}

void ClientServer::change(const ClientSettings& settings)
{
    listen(settings);
}

void ClientServer::acceptClients()
{
    const int kMostNew = 32; // the lines have their turn between them
    for (int i = 0; i < kMostNew; ++i) {
        const int socket = m_listening->accept();
        if (socket < 0)
            return;
        if (size() >= m_settings.mostClients)
            turnAway(socket, m_settings.mostClients);
        else
            add(socket);
    }
}

void ClientServer::add(int socket)
{
    auto owned = std::make_unique<Connection>(socket);
    Connection& connection = *owned;
    connection.client =
        std::make_shared<Client>(m_context, peerOf(socket), [socket](host::OutputBuffer& output) {
            return output.sendTo(socket);
        });
    QObject::connect(&connection.input, &QSocketNotifier::activated,
                     [this, &connection] { receive(connection); });
    QObject::connect(&connection.output, &QSocketNotifier::activated, [this, &connection] {
        connection.client->proceed();
        watch(connection);
    });
    m_connections[socket] = std::move(owned);
    m_context.clients = size();
    connection.client->begin();
    watch(connection);
}

void ClientServer::receive(Connection& connection)
{
    std::array<char, kMostAtOnce> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init)
    const ssize_t got = ::recv(connection.socket, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (got > 0)
        connection.client->receive(bytes.data(), static_cast<int>(got));
    else if (got == 0 || (errno != EAGAIN && errno != EINTR))
        connection.client->close();
    watch(connection);
}

// A notifier must not be destroyed while it calls: clients that are over are removed soon.
void ClientServer::watch(Connection& connection)
{
    const Client& client = *connection.client;
    connection.input.setEnabled(client.wantsInput());
    connection.output.setEnabled(client.wantsToProceed());
    if (client.isOver()) {
        m_anyOver = true;
        schedule();
    }
}

void ClientServer::schedule()
{
    if (!m_soon.isActive())
        m_soon.start();
}

void ClientServer::handleValue(int line, int variable)
{
    const int number = m_context.index.numberOf(line, variable);
    for (const auto& [socket, connection] : m_connections)
        connection->client->prepareChange(number);
    m_context.texts.forget(number);
    bool added = false;
    for (const auto& [socket, connection] : m_connections)
        added = connection->client->addChange(number) || added;
    if (!added)
        return;
    m_context.texts.text(number);
    schedule();
}

void ClientServer::handleEvent(const LineEvent& event)
{
    for (const auto& [socket, connection] : m_connections)
        connection->client->addEvent(event);
    schedule();
}

void ClientServer::handleReload()
{
    m_context.index.rebuild();
    m_context.texts.reset();
    for (const auto& [socket, connection] : m_connections)
        connection->client->handleReload();
    schedule();
}

// A client whose socket is full waits for its notifier.
void ClientServer::proceedAll()
{
    for (const auto& [socket, connection] : m_connections) {
        if (connection->client->isReady())
            connection->client->proceed();
        watch(*connection);
    }
    if (m_anyOver)
        removeOver();
}

void ClientServer::removeOver()
{
    m_anyOver = false;
    for (auto it = m_connections.begin(); it != m_connections.end();)
        it = it->second->client->isOver() ? m_connections.erase(it) : std::next(it);
    m_context.clients = size();
}

void ClientServer::handleSecond()
{
    std::vector<QByteArray> ages(static_cast<std::size_t>(m_context.index.size()));
    const auto age = [&](int number) {
        QByteArray& text = ages[static_cast<std::size_t>(number)];
        if (text.isEmpty()) {
            const VariablePlace& at = m_context.index.place(number);
            const qint64 ms = m_context.lines.ageMs(at.line, at.variable);
            const Json object = {{"line", m_context.index.line(number).name.toStdString()},
                                 {"name", m_context.index.variable(number).name.toStdString()},
                                 {"ageMs", ms < 0 ? Json() : Json(ms)}};
            text = host::lineOf(object);
            text.chop(1);
        }
        return text;
    };
    for (const auto& [socket, connection] : m_connections) {
        connection->client->checkTimes();
        connection->client->sendAges(age);
        watch(*connection);
    }
    if (m_anyOver)
        removeOver();
}

} // namespace micro850::gateway
