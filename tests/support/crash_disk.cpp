#include "crash_disk.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

namespace {

CrashDisk* disk = nullptr;
sqlite3_vfs* real = nullptr;
sqlite3_vfs shim;
std::string shimName;

std::string baseName(const char* path)
{
    const std::string text = path ? path : "";
    return text.substr(text.rfind('/') + 1);
}

/// An open file: SQLite's own object follows this one in memory.
struct File
{
    sqlite3_file base;
    sqlite3_io_methods methods;
    char name[256];
};

sqlite3_file* realOf(sqlite3_file* file)
{
    return reinterpret_cast<sqlite3_file*>(reinterpret_cast<File*>(file) + 1);
}

const char* nameOf(sqlite3_file* file)
{
    return reinterpret_cast<File*>(file)->name;
}

int closeFile(sqlite3_file* file)
{
    return realOf(file)->pMethods->xClose(realOf(file));
}

int readFile(sqlite3_file* file, void* to, int size, sqlite3_int64 at)
{
    if (disk->popFailedCall())
        return SQLITE_IOERR_READ;
    return realOf(file)->pMethods->xRead(realOf(file), to, size, at);
}

int writeFile(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 at)
{
    if (disk->popFailedCall())
        return SQLITE_FULL;
    sqlite3_int64 before = 0;
    realOf(file)->pMethods->xFileSize(realOf(file), &before);
    if (at + size > before && !disk->hasRoom(at + size - before))
        return SQLITE_FULL;
    disk->note({CrashDisk::Kind::Write, nameOf(file), at,
                std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(size))});
    return realOf(file)->pMethods->xWrite(realOf(file), bytes, size, at);
}

int truncateFile(sqlite3_file* file, sqlite3_int64 size)
{
    if (disk->popFailedCall())
        return SQLITE_IOERR_TRUNCATE;
    disk->note({CrashDisk::Kind::Truncate, nameOf(file), size, ""});
    return realOf(file)->pMethods->xTruncate(realOf(file), size);
}

int syncFile(sqlite3_file* file, int)
{
    if (disk->popFailure() || disk->popFailedCall())
        return SQLITE_IOERR_FSYNC;
    disk->note({CrashDisk::Kind::Sync, nameOf(file), 0, ""});
    return SQLITE_OK; // nobody pulls the plug of the machine
}

int sizeOfFile(sqlite3_file* file, sqlite3_int64* size)
{
    return realOf(file)->pMethods->xFileSize(realOf(file), size);
}

int lockFile(sqlite3_file* file, int level)
{
    return realOf(file)->pMethods->xLock(realOf(file), level);
}

int unlockFile(sqlite3_file* file, int level)
{
    return realOf(file)->pMethods->xUnlock(realOf(file), level);
}

int isReserved(sqlite3_file* file, int* result)
{
    return realOf(file)->pMethods->xCheckReservedLock(realOf(file), result);
}

int control(sqlite3_file* file, int what, void* value)
{
    return realOf(file)->pMethods->xFileControl(realOf(file), what, value);
}

int sectorSize(sqlite3_file* file)
{
    return realOf(file)->pMethods->xSectorSize(realOf(file));
}

int characteristics(sqlite3_file*)
{
    return 0; // a disk that promises nothing
}

int mapShared(sqlite3_file* file, int page, int size, int extend, void volatile** at)
{
    if (disk->popFailedCall())
        return SQLITE_IOERR_SHMMAP;
    return realOf(file)->pMethods->xShmMap(realOf(file), page, size, extend, at);
}

int lockShared(sqlite3_file* file, int offset, int count, int flags)
{
    return realOf(file)->pMethods->xShmLock(realOf(file), offset, count, flags);
}

void barrier(sqlite3_file* file)
{
    realOf(file)->pMethods->xShmBarrier(realOf(file));
}

int unmapShared(sqlite3_file* file, int remove)
{
    return realOf(file)->pMethods->xShmUnmap(realOf(file), remove);
}

int openFile(sqlite3_vfs*, const char* path, sqlite3_file* file, int flags, int* outFlags)
{
    File* const made = reinterpret_cast<File*>(file);
    std::memset(made, 0, sizeof *made);
    if (disk->popFailedCall())
        return SQLITE_CANTOPEN;
    const std::string name = baseName(path);
    disk->noteOpen(path ? path : "");
    std::strncpy(made->name, name.c_str(), sizeof made->name - 1);
    const int code = real->xOpen(real, path, realOf(file), flags, outFlags);
    if (!realOf(file)->pMethods)
        return code;
    made->methods = {2,        closeFile,   readFile,        writeFile,  truncateFile,
                     syncFile, sizeOfFile,  lockFile,        unlockFile, isReserved,
                     control,  sectorSize,  characteristics, mapShared,  lockShared,
                     barrier,  unmapShared, nullptr,         nullptr};
    made->base.pMethods = &made->methods;
    return code;
}

int removeFile(sqlite3_vfs*, const char* path, int sync)
{
    disk->note({CrashDisk::Kind::Remove, baseName(path), 0, ""});
    return real->xDelete(real, path, sync);
}

void apply(std::string& content, const CrashDisk::Step& step, std::size_t bytes)
{
    const auto at = static_cast<std::size_t>(step.at);
    if (step.kind == CrashDisk::Kind::Truncate) {
        content.resize(at);
        return;
    }
    if (content.size() < at + bytes)
        content.resize(at + bytes);
    content.replace(at, bytes, step.bytes, 0, bytes);
}

} // namespace

CrashDisk::CrashDisk(const std::string& name)
{
    disk = this;
    real = sqlite3_vfs_find(nullptr);
    shimName = name;
    shim = *real;
    shim.pNext = nullptr;
    shim.zName = shimName.c_str();
    shim.szOsFile = static_cast<int>(sizeof(File)) + real->szOsFile;
    shim.xOpen = openFile;
    shim.xDelete = removeFile;
    sqlite3_vfs_register(&shim, 0);
}

CrashDisk::~CrashDisk()
{
    sqlite3_vfs_unregister(&shim);
    disk = nullptr;
}

bool CrashDisk::popFailure()
{
    if (m_failingSyncs == 0)
        return false;
    if (m_failingSyncs > 0)
        --m_failingSyncs;
    return true;
}

void CrashDisk::failCalls(long long after, long long count)
{
    m_failingAfter = after;
    m_failingCalls = count;
}

bool CrashDisk::popFailedCall()
{
    ++m_calls;
    if (m_failingCalls == 0 || m_failingAfter-- > 0)
        return false;
    m_failingAfter = 0;
    if (m_failingCalls > 0)
        --m_failingCalls;
    return true;
}

bool CrashDisk::hasRoom(long long growth) const
{
    if (m_limit < 0)
        return true;
    long long used = 0;
    for (const std::string& path : m_paths) {
        struct stat status = {};
        if (::stat(path.c_str(), &status) == 0)
            used += status.st_size;
    }
    return used + growth <= m_limit;
}

void CrashDisk::replay(const Step& step)
{
    std::vector<const Step*>& pending = m_replayed.waiting[step.file];
    if (step.kind == Kind::Sync) {
        for (const Step* each : pending)
            apply(m_replayed.content[step.file], *each, each->bytes.size());
        pending.clear();
    } else if (step.kind == Kind::Remove) {
        m_replayed.content.erase(step.file);
        pending.clear();
    } else {
        pending.push_back(&step);
        m_replayed.content[step.file];
    }
}

std::map<std::string, std::string> CrashDisk::contentAfter(std::size_t count, std::mt19937* random)
{
    if (count < m_replayed.steps)
        m_replayed = {};
    for (; m_replayed.steps < count; ++m_replayed.steps)
        replay(m_steps[m_replayed.steps]);
    std::map<std::string, std::string> content = m_replayed.content;
    if (!random)
        return content;
    for (const auto& [file, all] : m_replayed.waiting) {
        std::vector<const Step*> pending = all;
        std::shuffle(pending.begin(), pending.end(), *random);
        pending.resize(pending.empty() ? 0 : (*random)() % (pending.size() + 1));
        for (const Step* each : pending) {
            // A disk writes whole sectors.
            const std::size_t sectors = each->bytes.size() / 512 + 1;
            const std::size_t bytes =
                (*random)() % 4 ? each->bytes.size()
                                : std::min(each->bytes.size(), (*random)() % sectors * 512);
            apply(content[file], *each, bytes);
        }
    }
    return content;
}
