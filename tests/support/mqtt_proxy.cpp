#include "mqtt_proxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace {

// More waits in the sockets.
const size_t kMostBuffered = 1024 * 1024;

enum PacketType { Connect = 1, Publish = 3, PublishAcknowledged = 4 };

sockaddr_in loopBack(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int typeOf(const std::string& packet)
{
    return static_cast<unsigned char>(packet[0]) >> 4;
}

int word(const std::string& bytes, size_t at)
{
    return at + 2 <= bytes.size() ? static_cast<unsigned char>(bytes[at]) * 256 +
                                        static_cast<unsigned char>(bytes[at + 1])
                                  : 0;
}

// A number of seven bits in each byte; moves `at` behind it. False when its end is not there yet.
bool takeNumber(const std::string& bytes, size_t& at, size_t& number)
{
    number = 0;
    for (int shift = 0; shift < 28; shift += 7) {
        if (at >= bytes.size())
            return false;
        const auto byte = static_cast<unsigned char>(bytes[at++]);
        number |= static_cast<size_t>(byte & 0x7f) << shift;
        if (byte < 0x80)
            return true;
    }
    return true;
}

// Takes the first whole packet from the bytes; empty when there is none.
std::string takePacket(std::string& bytes)
{
    size_t at = 1;
    size_t length = 0;
    if (bytes.empty() || !takeNumber(bytes, at, length) || bytes.size() < at + length)
        return {};
    std::string packet = bytes.substr(0, at + length);
    bytes.erase(0, at + length);
    return packet;
}

size_t bodyOf(const std::string& packet)
{
    size_t at = 1;
    size_t length = 0;
    takeNumber(packet, at, length);
    return at;
}

void breakOff(int socket)
{
    const linger atOnce = {1, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    ::close(socket);
}

} // namespace

struct MqttProxy::Connection
{
    /// One of its two sockets, and what came from there.
    struct Side
    {
        int socket = -1;
        std::string in;  ///< not cut into packets yet
        std::string out; ///< for the other side
    };
    Side client;
    Side broker;
    int number = 0;
    bool isVersion5 = false;
    bool isOver = false;
    std::map<int, Published> pending; ///< by packet identifier
};

MqttProxy::MqttProxy(int brokerPort) : m_brokerPort(brokerPort)
{
    m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address = loopBack(0);
    socklen_t size = sizeof address;
    if (::bind(m_listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        ::listen(m_listener, 256) != 0 ||
        ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        throw std::runtime_error("no listener on the loop-back address");
    m_port = ntohs(address.sin_port);
    m_wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_thread = std::thread([this] { run(); });
}

MqttProxy::~MqttProxy()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ends = true;
    }
    wake();
    m_thread.join();
    for (const Connection& connection : m_connections) {
        ::close(connection.client.socket);
        ::close(connection.broker.socket);
    }
    ::close(m_listener);
    ::close(m_wake);
}

void MqttProxy::wake()
{
    ::eventfd_write(m_wake, 1);
}

void MqttProxy::cut()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (Connection& connection : m_connections)
        connection.isOver = true;
    wake();
}

void MqttProxy::refuse(bool refuses)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_refuses = refuses;
}

void MqttProxy::stall(bool stalls)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stalls = stalls;
    wake();
}

void MqttProxy::dropAcknowledgements(bool drops)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_dropsAcknowledgements = drops;
}

void MqttProxy::cutInAcknowledgementAfter(int count)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_cutAfter = count;
}

std::vector<MqttProxy::Published> MqttProxy::published() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_published;
}

std::vector<MqttProxy::Published> MqttProxy::acknowledged() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_acknowledged;
}

int MqttProxy::connections() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_count;
}

int MqttProxy::openConnections() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(m_connections.size());
}

// `done` asks this object, which takes the lock itself.
bool MqttProxy::waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) const
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::milliseconds(20));
    }
    return true;
}

void MqttProxy::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_ends) {
        std::vector<pollfd> polled = {{m_wake, POLLIN, 0}, {m_listener, POLLIN, 0}};
        for (const Connection& connection : m_connections) {
            const auto wanted = [&](const Connection::Side& from, const Connection::Side& to) {
                return static_cast<short>((from.out.size() < kMostBuffered ? POLLIN : 0) |
                                          (to.out.empty() ? 0 : POLLOUT));
            };
            if (m_stalls)
                continue;
            polled.push_back(
                {connection.client.socket, wanted(connection.client, connection.broker), 0});
            polled.push_back(
                {connection.broker.socket, wanted(connection.broker, connection.client), 0});
        }
        lock.unlock();
        ::poll(polled.data(), polled.size(), -1);
        lock.lock();
        eventfd_t ignored = 0;
        ::eventfd_read(m_wake, &ignored);
        accept();
        for (auto at = m_connections.begin(); at != m_connections.end();) {
            if (!m_stalls && !at->isOver && (!pass(*at, true) || !pass(*at, false)))
                at->isOver = true;
            if (!at->isOver) {
                ++at;
                continue;
            }
            breakOff(at->client.socket);
            breakOff(at->broker.socket);
            at = m_connections.erase(at);
        }
        m_changed.notify_all();
    }
}

void MqttProxy::accept()
{
    for (;;) {
        const int client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (client < 0)
            return;
        const int broker = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = loopBack(m_brokerPort);
        if (m_refuses ||
            ::connect(broker, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        {
            ::close(broker);
            breakOff(client);
            continue;
        }
        m_connections.emplace_back();
        m_connections.back().client.socket = client;
        m_connections.back().broker.socket = broker;
        m_connections.back().number = ++m_count;
    }
}

// Reads from one side and writes to the other. False when either is over.
bool MqttProxy::pass(Connection& connection, bool isFromClient)
{
    Connection::Side& from = isFromClient ? connection.client : connection.broker;
    const Connection::Side& to = isFromClient ? connection.broker : connection.client;
    std::array<char, 65536> buffer;
    bool isOpen = true;
    if (from.out.size() < kMostBuffered) {
        const ssize_t got = ::recv(from.socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (got > 0)
            from.in.append(buffer.data(), static_cast<size_t>(got));
        isOpen = got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
    }
    if (isFromClient)
        readFromClient(connection, from.out);
    else
        readFromBroker(connection, from.out);
    while (!from.out.empty()) {
        const ssize_t sent =
            ::send(to.socket, from.out.data(), from.out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0)
            return isOpen && (errno == EAGAIN || errno == EINTR);
        from.out.erase(0, static_cast<size_t>(sent));
    }
    return isOpen && !connection.isOver;
}

void MqttProxy::readFromClient(Connection& connection, std::string& out)
{
    for (std::string packet; !(packet = takePacket(connection.client.in)).empty(); out += packet) {
        size_t at = bodyOf(packet);
        if (typeOf(packet) == Connect)
            connection.isVersion5 = packet.size() > at + 6 && packet[at + 6] == 5;
        if (typeOf(packet) != Publish)
            continue;
        Published message;
        message.qos = (packet[0] >> 1) & 3;
        message.isDuplicate = (packet[0] & 8) != 0;
        message.isRetained = (packet[0] & 1) != 0;
        message.connection = connection.number;
        const auto topicSize = static_cast<size_t>(word(packet, at));
        message.topic = packet.substr(at + 2, topicSize);
        at += 2 + topicSize;
        const int identifier = word(packet, at);
        if (message.qos > 0)
            at += 2;
        size_t properties = 0;
        if (connection.isVersion5)
            takeNumber(packet, at, properties);
        message.payload = packet.substr(std::min(packet.size(), at + properties));
        m_published.push_back(message);
        if (message.qos == 1)
            connection.pending[identifier] = message;
    }
}

void MqttProxy::readFromBroker(Connection& connection, std::string& out)
{
    for (std::string packet;
         !connection.isOver && !(packet = takePacket(connection.broker.in)).empty();)
    {
        if (typeOf(packet) == PublishAcknowledged) {
            if (m_dropsAcknowledgements)
                continue;
            if (m_cutAfter == 0) {
                const std::string half = packet.substr(0, 2);
                ::send(connection.client.socket, half.data(), half.size(),
                       MSG_DONTWAIT | MSG_NOSIGNAL);
                connection.isOver = true;
                m_cutAfter = -1;
                return;
            }
            if (m_cutAfter > 0)
                --m_cutAfter;
            const auto found = connection.pending.find(word(packet, bodyOf(packet)));
            if (found != connection.pending.end()) {
                m_acknowledged.push_back(found->second);
                connection.pending.erase(found);
            }
        }
        out += packet;
    }
}
