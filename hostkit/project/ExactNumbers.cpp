#include "ExactNumbers.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace micro850::host {

namespace {

/// A whole number from -2^63 to 2^64 - 1.
struct Whole
{
    bool negative;
    std::uint64_t magnitude;
};

std::optional<Whole> wholeOf(const CipValue& value)
{
    switch (value.kind()) {
    case CipKind::Boolean:
        return Whole{false, value.boolean() ? 1U : 0U};
    case CipKind::Signed: {
        const std::int64_t number = value.signedNumber();
        if (number < 0)
            return Whole{true, 0 - static_cast<std::uint64_t>(number)};
        return Whole{false, static_cast<std::uint64_t>(number)};
    }
    case CipKind::Unsigned:
    case CipKind::Bits:
        return Whole{false, value.unsignedNumber()};
    case CipKind::Real:
    case CipKind::String:
        break;
    }
    return std::nullopt;
}

int order(std::uint64_t a, std::uint64_t b)
{
    return a < b ? -1 : a > b ? 1 : 0;
}

int compareWholes(const Whole& a, const Whole& b)
{
    if (a.negative != b.negative)
        return a.negative ? -1 : 1;
    return a.negative ? order(b.magnitude, a.magnitude) : order(a.magnitude, b.magnitude);
}

// The real number's whole part is compared exactly, then what is behind its point.
int compareWholeWithReal(const Whole& whole, double real)
{
    const double beyond = 18446744073709551616.0; // 2^64
    if (real >= beyond)
        return -1;
    if (real <= -beyond)
        return 1;
    const double part = std::trunc(real);
    const int parts = compareWholes(
        whole, {std::signbit(part) && part != 0, static_cast<std::uint64_t>(std::abs(part))});
    if (parts != 0 || part == real)
        return parts;
    return part < real ? -1 : 1;
}

// What the last digit of a real number may be off: a value such as 1.1 is none that it can hold.
double roundingOf(const CipValue& a, const CipValue& b)
{
    const double lastDigits = 4;
    const double epsilon = a.isSingle() ? std::numeric_limits<float>::epsilon()
                                        : std::numeric_limits<double>::epsilon();
    return lastDigits * epsilon * std::max(std::abs(a.number()), std::abs(b.number()));
}

bool realsDiffer(const CipValue& a, const CipValue& b, double deadband)
{
    const double from = a.number();
    const double to = b.number();
    if (std::isnan(from) || std::isnan(to))
        return std::isnan(from) != std::isnan(to);
    if (from == to)
        return false;
    if (deadband == 0 || std::isinf(from) || std::isinf(to))
        return true;
    return std::abs(to - from) - deadband > roundingOf(a, b);
}

bool wholesDiffer(const Whole& a, const Whole& b, double deadband)
{
    // The difference needs 65 bits at most: as a real number it may be rounded, as an integer not.
    const bool apart = a.negative != b.negative;
    const std::uint64_t difference =
        apart ? a.magnitude + b.magnitude
              : std::max(a.magnitude, b.magnitude) - std::min(a.magnitude, b.magnitude);
    const bool overflows = apart && difference < a.magnitude;
    if (overflows)
        return static_cast<double>(a.magnitude) + static_cast<double>(b.magnitude) > deadband;
    return compareWholeWithReal({false, difference}, deadband) > 0;
}

} // namespace

int compareNumbers(const CipValue& a, const CipValue& b)
{
    const std::optional<Whole> wholeA = wholeOf(a);
    const std::optional<Whole> wholeB = wholeOf(b);
    if (wholeA && wholeB)
        return compareWholes(*wholeA, *wholeB);
    if (wholeA)
        return compareWholeWithReal(*wholeA, b.number());
    if (wholeB)
        return -compareWholeWithReal(*wholeB, a.number());
    return a.number() < b.number() ? -1 : a.number() > b.number() ? 1 : 0;
}

bool differsByMore(const CipValue& a, const CipValue& b, double deadband)
{
    if (a.kind() == CipKind::Real && b.kind() == CipKind::Real)
        return realsDiffer(a, b, deadband);
    const std::optional<Whole> wholeA = wholeOf(a);
    const std::optional<Whole> wholeB = wholeOf(b);
    if (!a.isNumber() || !b.isNumber() || !wholeA || !wholeB)
        return a.kind() != b.kind() || a.text() != b.text();
    return wholesDiffer(*wholeA, *wholeB, deadband);
}

bool isWithinLimits(const CipValue& value, const std::optional<CipValue>& minimum,
                    const std::optional<CipValue>& maximum)
{
    if (!minimum && !maximum)
        return true;
    if (!value.isNumber() || std::isnan(value.number()))
        return false;
    return (!minimum || compareNumbers(value, *minimum) >= 0) &&
           (!maximum || compareNumbers(value, *maximum) <= 0);
}

} // namespace micro850::host
