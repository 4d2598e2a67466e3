#ifndef MICRO850_GATEWAY_CLIENTS_CLIENTSERVER_H
#define MICRO850_GATEWAY_CLIENTS_CLIENTSERVER_H

#include "Client.h"
#include "ClientSettings.h"
#include "ListeningSocket.h"

#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <memory>
#include <unordered_map>

namespace micro850::gateway {

/// Serves clients on a Unix socket.
class ClientServer : public LineListener
{
public:
    /// Listens at once. All needs must outlive it. Throws UserError when the socket cannot
    /// be made.
    ClientServer(const ClientNeeds& needs, const ClientSettings& settings);
    /// Lets all clients go, and removes the socket.
    ~ClientServer() override;
    ClientServer(const ClientServer&) = delete;
    ClientServer& operator=(const ClientServer&) = delete;

    /// Settings of a new configuration; clients stay. Throws UserError, and goes on as before, when
    /// another socket cannot be made.
    void change(const ClientSettings& settings);
    const ClientSettings& settings() const { return m_settings; }
    /// The reply to "status" without an id.
    Json status() const { return statusOf(m_context); }
    int size() const { return static_cast<int>(m_connections.size()); }

    void handleValue(int line, int variable) override;
    void handleEvent(const LineEvent& event) override;
    void handleReload() override;

private:
    struct Connection;

    void listen(const ClientSettings& settings);
    void acceptClients();
    void add(int socket);
    void receive(Connection& connection);
    void watch(Connection& connection);
    void schedule();
    void proceedAll();
    void handleSecond();
    void removeOver();

    ClientContext m_context;
    ClientSettings m_settings;
    std::unique_ptr<ListeningSocket> m_listening;
    std::unique_ptr<QSocketNotifier> m_accept;
    std::unordered_map<int, std::unique_ptr<Connection>> m_connections; ///< by their sockets
    QTimer m_soon;   ///< sends what changed, when all that came from the lines is taken in
    QTimer m_second; ///< ages and patience
    bool m_anyOver = false;
};

} // namespace micro850::gateway

#endif
