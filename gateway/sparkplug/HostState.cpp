#include "HostState.h"

#include "Message.h"

namespace micro850::gateway::sparkplug {

namespace {

struct Told
{
    bool isOnline = false;
    quint64 timestamp = 0;
};

// Nothing for what is no state; a host may add keys.
std::optional<Told> toldBy(const QByteArray& payload)
{
    const int kLongest = 4096;
    if (payload.size() > kLongest)
        return std::nullopt;
    try {
        const host::Json state = host::jsonOf(host::messageIn(payload, "state"));
        const auto online = state.find("online");
        const auto timestamp = state.find("timestamp");
        if (online == state.end() || !online->is_boolean() || timestamp == state.end() ||
            !timestamp->is_number_unsigned())
            return std::nullopt;
        return Told{online->get<bool>(), timestamp->get<quint64>()};
    } catch (const UserError&) {
        return std::nullopt;
    }
}

} // namespace

HostState::News HostState::take(const QByteArray& payload)
{
    const std::optional<Told> told = toldBy(payload);
    if (!told)
        return News::Malformed;
    if (m_timestamp && told->timestamp < *m_timestamp)
        return News::Outdated;
    m_timestamp = told->timestamp;
    if (told->isOnline == m_isOnline)
        return News::None;
    m_isOnline = told->isOnline;
    return m_isOnline ? News::Online : News::Offline;
}

} // namespace micro850::gateway::sparkplug
