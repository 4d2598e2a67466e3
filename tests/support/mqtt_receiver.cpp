#include "mqtt_receiver.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace {

const std::chrono::seconds kPatience(30);

} // namespace

// The library calls them on its thread.
struct MqttReceiver::Callbacks
{
    static MqttReceiver& of(void* object) { return *static_cast<MqttReceiver*>(object); }

    static void connected(mosquitto* client, void* object, int code, int /*flags*/,
                          const mosquitto_property* /*properties*/)
    {
        if (code != 0)
            return;
        for (const std::string& topic : of(object).m_settings.topics)
            mosquitto_subscribe(client, nullptr, topic.c_str(), of(object).m_settings.qos);
        if (of(object).m_settings.topics.empty())
            subscribed(client, object, 0, 0, nullptr);
    }

    static void disconnected(mosquitto* /*client*/, void* object, int /*code*/)
    {
        const std::lock_guard<std::mutex> lock(of(object).m_mutex);
        of(object).m_isSubscribed = false;
    }

    static void subscribed(mosquitto* /*client*/, void* object, int /*id*/, int /*count*/,
                           const int* /*granted*/)
    {
        MqttReceiver& receiver = of(object);
        const std::lock_guard<std::mutex> lock(receiver.m_mutex);
        receiver.m_isSubscribed = true;
        ++receiver.m_subscriptions;
        receiver.m_changed.notify_all();
    }

    static void published(mosquitto* /*client*/, void* object, int id)
    {
        MqttReceiver& receiver = of(object);
        const std::lock_guard<std::mutex> lock(receiver.m_mutex);
        receiver.m_published.push_back(id);
        receiver.m_changed.notify_all();
    }

    static void message(mosquitto* /*client*/, void* object, const mosquitto_message* message,
                        const mosquitto_property* properties)
    {
        Message kept;
        kept.topic = message->topic;
        kept.payload.assign(static_cast<const char*>(message->payload),
                            static_cast<size_t>(message->payloadlen));
        kept.qos = message->qos;
        kept.isRetained = message->retain;
        kept.at = std::chrono::steady_clock::now();
        void* bytes = nullptr;
        uint16_t size = 0;
        if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &bytes, &size,
                                           false) != nullptr)
        {
            kept.correlation.assign(static_cast<const char*>(bytes), size);
            std::free(bytes);
        }
        uint32_t expiry = 0;
        if (mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &expiry,
                                          false) != nullptr)
            kept.expirySeconds = expiry;
        MqttReceiver& receiver = of(object);
        const std::lock_guard<std::mutex> lock(receiver.m_mutex);
        receiver.m_messages.push_back(std::move(kept));
        receiver.m_changed.notify_all();
    }
};

MqttReceiver::MqttReceiver(Settings settings) : m_settings(std::move(settings))
{
    static const int isInitialised = mosquitto_lib_init();
    m_client = mosquitto_new(m_settings.clientId.empty() ? nullptr : m_settings.clientId.c_str(),
                             m_settings.hasCleanSession, this);
    if (isInitialised != MOSQ_ERR_SUCCESS || m_client == nullptr)
        throw std::runtime_error("no client for a broker");
    mosquitto_int_option(m_client, MOSQ_OPT_PROTOCOL_VERSION,
                         m_settings.isVersion5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311);
    if (!m_settings.user.empty())
        mosquitto_username_pw_set(m_client, m_settings.user.c_str(), m_settings.password.c_str());
    if (!m_settings.authorities.empty())
        mosquitto_tls_set(m_client, m_settings.authorities.c_str(), nullptr, nullptr, nullptr,
                          nullptr);
    mosquitto_connect_v5_callback_set(m_client, Callbacks::connected);
    mosquitto_disconnect_callback_set(m_client, Callbacks::disconnected);
    mosquitto_subscribe_callback_set(m_client, Callbacks::subscribed);
    mosquitto_publish_callback_set(m_client, Callbacks::published);
    mosquitto_message_v5_callback_set(m_client, Callbacks::message);
    mosquitto_reconnect_delay_set(m_client, 1, 1, false);
    // A session that the broker keeps for a day.
    mosquitto_property* properties = nullptr;
    if (!m_settings.hasCleanSession && m_settings.isVersion5)
        mosquitto_property_add_int32(&properties, MQTT_PROP_SESSION_EXPIRY_INTERVAL, 86400);
    const int error =
        mosquitto_connect_bind_v5(m_client, "localhost", m_settings.port, 60, nullptr, properties);
    mosquitto_property_free_all(&properties);
    if (error != MOSQ_ERR_SUCCESS) {
        mosquitto_destroy(m_client);
        throw std::runtime_error(std::string("a test's client: ") + mosquitto_strerror(error));
    }
    mosquitto_loop_start(m_client);
    if (!waitUntilSubscribed()) {
        mosquitto_loop_stop(m_client, true);
        mosquitto_destroy(m_client);
        throw std::runtime_error("a test's client: no subscription");
    }
}

MqttReceiver::~MqttReceiver()
{
    mosquitto_disconnect(m_client);
    mosquitto_loop_stop(m_client, true);
    mosquitto_destroy(m_client);
}

MqttReceiver::Messages MqttReceiver::messages() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
}

size_t MqttReceiver::count() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages.size();
}

bool MqttReceiver::waitFor(const std::function<bool(const Messages&)>& done,
                           std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, limit, [&] { return done(m_messages); });
}

MqttReceiver::Message MqttReceiver::messageOn(const std::string& topic, size_t from,
                                              std::chrono::milliseconds limit) const
{
    Message found;
    const auto look = [&](const Messages& messages) {
        for (size_t i = from; i < messages.size(); ++i) {
            if (messages[i].topic == topic) {
                found = messages[i];
                return true;
            }
        }
        return false;
    };
    if (!waitFor(look, limit))
        throw std::runtime_error("no message came on " + topic);
    return found;
}

void MqttReceiver::clear()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_messages.clear();
}

bool MqttReceiver::waitUntilSubscribed(std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, limit, [&] { return m_isSubscribed; });
}

int MqttReceiver::subscriptions() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_subscriptions;
}

void MqttReceiver::publish(const Message& message)
{
    mosquitto_property* properties = nullptr;
    if (!message.correlation.empty())
        mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA,
                                      message.correlation.data(),
                                      static_cast<uint16_t>(message.correlation.size()));
    if (message.expirySeconds)
        mosquitto_property_add_int32(&properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                     *message.expirySeconds);
    int id = 0;
    const int error = mosquitto_publish_v5(
        m_client, &id, message.topic.c_str(), static_cast<int>(message.payload.size()),
        message.payload.data(), message.qos, message.isRetained, properties);
    mosquitto_property_free_all(&properties);
    if (error != MOSQ_ERR_SUCCESS)
        throw std::runtime_error(std::string("a test's client: ") + mosquitto_strerror(error));
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool done = m_changed.wait_for(lock, kPatience, [&] {
        return std::find(m_published.begin(), m_published.end(), id) != m_published.end();
    });
    m_published.erase(std::remove(m_published.begin(), m_published.end(), id), m_published.end());
    if (!done)
        throw std::runtime_error("a test's client: the broker does not acknowledge");
}

void MqttReceiver::publish(const std::string& topic, const std::string& payload, int qos,
                           bool isRetained)
{
    Message message;
    message.topic = topic;
    message.payload = payload;
    message.qos = qos;
    message.isRetained = isRetained;
    publish(message);
}
