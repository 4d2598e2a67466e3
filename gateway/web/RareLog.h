#ifndef MICRO850_GATEWAY_WEB_RARELOG_H
#define MICRO850_GATEWAY_WEB_RARELOG_H

#include "Clock.h"

#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <functional>

namespace micro850::gateway {

/// Writes about what others can cause as often as they like: at most one line a minute for each of
/// them, with a count of those between.
class RareLog
{
public:
    using Write = std::function<void(const QString& line)>;

    /// The clock must outlive it. Without `write` nothing is written.
    RareLog(const Clock& clock, Write write);

    /// `who` caused what `text` tells.
    void note(const QByteArray& who, const QString& text);
    /// Writes what was counted for a minute. A timer calls it.
    void tell();

    /// More are written about together.
    static constexpr int kMostAccounts = 64;

private:
    struct Account
    {
        Duration until{0};
        int more = 0; ///< since the last line
        QString text; ///< the last one
    };

    const Clock& m_clock;
    const Write m_write;
    QMap<QByteArray, Account> m_accounts;
    QTimer m_timer;
};

} // namespace micro850::gateway

#endif
