// Put in front of the C library's allocator with LD_PRELOAD: counts what the program asks of the
// heap, by whatever road, and says at its end how often and for how many bytes.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

// The C library's own names for what is put in front of it here.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
}

namespace {

std::atomic<std::uint64_t> calls{0};
std::atomic<std::uint64_t> bytes{0};

void count(std::size_t size)
{
    calls.fetch_add(1, std::memory_order_relaxed);
    bytes.fetch_add(size, std::memory_order_relaxed);
}

struct AtExit
{
    ~AtExit()
    {
        std::fprintf(stderr, "allocations %llu bytes %llu\n",
                     static_cast<unsigned long long>(calls.load()),
                     static_cast<unsigned long long>(bytes.load()));
    }
} atExit;

} // namespace

extern "C" void* malloc(std::size_t size)
{
    count(size);
    return __libc_malloc(size);
}

extern "C" void* calloc(std::size_t number, std::size_t size)
{
    count(number * size);
    return __libc_calloc(number, size);
}

extern "C" void* realloc(void* block, std::size_t size)
{
    count(size);
    return __libc_realloc(block, size);
}
