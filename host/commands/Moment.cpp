#include "Moment.h"

#include "DurationText.h"
#include "UserError.h"
#include "VisibleText.h"

#include <QtCore/QDateTime>
#include <QtCore/QRegularExpression>

#include <ctime>
#include <optional>
#include <vector>

namespace micro850::host {

namespace {

const std::int64_t kSecond = 1000; // milliseconds

[[noreturn]] void fail(const std::string& option, const std::string& text, const std::string& what)
{
    throw UserError(option + ": " + inQuotes(text) + ' ' + what);
}

// Milliseconds of "-15min" and the like.
std::optional<std::int64_t> beforeNow(const QString& text)
{
    static const QRegularExpression form(QStringLiteral("^-([0-9]{1,9})(s|min|h|d|w)$"));
    const QRegularExpressionMatch match = form.match(text);
    if (match.hasMatch()) {
        const QString unit = match.captured(2);
        const std::int64_t seconds = unit == QLatin1String("s")     ? 1
                                     : unit == QLatin1String("min") ? 60
                                     : unit == QLatin1String("h")   ? 3600
                                     : unit == QLatin1String("d")   ? 86400
                                                                    : 7 * 86400;
        return match.captured(1).toLongLong() * seconds * kSecond;
    }
    if (!text.startsWith(QLatin1String("-P")))
        return std::nullopt;
    const std::optional<std::int64_t> microseconds = parseDuration(text.mid(1).toStdString());
    return microseconds ? std::optional<std::int64_t>(*microseconds / 1000) : std::nullopt;
}

// The moments at which clocks here show this: none, one, or two.
std::vector<std::int64_t> localMoments(const QDate& date, const QTime& time)
{
    std::vector<std::int64_t> moments;
    for (const int summer : {1, 0}) {
        std::tm wanted = {};
        wanted.tm_year = date.year() - 1900;
        wanted.tm_mon = date.month() - 1;
        wanted.tm_mday = date.day();
        wanted.tm_hour = time.hour();
        wanted.tm_min = time.minute();
        wanted.tm_sec = time.second();
        wanted.tm_isdst = summer;
        const std::time_t seconds = std::mktime(&wanted);
        std::tm shown = {};
        if (::localtime_r(&seconds, &shown) == nullptr || shown.tm_hour != time.hour() ||
            shown.tm_min != time.minute() || shown.tm_mday != date.day())
            continue;
        const std::int64_t moment = std::int64_t(seconds) * kSecond + time.msec();
        if (moments.empty() || moments.back() != moment)
            moments.push_back(moment);
    }
    return moments;
}

// Of "Z", "+01:00" and "+0100".
int offsetSeconds(const QString& text)
{
    if (text == QLatin1String("Z"))
        return 0;
    const QString digits = text.mid(1).remove(QLatin1Char(':'));
    const int seconds = digits.left(2).toInt() * 3600 + digits.mid(2).toInt() * 60;
    return text.startsWith(QLatin1Char('-')) ? -seconds : seconds;
}

} // namespace

std::int64_t momentOf(const std::string& text, const std::string& option, Bound bound,
                      std::int64_t now)
{
    const QString asked = QString::fromStdString(text);
    if (asked == QLatin1String("now"))
        return now;
    if (const std::optional<std::int64_t> before = beforeNow(asked))
        return now - *before;
    static const QRegularExpression form(
        QStringLiteral("^([0-9]{4}-[0-9]{2}-[0-9]{2})(?:[T ]([0-9]{2}:[0-9]{2})(:[0-9]{2}(?:[.,]"
                       "[0-9]{1,3})?)? ?(Z|[+-][0-9]{2}:?[0-9]{2})?)?$"));
    const QRegularExpressionMatch match = form.match(asked);
    if (!match.hasMatch())
        fail(option, text,
             "is no time (use 2026-11-22T14:30, with an offset such as +01:00 or in local time, or "
             "-15min, -1h, -7d)");
    const QDate date = QDate::fromString(match.captured(1), Qt::ISODate);
    const QString seconds = match.captured(3).isEmpty() ? QStringLiteral(":00") : match.captured(3);
    const QTime time = match.captured(2).isEmpty()
                           ? QTime(0, 0)
                           : QTime::fromString(match.captured(2) + seconds, Qt::ISODateWithMs);
    if (!date.isValid() || !time.isValid())
        fail(option, text, "is no time: the calendar or the clock does not have it");
    if (!match.captured(4).isEmpty()) {
        const QDateTime utc(date, time, Qt::UTC);
        return utc.toMSecsSinceEpoch() - offsetSeconds(match.captured(4)) * kSecond;
    }
    const std::vector<std::int64_t> moments = localMoments(date, time);
    if (moments.empty())
        fail(option, text,
             "does not come: the clock is set forward over it (give an offset such as +01:00)");
    return bound == Bound::From ? moments.front() : moments.back();
}

} // namespace micro850::host
