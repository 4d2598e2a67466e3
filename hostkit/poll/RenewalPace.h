#ifndef MICRO850_HOST_RENEWALPACE_H
#define MICRO850_HOST_RENEWALPACE_H

#include "Clock.h"

namespace micro850::host {

/// When to rebuild a list after changes. To rebuild it takes the longer the more entries it has:
/// after every change, thousands of changes in a row would take seconds. A short list is rebuilt at
/// once. A long one waits until an eighth of it has changed, or for a time that grows with it and
/// is still much shorter than one pass over its entries on the line.
class RenewalPace
{
public:
    void noteChange() { ++m_changes; }
    bool isDue(Duration now) const
    {
        const int share = 8;
        const std::chrono::microseconds timeOfEntry(100);
        return m_changes > 0 &&
               (m_changes >= m_entries / share || now >= m_renewedAt + m_entries * timeOfEntry);
    }
    /// The list was rebuilt and has so many entries now.
    void noteRenewal(Duration now, int entries)
    {
        m_changes = 0;
        m_entries = entries;
        m_renewedAt = now;
    }

private:
    int m_changes = 0;
    int m_entries = 0;
    Duration m_renewedAt{0};
};

} // namespace micro850::host

#endif
