#ifndef MICRO850_GATEWAY_WEB_WEBNEEDS_H
#define MICRO850_GATEWAY_WEB_WEBNEEDS_H

#include "HistorySource.h"
#include "WallClock.h"
#include "WriteRules.h"

#include <functional>

namespace micro850::gateway {

/// What the web server needs of the gateway. All must outlive it.
struct WebNeeds
{
    LineService& lines;
    WriteRules& writes;
    HistorySource& history;
    const Clock& clock;
    const WallClock& wallClock;
    QString program; ///< "micro850-gateway 0.1.0"
    /// The reply to "status" without an id: program, uptimeS, memoryKb, clients, lines, history,
    /// delivery.
    std::function<Json()> status;
    /// Logs a line that is a warning.
    std::function<void(const QString& line)> warn = nullptr;
    /// Tells everybody what became of the web server itself.
    std::function<void(const LineEvent& event)> alarm = nullptr;
};

} // namespace micro850::gateway

#endif
