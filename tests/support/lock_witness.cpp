#include "lock_witness.h"

#include <QtCore/QMap>

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>

namespace {

thread_local LockWitness* present = nullptr;

typedef void (*MutexOperation)(QMutex*);
typedef QMapDataBase* (*CreateData)();
typedef QMapNodeBase* (*CreateNode)(QMapDataBase*, int, int, QMapNodeBase*, bool);

// The function that this program's definition hides.
template<typename Function> Function hidden(const char* symbol)
{
    void* address = dlsym(RTLD_NEXT, symbol);
    if (!address)
        std::abort();
    return reinterpret_cast<Function>(address);
}

} // namespace

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    static const MutexOperation real = hidden<MutexOperation>("_ZN6QMutex4lockEv");
    real(this);
    if (present)
        present->noteLock(this);
}

void QMutex::unlock() noexcept
{
    static const MutexOperation real = hidden<MutexOperation>("_ZN6QMutex6unlockEv");
    if (present)
        present->noteUnlock(this);
    real(this);
}

QMapDataBase* QMapDataBase::createData()
{
    static const CreateData real = hidden<CreateData>("_ZN12QMapDataBase10createDataEv");
    if (present)
        present->noteMapChange();
    return real();
}

QMapNodeBase* QMapDataBase::createNode(int bytes, int alignment, QMapNodeBase* parent, bool left)
{
    static const CreateNode real =
        hidden<CreateNode>("_ZN12QMapDataBase10createNodeEiiP12QMapNodeBaseb");
    if (present)
        present->noteMapChange();
    return real(this, bytes, alignment, parent, left);
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

void LockWitness::noteMapChange()
{
    ++(m_held.empty() ? m_unguardedMapChanges : m_guardedMapChanges);
}
