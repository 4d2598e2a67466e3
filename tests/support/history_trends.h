#ifndef MICRO850_TESTS_HISTORY_TRENDS_H
#define MICRO850_TESTS_HISTORY_TRENDS_H

#include "history_rows.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

// Trends as they must be, from the values themselves.

namespace history {

inline micro850::host::HistoryTrend trendOf(const QString& path,
                                            const micro850::host::TrendRequest& request)
{
    return micro850::host::HistoryReader(path).trend(request, [] { return false; });
}

/// The number that a value has at an element, NaN where it is not good or no number.
inline double numberOf(const micro850::host::HistoryValue& row, int element)
{
    const micro850::host::Json& shown =
        row.variable->length == 1 ? row.value : row.value.at(static_cast<std::size_t>(element));
    if (row.quality != "good")
        return std::nan("");
    if (shown.is_boolean())
        return shown == true ? 1 : 0;
    return shown.is_number() ? shown.get<double>() : std::nan("");
}

/// The value that holds on at a time, for parts without a record.
using Carried = std::function<double(qint64 time)>;

/// The points of parts, each from the values in it.
inline std::vector<micro850::host::TrendPoint>
expectedParts(const std::vector<micro850::host::HistoryValue>& rows,
              const micro850::host::TrendRequest& request, qint64 length, const Carried& carried)
{
    std::vector<micro850::host::TrendPoint> points;
    for (qint64 begin = request.from; begin < request.to; begin += length) {
        std::vector<const micro850::host::HistoryValue*> inside;
        for (const auto& row : rows) {
            const bool isWanted =
                row.variable->name == request.name && row.variable->line == request.line;
            if (isWanted && row.time >= begin && row.time < std::min(begin + length, request.to))
                inside.push_back(&row);
        }
        std::sort(inside.begin(), inside.end(), [](const auto* one, const auto* other) {
            return std::make_pair(one->time, one->sequence) <
                   std::make_pair(other->time, other->sequence);
        });
        micro850::host::TrendPoint point{begin, std::nan(""), std::nan(""), std::nan("")};
        if (inside.empty())
            point.least = point.greatest = point.last = carried(begin);
        for (const auto* row : inside) {
            const double number = numberOf(*row, request.element);
            if (std::isnan(number))
                continue;
            point.least = std::isnan(point.least) ? number : std::min(point.least, number);
            point.greatest = std::isnan(point.greatest) ? number : std::max(point.greatest, number);
            point.last = number;
        }
        points.push_back(point);
    }
    return points;
}

inline bool isSame(double one, double other)
{
    return (std::isnan(one) && std::isnan(other)) || one == other;
}

inline std::string textOf(const micro850::host::TrendPoint& point)
{
    return std::to_string(point.time) + ": " + std::to_string(point.least) + ' ' +
           std::to_string(point.greatest) + ' ' + std::to_string(point.last);
}

/// What is different; empty for the same points.
template<typename Points>
std::string difference(const Points& points,
                       const std::vector<micro850::host::TrendPoint>& expected)
{
    if (static_cast<std::size_t>(points.size()) != expected.size())
        return std::to_string(points.size()) + " points, not " + std::to_string(expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const micro850::host::TrendPoint& point = points[static_cast<int>(i)];
        if (point.time != expected[i].time || !isSame(point.least, expected[i].least) ||
            !isSame(point.greatest, expected[i].greatest) || !isSame(point.last, expected[i].last))
            return "point " + std::to_string(i) + ": " + textOf(point) + ", not " +
                   textOf(expected[i]);
    }
    return std::string();
}

} // namespace history

#endif
