// Preloaded into a program, steps its time of day: the file STEPPED_CLOCK_FILE holds the seconds, a
// 64-bit integer, that are added. Clocks that measure intervals go on as they are.

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

std::int64_t step()
{
    static const volatile std::int64_t* const seconds = [] {
        const char* path = std::getenv("STEPPED_CLOCK_FILE");
        const int file = ::open(path ? path : "", O_RDONLY | O_CLOEXEC);
        void* memory = file < 0
                           ? MAP_FAILED
                           : ::mmap(nullptr, sizeof(std::int64_t), PROT_READ, MAP_SHARED, file, 0);
        if (memory == MAP_FAILED)
            std::abort();
        ::close(file);
        return static_cast<const volatile std::int64_t*>(memory);
    }();
    return *seconds;
}

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    using ClockGetTime = int (*)(clockid_t, timespec*);
    static const auto next = reinterpret_cast<ClockGetTime>(::dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = next(clock, time);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        time->tv_sec += step();
    return result;
}

extern "C" int gettimeofday(timeval* time, void*) noexcept
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    time->tv_sec = now.tv_sec;
    time->tv_usec = now.tv_nsec / 1000;
    return 0;
}

extern "C" time_t time(time_t* time) noexcept
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (time)
        *time = now.tv_sec;
    return now.tv_sec;
}
