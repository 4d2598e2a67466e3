#include "LocalTime.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace micro850 {

namespace {

const std::int64_t kSecond = 1000; // milliseconds

std::string textOf(std::int64_t milliseconds, bool exact)
{
    // Rounded down, also before 1970.
    std::int64_t rest = milliseconds % kSecond;
    auto seconds = static_cast<std::time_t>(milliseconds / kSecond);
    if (rest < 0) {
        rest += kSecond;
        --seconds;
    }
    std::tm local = {};
    if (::localtime_r(&seconds, &local) == nullptr)
        return "no date";
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
    std::string result = text.data();
    if (exact) {
        std::snprintf(text.data(), text.size(), ".%03d", static_cast<int>(rest));
        result += text.data();
    }
    const long minutes = std::labs(local.tm_gmtoff) / 60;
    std::snprintf(text.data(), text.size(), " %c%02ld:%02ld", local.tm_gmtoff < 0 ? '-' : '+',
                  minutes / 60, minutes % 60);
    return result + text.data();
}

} // namespace

std::string localTimeText(std::int64_t milliseconds)
{
    return textOf(milliseconds, false);
}

std::string exactLocalTimeText(std::int64_t milliseconds)
{
    return textOf(milliseconds, true);
}

} // namespace micro850
