#ifndef MICRO850_GATEWAY_WEB_RECENTTRENDS_H
#define MICRO850_GATEWAY_WEB_RECENTTRENDS_H

#include "Router.h"
#include "WebContext.h"

#include <QtCore/QTimer>

#include <array>
#include <map>
#include <optional>

namespace micro850::gateway {

/// The last ten minutes of all variables that are one number, in memory.
class RecentTrends
{
public:
    explicit RecentTrends(WebContext& context);
    RecentTrends(const RecentTrends&) = delete;
    RecentTrends& operator=(const RecentTrends&) = delete;

    /// "/api/v1/trends"
    void addRoutes(Router& router);
    void addValue(int number);
    /// The index was rebuilt: trends of variables that are the same go on.
    void handleReload();
    /// Begins the next parts when their time has come. A timer calls it; tests may, too.
    void proceed();

    static constexpr int kPoints = 60;
    static constexpr int kStepMs = 10000;

private:
    /// Least and greatest value in a part of the time; NaN: none.
    struct Part
    {
        float least;
        float greatest;
    };
    struct Trend
    {
        int number = 0;             ///< of the variable
        std::optional<double> last; ///< the newest value, if it is good
        std::array<Part, kPoints> parts;
    };
    QByteArray textOf(const Trend& trend) const;
    void answer(const HttpExchangePointer& exchange);
    static void take(Part& part, double value);
    void beginPart();

    WebContext& m_context;
    std::map<quint64, Trend> m_trends; ///< by the identity of the variable
    int m_current = 0;                 ///< the part that grows
    Duration m_partEnds;
    QTimer m_timer;
};

} // namespace micro850::gateway

#endif
