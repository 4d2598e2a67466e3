#ifndef MICRO850_TESTS_LOCK_WITNESS_H
#define MICRO850_TESTS_LOCK_WITNESS_H

#include <QtCore/QMutex>

#include <functional>
#include <string>
#include <vector>

/// Records the mutexes that the calling thread locks while the witness lives, in order, and the
/// changes that the thread makes to maps and lists. A program that links this unit replaces Qt's
/// functions for the driver, so a lock that is missing, taken late or not released is noticed
/// without waiting for a race.
class LockWitness
{
public:
    typedef std::vector<const QMutex*> Mutexes;

    LockWitness();
    ~LockWitness();
    LockWitness(const LockWitness&) = delete;
    LockWitness& operator=(const LockWitness&) = delete;

    /// Every mutex locked so far, in order.
    const Mutexes& locked() const { return m_locked; }
    /// How often `mutex` was locked.
    int timesLocked(const QMutex& mutex) const;
    /// True when `inner` was locked at least once while `outer` was held.
    bool nested(const QMutex& outer, const QMutex& inner) const;
    /// True when exactly one mutex was locked, once, and is released.
    bool oneStep() const { return m_locked.size() == 1 && m_held.empty(); }
    /// True when every locked mutex is released.
    bool balanced() const { return m_held.empty(); }

    /// How often a map got a node or detached from a copy, with and without `guard` held. While a
    /// test holds a copy of a map, every non-const access detaches it and so counts.
    int guardedMapChanges(const QMutex& guard) const { return timesHeld(guard, m_mapChanges); }
    int unguardedMapChanges(const QMutex& guard) const { return timesFree(guard, m_mapChanges); }

    /// How often a name was compared with a key of a map, with and without `guard` held.
    int guardedNameLookups(const QMutex& guard) const { return timesHeld(guard, m_nameLookups); }
    int unguardedNameLookups(const QMutex& guard) const { return timesFree(guard, m_nameLookups); }

    /// A change of a list's records or of their order, with the mutexes held at that time.
    struct ListChange
    {
        const void* list;
        Mutexes held;
    };
    const std::vector<ListChange>& listChanges() const { return m_listChanges; }

    /// Checks a value whenever `guard` is locked or unlocked: it may change only while locked. So a
    /// guard that is released before the value has its last change is noticed, too.
    void watch(const std::function<std::string()>& value, const QMutex& guard);
    void watch(const std::function<int()>& value, const QMutex& guard);
    /// How often a watched value changed while its guard was not held.
    int unguardedValueChanges() const;

    /// Runs `action` just before the next lock is taken, or `locksBetween` locks later, as if
    /// another thread had run at that time. The witness does not record what the action does.
    void beforeNextLock(const std::function<void()>& action, int locksBetween = 0)
    {
        m_beforeLock = {action, locksBetween};
    }
    /// The same just after a lock is released.
    void afterNextUnlock(const std::function<void()>& action, int unlocksBetween = 0)
    {
        m_afterUnlock = {action, unlocksBetween};
    }

    // Called by the replaced functions of Qt.
    void noteListChange(const void* list) { m_listChanges.push_back({list, m_held}); }
    void interruptBeforeLock() { run(m_beforeLock); }
    void interruptAfterUnlock() { run(m_afterUnlock); }
    void noteLock(const QMutex* mutex);
    void noteUnlock(const QMutex* mutex);
    void noteMapChange() { m_mapChanges.push_back(m_held); }
    void noteNameLookup() { m_nameLookups.push_back(m_held); }

private:
    struct Pair
    {
        const QMutex *outer, *inner;
    };
    struct Watched
    {
        std::function<std::string()> value;
        const QMutex* guard;
        std::string last;
        int unguardedChanges;
    };
    struct Interruption
    {
        std::function<void()> action;
        int left;
    };
    static void run(Interruption& interruption);
    static int timesHeld(const QMutex& guard, const std::vector<Mutexes>& events);
    static int timesFree(const QMutex& guard, const std::vector<Mutexes>& events)
    {
        return static_cast<int>(events.size()) - timesHeld(guard, events);
    }

    LockWitness* m_before;
    Interruption m_beforeLock = {nullptr, 0};
    Interruption m_afterUnlock = {nullptr, 0};
    std::vector<Watched> m_watched;
    Mutexes m_locked;
    Mutexes m_held;
    std::vector<Pair> m_pairs;
    std::vector<ListChange> m_listChanges;
    std::vector<Mutexes> m_mapChanges; ///< the mutexes held at each
    std::vector<Mutexes> m_nameLookups;
};

#endif
