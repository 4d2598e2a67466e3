#include "Duration.h"

#include <QtCore/QRegularExpression>

namespace micro850::host {

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

int microsecondsPerUnit(const CipType& type)
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

QString durationText(qint64 microseconds)
{
    // The lowest number has no counterpart above 0.
    quint64 rest = microseconds < 0 ? 0 - static_cast<quint64>(microseconds)
                                    : static_cast<quint64>(microseconds);
    const auto take = [&rest](qint64 unit, char letter) {
        const quint64 count = rest / static_cast<quint64>(unit);
        rest %= static_cast<quint64>(unit);
        return count == 0 ? QString() : QString::number(count) + letter;
    };
    const QString days = take(kSecond * 86400, 'D');
    QString time = take(kSecond * 3600, 'H');
    time += take(kSecond * 60, 'M');
    if (rest != 0 || (days.isEmpty() && time.isEmpty())) {
        QString seconds = QStringLiteral("%1.%2")
                              .arg(rest / kSecond)
                              .arg(rest % kSecond, 6, 10, QLatin1Char('0'));
        while (seconds.endsWith('0'))
            seconds.chop(1);
        time += (seconds.endsWith('.') ? seconds.chopped(1) : seconds) + 'S';
    }
    return QLatin1String(microseconds < 0 ? "-P" : "P") + days +
           (time.isEmpty() ? QString() : 'T' + time);
}

} // namespace micro850::host
