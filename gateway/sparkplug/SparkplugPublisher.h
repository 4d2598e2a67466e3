#ifndef MICRO850_GATEWAY_SPARKPLUG_SPARKPLUGPUBLISHER_H
#define MICRO850_GATEWAY_SPARKPLUG_SPARKPLUGPUBLISHER_H

#include "Publisher.h"

#include <memory>

namespace micro850::gateway {

/// An edge node of Sparkplug B 3.0 with a device for each station.
class SparkplugPublisher : public Publisher
{
public:
    /// `needs` must outlive it.
    SparkplugPublisher(const SparkplugSettings& settings, PublisherNeeds& needs);
    ~SparkplugPublisher() override;

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
