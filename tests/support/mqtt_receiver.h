#ifndef MICRO850_TESTS_MQTT_RECEIVER_H
#define MICRO850_TESTS_MQTT_RECEIVER_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct mosquitto;

/// A client of a broker that keeps every message that comes, in order, and publishes what a test
/// tells it. It runs on a thread of its own, and connects again when its connection is cut.
class MqttReceiver
{
public:
    struct Settings
    {
        int port = 1883;
        std::vector<std::string> topics = {"#"};
        int qos = 1;
        bool isVersion5 = true;
        std::string clientId; ///< empty: a random one
        /// False: the broker keeps the subscriptions, and messages of QoS 1, while it is away. Such
        /// a client needs an id.
        bool hasCleanSession = true;
        std::string user;
        std::string password;
        std::string authorities; ///< file of certificates; empty: not encrypted
    };
    struct Message
    {
        std::string topic;
        std::string payload;
        int qos = 0;
        bool isRetained = false;
        std::string correlation;
        std::optional<uint32_t> expirySeconds;
        std::chrono::steady_clock::time_point at;
    };
    using Messages = std::vector<Message>;

    /// Waits until the topics are subscribed. Throws std::runtime_error.
    explicit MqttReceiver(Settings settings);
    ~MqttReceiver();
    MqttReceiver(const MqttReceiver&) = delete;
    MqttReceiver& operator=(const MqttReceiver&) = delete;

    /// All that came, in order.
    Messages messages() const;
    size_t count() const;
    /// Waits until `done` is true of what came; it is asked again whenever a message comes. False
    /// when that takes longer than `limit`.
    bool waitFor(const std::function<bool(const Messages&)>& done,
                 std::chrono::milliseconds limit = std::chrono::seconds(30)) const;
    /// The first message on a topic at the position `from` or later; waits for it. Throws
    /// std::runtime_error when none comes within `limit`.
    Message messageOn(const std::string& topic, size_t from = 0,
                      std::chrono::milliseconds limit = std::chrono::seconds(30)) const;
    void clear();

    /// Waits until the topics are subscribed on the connection that it has now.
    bool waitUntilSubscribed(std::chrono::milliseconds limit = std::chrono::seconds(30)) const;
    /// How often the topics were subscribed: 1, and 1 more for each connection.
    int subscriptions() const;

    /// Publishes and waits until the broker has it (QoS 1 and 2), or it is on its way (QoS 0).
    /// Throws std::runtime_error. Of `message` the topic, payload, qos, isRetained, correlation and
    /// expirySeconds count.
    void publish(const Message& message);
    void publish(const std::string& topic, const std::string& payload, int qos = 1,
                 bool isRetained = false);

private:
    struct Callbacks;
    friend struct Callbacks;

    Settings m_settings;
    mosquitto* m_client = nullptr;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    Messages m_messages;
    bool m_isSubscribed = false;
    int m_subscriptions = 0;
    std::vector<int> m_published;
};

#endif
