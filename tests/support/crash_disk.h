#ifndef MICRO850_TESTS_CRASH_DISK_H
#define MICRO850_TESTS_CRASH_DISK_H

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

/// A file system of SQLite over the usual one that notes what is written, so that a test can make
/// the files as a power cut would leave them: what was synchronised is there, of the rest any part,
/// in any order, also half a write.
class CrashDisk
{
public:
    enum class Kind { Write, Truncate, Sync, Remove };
    struct Step
    {
        Kind kind;
        std::string file; ///< its name without the folder
        long long at;     ///< where it is written, or the new size
        std::string bytes;
    };

    /// Registers the file system under `name`. Only one at a time.
    explicit CrashDisk(const std::string& name);
    ~CrashDisk();
    CrashDisk(const CrashDisk&) = delete;
    CrashDisk& operator=(const CrashDisk&) = delete;

    const std::vector<Step>& steps() const { return m_steps; }
    void note(Step step)
    {
        if (!m_forgets)
            m_steps.push_back(std::move(step));
    }
    /// So many synchronisations from now on fail; below 0: all of them.
    void failSyncs(int count) { m_failingSyncs = count; }
    bool popFailure();
    /// After so many calls of the disk (reads, writes, opening, ...) the next `count` ones fail;
    /// below 0: all of them.
    void failCalls(long long after, long long count);
    void succeed() { failCalls(0, 0); }
    /// Files of this disk together have so many bytes at most; below 0: no limit.
    void limit(long long bytes) { m_limit = bytes; }
    /// Whether the files may grow by so much.
    bool hasRoom(long long growth) const;
    void noteOpen(const std::string& path) { m_paths.insert(path); }
    bool popFailedCall();
    /// Calls of the disk so far.
    long long calls() const { return m_calls; }
    /// Notes nothing from now on: for a test that needs no power cut.
    void forgetSteps() { m_forgets = true; }

    /// The content of each file after a power cut behind the first `count` steps. Of what was not
    /// synchronised by then, `random` chooses; without it nothing is there. Replays only the steps
    /// since the last call, so that counts that rise take the least time. Nothing is to be written
    /// any more.
    std::map<std::string, std::string> contentAfter(std::size_t count, std::mt19937* random);

private:
    /// The files after the first steps.
    struct Replayed
    {
        std::size_t steps = 0;
        std::map<std::string, std::string> content;              ///< what is synchronised
        std::map<std::string, std::vector<const Step*>> waiting; ///< what is not
    };
    void replay(const Step& step);

    std::vector<Step> m_steps;
    Replayed m_replayed;
    int m_failingSyncs = 0;
    long long m_calls = 0;
    long long m_failingAfter = 0;
    long long m_failingCalls = 0;
    bool m_forgets = false;
    long long m_limit = -1;
    std::set<std::string> m_paths;
};

#endif
