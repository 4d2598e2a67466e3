#ifndef MICRO850_TESTS_MQTT_PROXY_H
#define MICRO850_TESTS_MQTT_PROXY_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// A network between clients and a broker, both on the loop-back address, that a test disturbs. It
/// reads the packets that pass and remembers what the broker acknowledged to a client. It runs on a
/// thread of its own and shares no code with the programs under test.
class MqttProxy
{
public:
    /// A message from a client.
    struct Published
    {
        std::string topic;
        std::string payload;
        int qos = 0;
        bool isDuplicate = false;
        bool isRetained = false;
        int connection = 0; ///< 1 for the first connection through the proxy
    };

    explicit MqttProxy(int brokerPort);
    ~MqttProxy();
    MqttProxy(const MqttProxy&) = delete;
    MqttProxy& operator=(const MqttProxy&) = delete;

    int port() const { return m_port; }

    /// Breaks all connections off. New ones are taken.
    void cut();
    /// While true, new connections are closed at once, as by a broker that is away.
    void refuse(bool refuses);
    /// While true, nothing passes in either direction and no connection is closed: half-open.
    /// What waited passes afterwards.
    void stall(bool stalls);
    /// While true, the broker's acknowledgements of messages (PUBACK) vanish.
    void dropAcknowledgements(bool drops);
    /// Passes so many further acknowledgements, then half of the next one, and breaks its
    /// connection off.
    void cutInAcknowledgementAfter(int count);

    /// Messages of all clients that went to the broker, in order.
    std::vector<Published> published() const;
    /// Messages of QoS 1 whose acknowledgement went to the client as a whole, in that order.
    std::vector<Published> acknowledged() const;
    /// Connections so far, and those that are open.
    int connections() const;
    int openConnections() const;
    /// Waits until `done`; it is asked whenever bytes passed. False after `limit`.
    bool waitFor(const std::function<bool()>& done,
                 std::chrono::milliseconds limit = std::chrono::seconds(30)) const;

private:
    struct Connection;
    void run();
    void accept();
    bool pass(Connection& connection, bool isFromClient);
    void readFromClient(Connection& connection, std::string& out);
    void readFromBroker(Connection& connection, std::string& out);
    void wake();

    int m_brokerPort;
    int m_listener = -1;
    int m_port = 0;
    int m_wake = -1;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::list<Connection> m_connections;
    bool m_ends = false;
    bool m_refuses = false;
    bool m_stalls = false;
    bool m_dropsAcknowledgements = false;
    int m_cutAfter = -1;
    int m_count = 0;
    std::vector<Published> m_published;
    std::vector<Published> m_acknowledged;
    std::thread m_thread;
};

#endif
