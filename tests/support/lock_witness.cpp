#include "lock_witness.h"

#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QString>

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>

#ifdef __SANITIZE_THREAD__
#include <sanitizer/tsan_interface.h>
#endif

namespace {

thread_local LockWitness* current = nullptr;

typedef void (*MutexOperation)(QMutex*);
typedef QMapDataBase* (*CreateData)();
typedef QMapNodeBase* (*CreateNode)(QMapDataBase*, int, int, QMapNodeBase*, bool);

// Qt's function of that name, which this program's definition hides.
template<typename Function> Function hidden(const char* symbol)
{
    void* address = dlsym(RTLD_NEXT, symbol);
    if (!address)
        std::abort();
    return reinterpret_cast<Function>(address);
}

void lockInQt(QMutex* mutex)
{
    static const MutexOperation real = hidden<MutexOperation>("_ZN6QMutex4lockEv");
    real(mutex);
}

void unlockInQt(QMutex* mutex)
{
    static const MutexOperation real = hidden<MutexOperation>("_ZN6QMutex6unlockEv");
    real(mutex);
}

#ifdef __SANITIZE_THREAD__
// Qt's mutex is a futex inside a library that is not instrumented. Without these annotations,
// ThreadSanitizer would report every access that the mutex orders as a race.
void reallyLock(QMutex* mutex)
{
    __tsan_mutex_pre_lock(mutex, 0);
    lockInQt(mutex);
    __tsan_mutex_post_lock(mutex, 0, 0);
}

void reallyUnlock(QMutex* mutex)
{
    __tsan_mutex_pre_unlock(mutex, 0);
    unlockInQt(mutex);
    __tsan_mutex_post_unlock(mutex, 0);
}
#else
void reallyLock(QMutex* mutex)
{
    lockInQt(mutex);
}

void reallyUnlock(QMutex* mutex)
{
    unlockInQt(mutex);
}
#endif

} // namespace

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    if (current)
        current->interruptBeforeLock();
    reallyLock(this);
    if (current)
        current->noteLock(this);
}

void QMutex::unlock() noexcept
{
    if (current)
        current->noteUnlock(this);
    reallyUnlock(this);
    if (current)
        current->interruptAfterUnlock();
}

#ifdef __SANITIZE_THREAD__
bool QMutex::tryLock(int timeout) QT_MUTEX_LOCK_NOEXCEPT
{
    typedef bool (*Attempt)(QMutex*, int);
    static const Attempt real = hidden<Attempt>("_ZN6QMutex7tryLockEi");
    __tsan_mutex_pre_lock(this, __tsan_mutex_try_lock);
    const bool locked = real(this, timeout);
    const unsigned failed = locked ? 0 : __tsan_mutex_try_lock_failed;
    __tsan_mutex_post_lock(this, __tsan_mutex_try_lock | failed, 0);
    return locked;
}
#endif

QMapDataBase* QMapDataBase::createData()
{
    static const CreateData real = hidden<CreateData>("_ZN12QMapDataBase10createDataEv");
    if (current)
        current->noteMapChange();
    return real();
}

QMapNodeBase* QMapDataBase::createNode(int bytes, int alignment, QMapNodeBase* parent, bool left)
{
    static const CreateNode real =
        hidden<CreateNode>("_ZN12QMapDataBase10createNodeEiiP12QMapNodeBaseb");
    if (current)
        current->noteMapChange();
    return real(this, bytes, alignment, parent, left);
}

// A map of names calls this to find a key.
bool operator<(const QString& a, const QString& b) noexcept
{
    typedef bool (*Less)(const QString&, const QString&);
    static const Less real = hidden<Less>("_ZltRK7QStringS1_");
    if (current)
        current->noteNameLookup();
    return real(a, b);
}

// A QList starts with its QListData, so `this` is the address of the list.

void** QListData::append()
{
    typedef void** (*Append)(QListData*);
    static const Append real = hidden<Append>("_ZN9QListData6appendEv");
    if (current)
        current->noteListChange(this);
    return real(this);
}

void** QListData::erase(void** place)
{
    typedef void** (*Erase)(QListData*, void**);
    static const Erase real = hidden<Erase>("_ZN9QListData5eraseEPPv");
    if (current)
        current->noteListChange(this);
    return real(this, place);
}

void QListData::remove(int i)
{
    typedef void (*Remove)(QListData*, int);
    static const Remove real = hidden<Remove>("_ZN9QListData6removeEi");
    if (current)
        current->noteListChange(this);
    real(this, i);
}

void QListData::move(int from, int to)
{
    typedef void (*Move)(QListData*, int, int);
    static const Move real = hidden<Move>("_ZN9QListData4moveEii");
    if (current)
        current->noteListChange(this);
    real(this, from, to);
}

QListData::Data* QListData::detach(int size)
{
    typedef Data* (*Detach)(QListData*, int);
    static const Detach real = hidden<Detach>("_ZN9QListData6detachEi");
    if (current)
        current->noteListChange(this);
    return real(this, size);
}

QListData::Data* QListData::detach_grow(int* i, int n)
{
    typedef Data* (*Grow)(QListData*, int*, int);
    static const Grow real = hidden<Grow>("_ZN9QListData11detach_growEPii");
    if (current)
        current->noteListChange(this);
    return real(this, i, n);
}

LockWitness::LockWitness() : m_before(current)
{
    current = this;
}

LockWitness::~LockWitness()
{
    current = m_before;
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

void LockWitness::watch(const std::function<int()>& value, const QMutex& guard)
{
    watch([value] { return std::to_string(value()); }, guard);
}

void LockWitness::watch(const std::function<std::string()>& value, const QMutex& guard)
{
    m_watched.push_back({value, &guard, value(), 0});
}

int LockWitness::unguardedValueChanges() const
{
    int changes = 0;
    for (const Watched& watched : m_watched)
        changes += watched.unguardedChanges + (watched.value() != watched.last);
    return changes;
}

void LockWitness::run(Interruption& interruption)
{
    if (!interruption.action || interruption.left-- > 0)
        return;
    const std::function<void()> action = interruption.action;
    interruption.action = nullptr;
    LockWitness* const interrupted = current;
    current = nullptr;
    action();
    current = interrupted;
}

int LockWitness::timesHeld(const QMutex& guard, const std::vector<Mutexes>& events)
{
    return static_cast<int>(std::count_if(events.begin(), events.end(), [&](const Mutexes& held) {
        return std::find(held.begin(), held.end(), &guard) != held.end();
    }));
}

void LockWitness::noteLock(const QMutex* mutex)
{
    for (Watched& watched : m_watched)
        watched.unguardedChanges += watched.guard == mutex && watched.value() != watched.last;
    for (const QMutex* outer : m_held)
        m_pairs.push_back({outer, mutex});
    m_locked.push_back(mutex);
    m_held.push_back(mutex);
}

void LockWitness::noteUnlock(const QMutex* mutex)
{
    const auto at = std::find(m_held.begin(), m_held.end(), mutex);
    if (at == m_held.end())
        return; // a test tried whether it is free
    m_held.erase(at);
    for (Watched& watched : m_watched) {
        if (watched.guard == mutex)
            watched.last = watched.value();
    }
}
