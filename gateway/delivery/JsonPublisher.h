#ifndef MICRO850_GATEWAY_DELIVERY_JSONPUBLISHER_H
#define MICRO850_GATEWAY_DELIVERY_JSONPUBLISHER_H

#include "MqttConnection.h"
#include "Publisher.h"

#include <memory>

namespace micro850::gateway {

/// Brings values to a broker as JSON, takes orders, and announces variables for discovery.
class JsonPublisher : public Publisher
{
public:
    /// Makes the connection, which tells `owner` what happens.
    using MakeLink = std::function<std::unique_ptr<MqttLink>(MqttConnection::Owner& owner)>;

    /// `needs` must outlive it.
    JsonPublisher(const MqttSettings& settings, PublisherNeeds& needs);
    JsonPublisher(const MqttSettings& settings, PublisherNeeds& needs, const MakeLink& makeLink);
    ~JsonPublisher() override;

    void setCatalogue(const Catalogue& catalogue) override;
    void handleEvent(const DeliveryEvent& event) override;
    void handleStatus(const host::Json& lines) override;
    void tick() override;
    void stop(Duration limit) override;
    host::Json status() const override;

private:
    class Private;
    std::unique_ptr<Private> m_private;
};

} // namespace micro850::gateway

#endif
