#include "WebSettings.h"

#include <tuple>

namespace micro850::gateway {

namespace {

auto fieldsOf(const WebSettings& settings)
{
    return std::tie(settings.isOn, settings.hosts, settings.tokenFile, settings.takesWrites);
}

} // namespace

// All of 127.0.0.0/8 is this machine.
bool WebSettings::isOpen() const
{
    return !http.address.startsWith(QLatin1String("127.")) && http.address != QLatin1String("::1");
}

bool WebSettings::operator==(const WebSettings& other) const
{
    return fieldsOf(*this) == fieldsOf(other) && http == other.http;
}

} // namespace micro850::gateway
