#include "DurationText.h"

#include <algorithm>
#include <string_view>

namespace micro850 {

namespace {

constexpr std::uint64_t kSecond = 1000000;
constexpr std::uint64_t kMinute = 60 * kSecond;
constexpr std::uint64_t kHour = 60 * kMinute;
constexpr std::uint64_t kDay = 24 * kHour;
constexpr std::size_t kMostDigits = 9;
constexpr std::size_t kMostDigitsOfSeconds = 12;
constexpr std::size_t kMostDigitsOfFraction = 6;
// Just below what 64 bits hold: the sum is compared as a real number.
constexpr double kLongest = 9e18;

/// Reads a duration from its start.
class Parser
{
public:
    explicit Parser(const std::string& text) : m_rest(text) {}

    std::optional<std::int64_t> parse()
    {
        const bool negative = skip('-');
        if (!negative)
            skip('+');
        if (!skip('P') || m_rest.empty() || (!atDigit() && m_rest.front() != 'T'))
            return std::nullopt;
        parsePart('W', 7 * kDay);
        parsePart('D', kDay);
        if (skip('T')) {
            if (!atDigit())
                return std::nullopt;
            parsePart('H', kHour);
            parsePart('M', kMinute);
            parseSeconds();
        }
        if (!m_rest.empty() || m_estimate > kLongest)
            return std::nullopt;
        const auto value = static_cast<std::int64_t>(m_sum);
        return negative ? -value : value;
    }

private:
    bool atDigit() const { return digits() > 0; }
    // How many digits are next.
    std::size_t digits() const
    {
        return std::min(m_rest.find_first_not_of("0123456789"), m_rest.size());
    }
    bool skip(char c)
    {
        if (m_rest.empty() || m_rest.front() != c)
            return false;
        m_rest.remove_prefix(1);
        return true;
    }
    void add(std::string_view digits, std::uint64_t unit)
    {
        std::uint64_t count = 0;
        for (const char digit : digits)
            count = 10 * count + static_cast<std::uint64_t>(digit - '0');
        m_sum += count * unit;
        m_estimate += static_cast<double>(count) * static_cast<double>(unit);
    }
    // A number with this letter after it; anything else is left for the next part.
    void parsePart(char letter, std::uint64_t unit)
    {
        const std::size_t count = digits();
        if (count == 0 || count > kMostDigits || count == m_rest.size() || m_rest[count] != letter)
            return;
        add(m_rest.substr(0, count), unit);
        m_rest.remove_prefix(count + 1);
    }
    void parseSeconds()
    {
        const std::string_view before = m_rest;
        const std::string_view whole = m_rest.substr(0, digits());
        m_rest.remove_prefix(whole.size());
        std::string fraction;
        bool good = !whole.empty() && whole.size() <= kMostDigitsOfSeconds;
        if (skip('.')) {
            fraction = m_rest.substr(0, digits());
            m_rest.remove_prefix(fraction.size());
            good = good && !fraction.empty() && fraction.size() <= kMostDigitsOfFraction;
        }
        if (!skip('S') || !good) {
            m_rest = before;
            return;
        }
        add(whole, kSecond);
        fraction.resize(kMostDigitsOfFraction, '0');
        add(fraction, 1);
    }

    std::string_view m_rest;
    std::uint64_t m_sum = 0;
    double m_estimate = 0;
};

// The whole units in `rest`, which keeps what is left; "" for none.
std::string popUnits(std::uint64_t& rest, std::uint64_t unit, char letter)
{
    const std::uint64_t count = rest / unit;
    rest %= unit;
    return count == 0 ? std::string() : std::to_string(count) + letter;
}

std::string secondsText(std::uint64_t microseconds)
{
    std::string text = std::to_string(microseconds / kSecond);
    std::string fraction = std::to_string(microseconds % kSecond);
    fraction.insert(0, kMostDigitsOfFraction - fraction.size(), '0');
    fraction.erase(fraction.find_last_not_of('0') + 1);
    if (!fraction.empty())
        text += '.' + fraction;
    return text + 'S';
}

} // namespace

int microsecondsPerUnit(const CipType& type)
{
    const std::string name = type.name;
    if (name == "TIME" || name == "ITIME" || name == "STIME")
        return 1000;
    return name == "FTIME" || name == "LTIME" ? 1 : 0;
}

std::optional<std::int64_t> parseDuration(const std::string& text)
{
    return Parser(text).parse();
}

std::string durationText(std::int64_t microseconds)
{
    // The lowest number has no counterpart above 0.
    std::uint64_t rest = static_cast<std::uint64_t>(microseconds);
    if (microseconds < 0)
        rest = 0 - rest;
    const std::string days = popUnits(rest, kDay, 'D');
    std::string time = popUnits(rest, kHour, 'H');
    time += popUnits(rest, kMinute, 'M');
    if (rest != 0 || (days.empty() && time.empty()))
        time += secondsText(rest);
    return (microseconds < 0 ? "-P" : "P") + days + (time.empty() ? "" : 'T' + time);
}

} // namespace micro850
