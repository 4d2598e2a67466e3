#include "RareLog.h"

namespace micro850::gateway {

namespace {

const Duration kPause = std::chrono::minutes(1);
const int kTimerMs = 5000;
const char kFurther[] = "further"; // no address

} // namespace

RareLog::RareLog(const Clock& clock, Write write) : m_clock(clock), m_write(std::move(write))
{
    m_timer.setInterval(kTimerMs);
    QObject::connect(&m_timer, &QTimer::timeout, [this] { tell(); });
}

void RareLog::note(const QByteArray& who, const QString& text)
{
    if (!m_write)
        return;
    const bool isFull = m_accounts.size() >= kMostAccounts && !m_accounts.contains(who);
    const QByteArray key = isFull ? QByteArray(kFurther) : who;
    const auto found = m_accounts.find(key);
    if (found != m_accounts.end()) {
        ++found->more;
        found->text = text;
        return;
    }
    m_write(text);
    m_accounts.insert(key, {m_clock.now() + kPause, 0, text});
    m_timer.start();
}

void RareLog::tell()
{
    const Duration now = m_clock.now();
    for (auto account = m_accounts.begin(); account != m_accounts.end();) {
        if (now < account->until) {
            ++account;
            continue;
        }
        if (account->more == 0) {
            account = m_accounts.erase(account);
            continue;
        }
        m_write(QStringLiteral("%1 (%2 times in the last minute)")
                    .arg(account->text)
                    .arg(account->more));
        account->more = 0;
        account->until = now + kPause;
        ++account;
    }
    if (m_accounts.isEmpty())
        m_timer.stop();
}

} // namespace micro850::gateway
