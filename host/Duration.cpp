#include "Duration.h"

#include <QtCore/QRegularExpression>

namespace host {

namespace {

const qint64 kSecond = 1000000;

struct Unit
{
    int group; ///< of the expression below
    qint64 microseconds;
};

const Unit kUnits[] = {
    {2, kSecond * 86400 * 7}, {3, kSecond * 86400}, {4, kSecond * 3600}, {5, kSecond * 60}};
const int kSeconds = 6;
const int kFraction = 7;

} // namespace

int microsecondsPerUnit(const micro850::CipType& type)
{
    const std::string name = type.name;
    if (name == "TIME" || name == "ITIME" || name == "STIME")
        return 1000;
    return name == "FTIME" || name == "LTIME" ? 1 : 0;
}

std::optional<qint64> durationFromText(const QString& text)
{
    static const QRegularExpression form(
        QStringLiteral("^([+-]?)P(?=\\d|T\\d)(?:(\\d{1,9})W)?(?:(\\d{1,9})D)?(?:T(?=\\d)(?:(\\d{1,9"
                       "})H)?(?:(\\d{1,9})M)?(?:(\\d{1,12})(?:\\.(\\d{1,6}))?S)?)?$"));
    const QRegularExpressionMatch match = form.match(text);
    if (!match.hasMatch())
        return std::nullopt;
    double estimate = match.captured(kSeconds).toDouble() * static_cast<double>(kSecond);
    quint64 sum = match.captured(kSeconds).toULongLong() * static_cast<quint64>(kSecond);
    for (const Unit& unit : kUnits) {
        const QString digits = match.captured(unit.group);
        estimate += digits.toDouble() * static_cast<double>(unit.microseconds);
        sum += digits.toULongLong() * static_cast<quint64>(unit.microseconds);
    }
    if (estimate > 9e18)
        return std::nullopt;
    sum += match.captured(kFraction).leftJustified(6, '0').toULongLong();
    const auto value = static_cast<qint64>(sum);
    return match.captured(1) == QLatin1String("-") ? -value : value;
}

} // namespace host
