#include "serial_numbers.h"

#include <chrono>
#include <cstdlib>
#include <ctime>

namespace serial_numbers {

quint32 at(int secondOfDay)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    qsrand(static_cast<uint>(secondOfDay));
    return static_cast<quint32>(qrand()) % 16777215u;
#pragma GCC diagnostic pop
}

int secondWithDles(int dles)
{
    for (int second = 0; second < 86400; ++second) {
        const quint32 serial = at(second);
        int found = 0;
        for (int shift = 0; shift < 24; shift += 8)
            found += (serial >> shift & 0xFF) == 0x10;
        if (found == dles)
            return second;
    }
    std::abort();
}

int localSecondOfDay()
{
    // Not time(), which may still return the last second for some milliseconds after its end.
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm local = std::tm();
    localtime_r(&now, &local);
    return local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec;
}

} // namespace serial_numbers
