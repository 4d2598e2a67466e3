#include "ChildMessage.h"

#include "UserError.h"

namespace micro850::gateway {

using host::Json;

QString textIn(const Json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string())
        throw UserError(std::string(key) + " is no text");
    return QString::fromStdString(found->get<std::string>());
}

qint64 numberIn(const Json& object, const char* key, qint64 most)
{
    const auto found = object.find(key);
    if (found == object.end() || !found->is_number_integer() || *found < 0 || *found > most)
        throw UserError(std::string(key) + " is no number");
    return found->get<qint64>();
}

QString secondsText(Duration time)
{
    return QString::number(static_cast<double>(wholeMilliseconds(time)) / 1000);
}

} // namespace micro850::gateway
