#include "LineState.h"

#include <algorithm>

namespace micro850::host {

namespace {

const std::chrono::milliseconds kLongestPause(20);

} // namespace

bool LineState::ensureOpen()
{
    if (m_line.isOpen()) {
        m_wasOpen = true;
        return true;
    }
    const Duration now = m_clock.now();
    if (now < m_nextOpen &&
        !m_line.awaitReturn(std::min<Duration>(m_nextOpen - now, kLongestPause)))
        return false;
    if (m_line.open(m_error)) {
        m_reconnects += m_wasOpen ? 1 : 0;
        m_openedAt = m_clock.now();
        m_error.clear();
        m_reportedError.clear();
        return true;
    }
    noteFailure();
    m_nextOpen = m_clock.now() + m_openPause.next();
    return false;
}

void LineState::lose(qint64 strayBytes)
{
    m_error = m_reportedError = m_line.lossText(strayBytes);
    m_expectedError.clear();
    m_line.close();
    m_nextOpen = m_clock.now() + m_openPause.next();
}

void LineState::noteFailure()
{
    const bool isFirstAfterLoss = m_expectedError.isEmpty() && !m_reportedError.isEmpty();
    if (!isFirstAfterLoss && m_error != m_expectedError)
        m_reportedError = m_error;
    m_expectedError = m_error;
}

void LineState::pause(Duration time)
{
    m_line.pause(std::min<Duration>(time, kLongestPause));
}

} // namespace micro850::host
