#include "Publishers.h"

#include "JsonPublisher.h"
#include "SparkplugPublisher.h"
#include "UserError.h"
#include "VisibleText.h"

namespace micro850::gateway {

std::unique_ptr<Publisher> makePublisher(const QString& kind, const host::Json& settings,
                                         PublisherNeeds& needs)
{
    if (kind == QLatin1String("mqtt"))
        return std::make_unique<JsonPublisher>(mqttSettingsOf(settings), needs);
    if (kind == QLatin1String("sparkplug"))
        return std::make_unique<SparkplugPublisher>(sparkplugSettingsOf(settings), needs);
    throw UserError("kind: " + inQuotes(kind.toStdString()) + " is unknown");
}

} // namespace micro850::gateway
