// Replaces the functions of the C library's allocator through LD_PRELOAD. Counts every allocation
// of the program and prints at its end the number of allocations and of their bytes.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

// The C library's own names of the functions that this file replaces.
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
