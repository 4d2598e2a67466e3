#include "lock_witness.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>

namespace {

thread_local LockWitness* present = nullptr;

typedef void (*MutexOperation)(QMutex*);

// The operation that this program's definition hides.
MutexOperation hidden(const char* symbol)
{
    void* address = dlsym(RTLD_NEXT, symbol);
    if (!address)
        std::abort();
    return reinterpret_cast<MutexOperation>(address);
}

} // namespace

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    static const MutexOperation real = hidden("_ZN6QMutex4lockEv");
    real(this);
    if (present)
        present->noteLock(this);
}

void QMutex::unlock() noexcept
{
    static const MutexOperation real = hidden("_ZN6QMutex6unlockEv");
    if (present)
        present->noteUnlock(this);
    real(this);
}

LockWitness::LockWitness() : m_before(present)
{
    present = this;
}

LockWitness::~LockWitness()
{
    present = m_before;
}

int LockWitness::timesLocked(const QMutex& mutex) const
{
    return static_cast<int>(std::count(m_locked.begin(), m_locked.end(), &mutex));
}

bool LockWitness::nested(const QMutex& outer, const QMutex& inner) const
{
    return std::any_of(m_pairs.begin(), m_pairs.end(), [&](const Pair& pair) {
        return pair.outer == &outer && pair.inner == &inner;
    });
}

void LockWitness::noteLock(const QMutex* mutex)
{
    for (const QMutex* outer : m_held)
        m_pairs.push_back({outer, mutex});
    m_locked.push_back(mutex);
    m_held.push_back(mutex);
}

void LockWitness::noteUnlock(const QMutex* mutex)
{
    const auto at = std::find(m_held.begin(), m_held.end(), mutex);
    if (at != m_held.end())
        m_held.erase(at);
}
