#include "Publishers.h"

#include "JsonPublisher.h"
#include "SparkplugPublisher.h"
#include "UserError.h"
#include "VisibleText.h"

namespace micro850::gateway {

std::unique_ptr<Publisher> makePublisher([[maybe_unused]] const QString& kind,
                                         [[maybe_unused]] const host::Json& settings,
                                         [[maybe_unused]] PublisherNeeds& needs)
{
#if __has_include("delivery/MqttConnection.cpp")
    if (kind == QLatin1String("mqtt"))
        return std::make_unique<JsonPublisher>(mqttSettingsOf(settings), needs);
    if (kind == QLatin1String("sparkplug"))
        return std::make_unique<SparkplugPublisher>(sparkplugSettingsOf(settings), needs);
#endif
    throw UserError("kind: " + inQuotes(kind.toStdString()) + " is unknown");
}

} // namespace micro850::gateway
