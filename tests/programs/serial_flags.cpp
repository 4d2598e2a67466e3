// Preloaded into a program, answers the calls for the settings of a serial device, which a
// pseudo-terminal refuses. It keeps one flag word and logs each change of the flag for low latency
// as a line "set" or "cleared" of the file LOW_LATENCY_LOG. LOW_LATENCY_ERROR is the error number
// with which a change is refused, LOW_LATENCY_SIGNAL a signal that comes at once when the flag is
// set, LOW_LATENCY_FOUND makes the flag set from the beginning.

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <linux/serial.h>

namespace {

int numberOf(const char* variable)
{
    const char* text = std::getenv(variable);
    return text ? std::atoi(text) : 0;
}

bool& isLow()
{
    static bool low = numberOf("LOW_LATENCY_FOUND") != 0;
    return low;
}

void log(const char* line)
{
    const char* path = std::getenv("LOW_LATENCY_LOG");
    const int file = ::open(path ? path : "", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file < 0 || ::write(file, line, std::strlen(line)) < 0)
        std::abort();
    ::close(file);
}

int change(bool low)
{
    if (const int error = numberOf("LOW_LATENCY_ERROR")) {
        errno = error;
        return -1;
    }
    if (low != isLow())
        log(low ? "set\n" : "cleared\n");
    isLow() = low;
    if (const int signal = low ? numberOf("LOW_LATENCY_SIGNAL") : 0)
        std::raise(signal);
    return 0;
}

} // namespace

extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    std::va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request == TIOCGSERIAL) {
        auto* settings = static_cast<serial_struct*>(argument);
        *settings = serial_struct();
        settings->flags = isLow() ? static_cast<int>(ASYNC_LOW_LATENCY) : 0;
        return 0;
    }
    if (request == TIOCSSERIAL) {
        const auto flags =
            static_cast<unsigned int>(static_cast<const serial_struct*>(argument)->flags);
        return change((flags & ASYNC_LOW_LATENCY) != 0);
    }
    using Ioctl = int (*)(int, unsigned long, ...);
    static const auto next = reinterpret_cast<Ioctl>(::dlsym(RTLD_NEXT, "ioctl"));
    return next(descriptor, request, argument);
}
