#include "fake_line.h"

#include <algorithm>

using micro850::Duration;

bool FakeLine::open(QString& error)
{
    openedAt.push_back(m_clock.now());
    m_open = m_present;
    if (!m_open)
        error = openError;
    return m_open;
}

void FakeLine::close()
{
    m_open = false;
    m_arriving.clear();
}

void FakeLine::discardInput()
{
    m_arriving.erase(m_arriving.begin(), m_arriving.upper_bound(m_clock.now()));
}

bool FakeLine::send(const QByteArray& bytes)
{
    if (!m_present || m_loose)
        return false;
    sent.push_back(bytes);
    if (onSend)
        onSend(bytes);
    return true;
}

bool FakeLine::receive(QByteArray& bytes, Duration wait)
{
    if (!m_present || m_loose)
        return false;
    const Duration end = m_clock.now() + wait;
    const Duration first = m_arriving.empty() ? end : m_arriving.begin()->first;
    m_clock.advance(std::max(Duration(0), std::min(first, end) - m_clock.now()));
    while (!m_arriving.empty() && m_arriving.begin()->first <= m_clock.now()) {
        bytes += m_arriving.begin()->second;
        m_arriving.erase(m_arriving.begin());
    }
    return true;
}

bool FakeLine::awaitReturn(Duration time)
{
    const Duration end = m_clock.now() + time;
    const bool returns = m_returnAt && *m_returnAt <= end;
    pause((returns ? std::max(*m_returnAt, m_clock.now()) : end) - m_clock.now());
    if (returns) {
        m_present = true;
        m_returnAt.reset();
    }
    return returns;
}

void FakeLine::arrive(const QByteArray& bytes, int afterMs)
{
    m_arriving.emplace(m_clock.now() + delay + std::chrono::milliseconds(afterMs), bytes);
}
