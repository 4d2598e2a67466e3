#ifndef MICRO850_TESTS_LOCK_WITNESS_H
#define MICRO850_TESTS_LOCK_WITNESS_H

#include <QtCore/QMutex>

#include <functional>
#include <vector>

/// Writes down the mutexes that the calling thread locks, in order, while the witness lives, and
/// the changes that it makes to maps and lists. A program that uses it puts itself between the
/// driver and Qt's functions, so a lock that went missing, comes late or is not given back is
/// noticed without a race having to happen.
class LockWitness
{
public:
    LockWitness();
    ~LockWitness();
    LockWitness(const LockWitness&) = delete;
    LockWitness& operator=(const LockWitness&) = delete;

    /// Every mutex locked so far, in order.
    const std::vector<const QMutex*>& locked() const { return m_locked; }
    /// How often this mutex was locked.
    int timesLocked(const QMutex& mutex) const;
    /// True when `inner` was locked at least once while `outer` was held.
    bool nested(const QMutex& outer, const QMutex& inner) const;
    /// True when exactly one mutex was locked, once, and is given back.
    bool oneStep() const { return m_locked.size() == 1 && m_held.empty(); }
    /// True when all that was locked is given back.
    bool balanced() const { return m_held.empty(); }

    /// How often a map was given a node, or a copy of its own, with any mutex held and with none. A
    /// test that holds a copy of a map makes every access that could change it count.
    int guardedMapChanges() const { return m_guardedMapChanges; }
    int unguardedMapChanges() const { return m_unguardedMapChanges; }

    /// How often a name was compared with one that a map holds, with any mutex held and with none.
    int guardedNameLookups() const { return m_guardedNameLookups; }
    int unguardedNameLookups() const { return m_unguardedNameLookups; }

    /// A list that was given a record, lost one, or had two change places, with the mutexes held.
    struct ListChange
    {
        const void* list;
        std::vector<const QMutex*> held;
    };
    const std::vector<ListChange>& listChanges() const { return m_listChanges; }

    /// Looks at a value whenever `guard` is locked and unlocked: it may change in between only.
    void watch(const std::function<int()>& value, const QMutex& guard);
    /// How often a watched value was found changed while its guard was not held.
    int unguardedValueChanges() const;

    /// Does `action`, which the witness does not look at, as another thread would that was in time
    /// before the next lock is taken, or before a later one.
    void beforeNextLock(const std::function<void()>& action, int locksBetween = 0)
    {
        m_action = action;
        m_locksBefore = locksBetween;
    }

    void noteListChange(const void* list) { m_listChanges.push_back({list, m_held}); }
    void act();
    void noteLock(const QMutex* mutex);
    void noteUnlock(const QMutex* mutex);
    void noteMapChange();
    void noteNameLookup();

private:
    struct Pair
    {
        const QMutex *outer, *inner;
    };
    struct Watched
    {
        std::function<int()> value;
        const QMutex* guard;
        int last;
        int unguardedChanges;
    };
    LockWitness* m_before;
    std::function<void()> m_action;
    int m_locksBefore = 0;
    std::vector<Watched> m_watched;
    std::vector<const QMutex*> m_locked;
    std::vector<const QMutex*> m_held;
    std::vector<Pair> m_pairs;
    std::vector<ListChange> m_listChanges;
    int m_guardedMapChanges = 0;
    int m_unguardedMapChanges = 0;
    int m_guardedNameLookups = 0;
    int m_unguardedNameLookups = 0;
};

#endif
