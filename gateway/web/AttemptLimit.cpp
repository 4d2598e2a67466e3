#include "AttemptLimit.h"

#include <arpa/inet.h>

#include <algorithm>

namespace micro850::gateway {

namespace {

const int kFreeAttempts = 3;
const int kMostDoublings = 6;
const std::chrono::seconds kLongestWait(60);
const std::chrono::minutes kMemory(10);

} // namespace

// Who has one address of IPv6 usually has a whole network of 64 bits.
QByteArray AttemptLimit::keyOf(const QByteArray& address)
{
    in6_addr six = {};
    if (::inet_pton(AF_INET6, address.constData(), &six) != 1)
        return address;
    return QByteArray("net ") +
           QByteArray(reinterpret_cast<const char*>(&six), sizeof six / 2); // NOLINT
}

Duration AttemptLimit::wait(const QByteArray& address) const
{
    const auto found = m_accounts.constFind(keyOf(address));
    if (found == m_accounts.constEnd())
        return Duration(0);
    return std::max(found->until - m_clock.now(), Duration(0));
}

void AttemptLimit::noteWrong(const QByteArray& address)
{
    const QByteArray key = keyOf(address);
    const Duration now = m_clock.now();
    if (!m_accounts.contains(key))
        makeRoom();
    Account& account = m_accounts[key];
    if (now - account.last >= kMemory)
        account.wrong = 0;
    account.last = now;
    ++account.wrong;
    if (account.wrong < kFreeAttempts)
        return;
    const int doublings = std::min(account.wrong - kFreeAttempts, kMostDoublings);
    account.until = now + std::min(std::chrono::seconds(1 << doublings), kLongestWait);
}

void AttemptLimit::makeRoom()
{
    if (m_accounts.size() < kMostAddresses)
        return;
    const auto oldest =
        std::min_element(m_accounts.begin(), m_accounts.end(),
                         [](const Account& a, const Account& b) { return a.last < b.last; });
    m_accounts.erase(oldest);
}

} // namespace micro850::gateway
