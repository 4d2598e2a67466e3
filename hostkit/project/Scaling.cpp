#include "Scaling.h"

#include "UserError.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <utility>

namespace micro850::host {

namespace {

// Digits of a scaled number. A REAL always keeps 6 digits of a text, an LREAL 14 although the
// arithmetic rounds four times. More are shown where neighbouring values need them.
const int kDigitsOfReal = 6;
const int kDigitsOfWideReal = 14;
const int kDigitsOfWholeNumber = 9;
const int kMostDigits = 17;
// Scaled numbers are computed as doubles. Those of the next whole number and above may have been
// rounded to it.
const double kMostExact = 9007199254740991;

bool isWideReal(const CipType& type)
{
    return type.kind == CipKind::Real && type.size == 8;
}

// The power of ten of the first digit.
int exponentOf(double number)
{
    return static_cast<int>(std::floor(std::log10(std::abs(number))));
}

// The number, rounded to the last digit that `scale` has when it is written with so many digits.
// Digits of a difference that come from the rounding of larger numbers vanish.
double roundedTo(double number, double scale, int digits)
{
    const int kept = number == 0 ? 0 : exponentOf(number) - exponentOf(scale) + digits;
    if (kept <= 0)
        return 0;
    std::array<char, 64> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number,
                                   std::chars_format::scientific, kept - 1);
    double rounded = number;
    std::from_chars(text.data(), end.ptr, rounded);
    return rounded;
}

// The smallest and the largest number of a type.
std::pair<double, double> rangeOf(const CipType& type)
{
    if (type.kind == CipKind::Real) {
        const double most = isWideReal(type) ? std::numeric_limits<double>::max()
                                             : std::numeric_limits<float>::max();
        return {-most, most};
    }
    const int bits = 8 * type.size;
    return type.kind == CipKind::Signed
               ? std::make_pair(-std::ldexp(1, bits - 1), std::ldexp(1, bits - 1) - 1)
               : std::make_pair(0.0, std::ldexp(1, bits) - 1);
}

// The value of the type that is nearest to a number; nothing when the number is beyond its range.
std::optional<CipValue> nearestValue(const CipType& type, double number)
{
    const auto [least, most] = rangeOf(type);
    if (type.kind == CipKind::Real) {
        if (!(number >= least && number <= most))
            return std::nullopt;
        return isWideReal(type) ? CipValue::ofReal(number)
                                : CipValue::ofReal(static_cast<float>(number));
    }
    // The largest number of 64 bits is no real number; the next one is, and is too large.
    const double whole = std::round(number);
    const double beyond =
        std::ldexp(1, type.kind == CipKind::Signed ? 8 * type.size - 1 : 8 * type.size);
    if (!(whole >= least && whole < beyond))
        return std::nullopt;
    return type.kind == CipKind::Signed ? CipValue::ofSigned(static_cast<std::int64_t>(whole))
                                        : CipValue::ofUnsigned(static_cast<std::uint64_t>(whole));
}

bool isWideWholeNumber(const CipType& type)
{
    return type.kind != CipKind::Real && type.size == 8;
}

bool isExact(double number)
{
    return std::abs(number) <= kMostExact;
}

// The digits of a decimal number from the first to the last that is not 0, and the power of ten of
// the first.
std::pair<QString, long long> decimalOf(const QString& text)
{
    const int e = text.indexOf('e', 0, Qt::CaseInsensitive);
    QString digits = text.left(e);
    digits.remove('-');
    const int point = digits.indexOf('.');
    const int whole = point < 0 ? digits.size() : point;
    digits.remove('.');
    int first = 0;
    while (first < digits.size() && digits.at(first) == '0')
        ++first;
    while (digits.endsWith('0'))
        digits.chop(1);
    if (digits.isEmpty())
        return {QString(), 0};
    const long long exponent = e < 0 ? 0 : text.mid(e + 1).toLongLong();
    return {digits.mid(first), exponent + whole - 1 - first};
}

// True when a real number is shown as another number than the text's.
bool isRoundedReal(const CipType& type, const CipValue& value, const QString& text)
{
    return type.kind == CipKind::Real && std::isfinite(value.number()) &&
           decimalOf(text) != decimalOf(valueText(value));
}

std::optional<double> finiteNumber(const QString& text)
{
    const std::string digits = text.toStdString();
    const char* end = digits.data() + digits.size();
    double number = 0;
    const auto result = std::from_chars(digits.data(), end, number);
    const bool good = result.ec == std::errc() && result.ptr == end && std::isfinite(number);
    return good ? std::make_optional(number) : std::nullopt;
}

QString numberText(double number)
{
    return valueText(CipValue::ofReal(number));
}

} // namespace

Scaling::Scaling(const Variable& variable)
    : m_gain(variable.gain), m_offset(variable.offset), m_raw(variable.raw)
{
}

Scaling Scaling::ofRaw()
{
    Scaling raw;
    raw.m_raw = true;
    return raw;
}

bool Scaling::scales(const CipType& type) const
{
    return !m_raw && isNumber(type) && (m_gain != 1 || m_offset != 0);
}

double Scaling::shownNumber(const CipType& type, const CipValue& value) const
{
    const double product = value.number() * m_gain;
    const double exact = product + m_offset;
    if (!std::isfinite(exact))
        return exact;
    const double scale = std::max({std::abs(product), std::abs(m_offset), std::abs(exact)});
    if (isWideReal(type) || scale == 0)
        return roundedTo(exact, scale, kDigitsOfWideReal);
    const bool real = type.kind == CipKind::Real;
    const int fewest = real ? kDigitsOfReal : kDigitsOfWholeNumber;
    for (int digits = fewest; digits <= kMostDigits; ++digits) {
        const double shown = roundedTo(exact, scale, digits);
        const std::optional<CipValue> back = nearestValue(type, (shown - m_offset) / m_gain);
        if (back && back->encode(type) == value.encode(type))
            return shown;
    }
    // The value makes no difference to the offset, or is beyond what a real number can hold.
    return roundedTo(exact, scale, real ? fewest : kMostDigits);
}

CipValue Scaling::shown(const CipType& type, const CipValue& value) const
{
    if (m_raw)
        return value;
    return scales(type) ? CipValue::ofReal(shownNumber(type, value)) : isoValue(type, value);
}

QString Scaling::text(const CipType& type, const CipValue& value) const
{
    return (m_raw && type.kind != CipKind::String) || scales(type) ? valueText(shown(type, value))
                                                                   : shownText(type, value);
}

StoredValue Scaling::stored(const CipType& type, const QString& text) const
{
    if (!scales(type)) {
        const CipValue value = parseElement(type, text);
        return {value, isRoundedReal(type, value, text)};
    }
    const std::optional<double> number = finiteNumber(text);
    const std::optional<CipValue> value =
        number ? nearestValue(type, (*number - m_offset) / m_gain) : std::nullopt;
    const bool inexact =
        value && isWideWholeNumber(type) && !(isExact(*number) && isExact(value->number()));
    if (!value || inexact)
        refuse(type, text);
    return {*value, shownNumber(type, *value) != *number};
}

void Scaling::refuse(const CipType& type, const QString& text) const
{
    const bool wide = isWideWholeNumber(type);
    const int digits = type.kind == CipKind::Real && !isWideReal(type) ? kDigitsOfReal
                       : wide                                          ? kMostDigits
                                                                       : kDigitsOfWideReal;
    const double most = wide ? kMostExact : std::numeric_limits<double>::max();
    const auto shown = [&](double limit) {
        const double number =
            std::clamp(std::clamp(limit, -most, most) * m_gain + m_offset, -most, most);
        return roundedTo(number, std::max(std::abs(number), std::abs(m_offset)), digits);
    };
    const auto [first, last] = rangeOf(type);
    QString allowed = numberText(std::min(shown(first), shown(last))) + QStringLiteral(" to ") +
                      numberText(std::max(shown(first), shown(last)));
    if (wide)
        allowed += QStringLiteral("; write the controller's own number with --raw for others");
    throw UserError((QStringLiteral("\"%1\" is not a value of type %2 with gain %3 and offset %4 "
                                    "(%5)")
                         .arg(text, QLatin1String(type.name), numberText(m_gain),
                              numberText(m_offset), allowed))
                        .toStdString());
}

QString Scaling::roundingNote(const CipType& type, const QString& text, const CipValue& value) const
{
    const QString stored = QStringLiteral("%1 is stored as %2").arg(text, valueText(value));
    return scales(type) ? stored + QStringLiteral(", which is ") + Scaling::text(type, value)
                        : stored;
}

} // namespace micro850::host
