#include "DateText.h"

#include <string_view>

namespace micro850 {

namespace {

constexpr std::uint16_t kDate = 0xCD;
constexpr std::uint16_t kTimeOfDay = 0xCE;
constexpr std::uint16_t kDateAndTime = 0xCF;

constexpr std::uint64_t kSecondMs = 1000;
constexpr std::uint64_t kMinuteMs = 60 * kSecondMs;
constexpr std::uint64_t kHourMs = 60 * kMinuteMs;
constexpr std::uint64_t kDayMs = 24 * kHourMs;
constexpr int kFirstYear = 1972;
constexpr std::uint64_t kMostDays = 0xFFFF;
constexpr int kDaysShift = 32; // of the days in a DATE_AND_TIME
constexpr std::size_t kDateLength = 10;

bool isLeapYear(int year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int daysOfYear(int year)
{
    return isLeapYear(year) ? 366 : 365;
}

int daysOfMonth(int year, int month)
{
    constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return days[month - 1] + (month == 2 && isLeapYear(year) ? 1 : 0);
}

// The number in exactly so many digits at a place; -1 when something else stands there.
int digitsAt(std::string_view text, std::size_t at, std::size_t count)
{
    if (text.size() < at + count)
        return -1;
    int number = 0;
    for (const char digit : text.substr(at, count)) {
        if (digit < '0' || digit > '9')
            return -1;
        number = 10 * number + (digit - '0');
    }
    return number;
}

std::optional<std::uint64_t> parseDays(std::string_view text)
{
    if (text.size() != kDateLength || text[4] != '-' || text[7] != '-')
        return std::nullopt;
    const int year = digitsAt(text, 0, 4);
    const int month = digitsAt(text, 5, 2);
    const int day = digitsAt(text, 8, 2);
    if (year < kFirstYear || month < 1 || month > 12 || day < 1 || day > daysOfMonth(year, month))
        return std::nullopt;
    int days = day - 1;
    for (int before = kFirstYear; before < year; ++before)
        days += daysOfYear(before);
    for (int before = 1; before < month; ++before)
        days += daysOfMonth(year, before);
    const auto count = static_cast<std::uint64_t>(days);
    return count <= kMostDays ? std::make_optional(count) : std::nullopt;
}

// "30", "30.2", "30.25" or "30.250" as milliseconds.
std::optional<std::uint64_t> parseSeconds(std::string_view text)
{
    const int seconds = digitsAt(text, 0, 2);
    if (seconds < 0 || seconds > 59)
        return std::nullopt;
    const std::size_t digits = text.size() > 3 ? text.size() - 3 : 0;
    const int fraction = digits == 0 ? 0 : digitsAt(text, 3, digits);
    const bool hasFraction = text.size() > 2;
    if (fraction < 0 || digits > 3 || (hasFraction && (digits == 0 || text[2] != '.')))
        return std::nullopt;
    std::uint64_t ms = static_cast<std::uint64_t>(fraction);
    for (std::size_t i = digits; i < 3; ++i)
        ms *= 10;
    return static_cast<std::uint64_t>(seconds) * kSecondMs + ms;
}

std::optional<std::uint64_t> parseTimeOfDay(std::string_view text)
{
    const int hour = digitsAt(text, 0, 2);
    const int minute = digitsAt(text, 3, 2);
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || text[2] != ':')
        return std::nullopt;
    const bool hasSeconds = text.size() > 5;
    if (hasSeconds && text[5] != ':')
        return std::nullopt;
    const std::optional<std::uint64_t> seconds = parseSeconds(hasSeconds ? text.substr(6) : "00");
    if (!seconds)
        return std::nullopt;
    return static_cast<std::uint64_t>(hour) * kHourMs +
           static_cast<std::uint64_t>(minute) * kMinuteMs + *seconds;
}

std::optional<std::uint64_t> parseDateAndTime(std::string_view text)
{
    if (text.size() <= kDateLength || text[kDateLength] != 'T')
        return std::nullopt;
    const std::optional<std::uint64_t> days = parseDays(text.substr(0, kDateLength));
    const std::optional<std::uint64_t> ms = parseTimeOfDay(text.substr(kDateLength + 1));
    if (!days || !ms)
        return std::nullopt;
    return *days << kDaysShift | *ms;
}

std::string twoDigits(std::uint64_t number)
{
    return (number < 10 ? "0" : "") + std::to_string(number);
}

std::string daysText(std::uint64_t days)
{
    int year = kFirstYear;
    int rest = static_cast<int>(days);
    for (; rest >= daysOfYear(year); ++year)
        rest -= daysOfYear(year);
    int month = 1;
    for (; rest >= daysOfMonth(year, month); ++month)
        rest -= daysOfMonth(year, month);
    return std::to_string(year) + '-' + twoDigits(static_cast<std::uint64_t>(month)) + '-' +
           twoDigits(static_cast<std::uint64_t>(rest) + 1);
}

std::string timeOfDayText(std::uint64_t ms)
{
    std::string text = twoDigits(ms / kHourMs) + ':' + twoDigits(ms % kHourMs / kMinuteMs) + ':' +
                       twoDigits(ms % kMinuteMs / kSecondMs);
    const std::uint64_t fraction = ms % kSecondMs;
    if (fraction != 0)
        text += '.' + std::to_string(kSecondMs + fraction).substr(1);
    return text;
}

} // namespace

const char* dateExample(const CipType& type)
{
    switch (type.code) {
    case kDate:
        return "2024-02-29";
    case kTimeOfDay:
        return "06:30:00.250";
    case kDateAndTime:
        return "2024-02-29T06:30:00";
    default:
        return nullptr;
    }
}

std::optional<std::uint64_t> parseDate(const CipType& type, const std::string& text)
{
    switch (type.code) {
    case kDate:
        return parseDays(text);
    case kTimeOfDay:
        return parseTimeOfDay(text);
    case kDateAndTime:
        return parseDateAndTime(text);
    default:
        return std::nullopt;
    }
}

std::optional<std::string> dateText(const CipType& type, std::uint64_t number)
{
    const std::uint64_t ms = type.code == kDateAndTime ? number & 0xFFFFFFFF : number;
    const std::uint64_t days = type.code == kDateAndTime ? number >> kDaysShift : number;
    if (type.code != kTimeOfDay && days > kMostDays)
        return std::nullopt;
    if (type.code != kDate && ms >= kDayMs)
        return std::nullopt;
    switch (type.code) {
    case kDate:
        return daysText(days);
    case kTimeOfDay:
        return timeOfDayText(ms);
    case kDateAndTime:
        return daysText(days) + 'T' + timeOfDayText(ms);
    default:
        return std::nullopt;
    }
}

} // namespace micro850
