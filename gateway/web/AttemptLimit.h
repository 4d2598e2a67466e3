#ifndef MICRO850_GATEWAY_WEB_ATTEMPTLIMIT_H
#define MICRO850_GATEWAY_WEB_ATTEMPTLIMIT_H

#include "Clock.h"

#include <QtCore/QByteArray>
#include <QtCore/QMap>

namespace micro850::gateway {

/// Slows down who shows wrong tokens, for each address by itself: after three, a further one has to
/// wait for 1 s, then for 2 s, and so on up to 60 s. A right one does not wait, since others may
/// have the same address, and nobody guesses a token of 256 bits. One between two waits clears the
/// account; so do ten minutes without a wrong one.
class AttemptLimit
{
public:
    /// The clock must outlive it.
    explicit AttemptLimit(const Clock& clock) : m_clock(clock) {}

    /// How long the address has to wait before its next wrong token is answered so; 0: not at all.
    Duration wait(const QByteArray& address) const;
    void noteWrong(const QByteArray& address);
    void noteRight(const QByteArray& address) { m_accounts.remove(keyOf(address)); }

    /// More addresses are not remembered; the one that was wrong longest ago is forgotten.
    static constexpr int kMostAddresses = 1024;

private:
    struct Account
    {
        int wrong = 0;
        Duration last{0};
        Duration until{0};
    };

    static QByteArray keyOf(const QByteArray& address);
    void makeRoom();

    const Clock& m_clock;
    QMap<QByteArray, Account> m_accounts;
};

} // namespace micro850::gateway

#endif
