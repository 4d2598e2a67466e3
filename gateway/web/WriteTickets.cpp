#include "WriteTickets.h"

#include "Sessions.h"
#include "TokenFile.h"

#include <algorithm>

namespace micro850::gateway {

constexpr std::chrono::seconds WriteTickets::kLifetime;

// Of who has many, else of all, in the order in which they were given. Those that cannot let
// anything through any more go first. So nobody's checks drive out the tickets of others soon.
void WriteTickets::makeRoomFor(const QByteArray& caller)
{
    const auto isHis = [&](const Ticket& ticket) { return ticket.write.caller == caller; };
    const auto count = std::count_if(m_tickets.begin(), m_tickets.end(), isHis);
    const bool hasMany = count >= kMostOfCaller;
    if (!hasMany && static_cast<int>(m_tickets.size()) < kMost)
        return;
    const Duration now = m_clock.now();
    const auto mayGo = [&](const Ticket& ticket) { return !hasMany || isHis(ticket); };
    auto gone = std::find_if(m_tickets.begin(), m_tickets.end(), [&](const Ticket& ticket) {
        return mayGo(ticket) && (ticket.isUsed || now - ticket.given > kLifetime);
    });
    if (gone == m_tickets.end())
        gone = std::find_if(m_tickets.begin(), m_tickets.end(), mayGo);
    m_tickets.erase(gone);
}

QByteArray WriteTickets::give(const Write& write)
{
    const int kRandomBytes = 24;
    makeRoomFor(write.caller);
    const QByteArray text =
        randomBytes(kRandomBytes)
            .toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
    m_tickets.push_back({text, write, m_clock.now(), false});
    return text;
}

WriteTickets::Use WriteTickets::use(const QByteArray& ticket, const Write& write)
{
    const auto found = std::find_if(m_tickets.begin(), m_tickets.end(), [&](const Ticket& each) {
        return areSame(each.text, ticket) && each.write.caller == write.caller;
    });
    if (found == m_tickets.end())
        return Use::Unknown;
    if (found->isUsed)
        return Use::Used;
    if (m_clock.now() - found->given > kLifetime)
        return Use::TooOld;
    found->isUsed = true;
    return found->write == write ? Use::Good : Use::Another;
}

} // namespace micro850::gateway
