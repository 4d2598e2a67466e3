// heap LIBRARY: prints the heap that the driver uses after loading and with 1,000 variables, one
// line each. The host's own records are not counted.

#include "Func_Initi.h"

#include <dlfcn.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace {

const int kVariables = 1000;

std::size_t heap()
{
    return mallinfo2().uordblks;
}

// The shortest of 20 times, because other programs can only make it longer. RTLD_NOW binds all
// symbols at once.
long long loadingMicroseconds(const char* path)
{
    typedef std::chrono::steady_clock Clock;
    Clock::duration least = Clock::duration::max();
    for (int i = 0; i < 20; ++i) {
        const Clock::time_point start = Clock::now();
        void* library = dlopen(path, RTLD_NOW);
        least = std::min(least, Clock::now() - start);
        if (library)
            dlclose(library);
    }
    return std::chrono::duration_cast<std::chrono::microseconds>(least).count();
}

template<typename Function> Function* entry(void* library, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(library, name));
}

void report(const char* what, std::size_t before)
{
    std::printf("%s %zu\n", what, heap() - before);
}

} // namespace

int main(int argc, char** argv)
{
    QList<HOSTVAR> variables;
    QList<varName> names;
    for (int i = 0; i < kVariables; ++i) {
        const QString name = QString::fromLatin1("Line1_Station_Value_%1").arg(i);
        variables.append({0, 0, 0, QString::fromLatin1("0"), name, 1});
        names.append({name, 2, 0, QList<QString>()});
    }
    if (argc == 2)
        std::printf("loading-microseconds %lld\n", loadingMicroseconds(argv[1]));
    std::size_t before = heap();
    void* library = argc == 2 ? dlopen(argv[1], RTLD_NOW) : nullptr;
    if (!library) {
        std::fprintf(stderr, "heap: %s\n", argc == 2 ? dlerror() : "usage: heap LIBRARY");
        return 2;
    }
    report("heap-loaded", before);
    ComInfo settings = ComInfo();
    entry<decltype(SetComInfo)>(library, "SetComInfo")(&settings);
    before = heap();
    entry<decltype(PassVarName)>(library, "PassVarName")(&names);
    report("heap-1000-names", before);
    before = heap();
    entry<decltype(ReCreatReadVarList)>(library, "ReCreatReadVarList")(&variables);
    report("heap-1000-cyclic", before);
    return 0;
}
