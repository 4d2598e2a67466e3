#ifndef MICRO850_INTERNAL_LEAFLOCK_H
#define MICRO850_INTERNAL_LEAFLOCK_H

#include <QtCore/QMutex>

/// Scoped leaf lock: the innermost one, held for a few lines, never while another lock is taken or
/// the host is called. MICRO850_WITHOUT_LEAF_LOCKS removes it, so that a test can show that the
/// thread tests notice a missing lock.
class LeafLocker
{
public:
#ifdef MICRO850_WITHOUT_LEAF_LOCKS
    explicit LeafLocker(QMutex&) {}
    ~LeafLocker() {}
#else
    explicit LeafLocker(QMutex& mutex) : m_locker(&mutex) {}

private:
    QMutexLocker m_locker;
#endif
};

#endif
