#ifndef MICRO850_GATEWAY_LOG_H
#define MICRO850_GATEWAY_LOG_H

#include "LineService.h"

namespace micro850::gateway {

/// How much a message matters, as the system's journal counts.
enum class Priority { Error = 3, Warning = 4, Notice = 5, Info = 6 };

/// Writes a line to standard error: for the journal with its priority, for others with the name of
/// the program.
void log(Priority priority, const QString& text);

/// Logs the events of the lines.
class EventLog : public LineListener
{
public:
    void handleEvent(const LineEvent& event) override;
    void handleNotice(const LineEvent& event) override { handleEvent(event); }
};

} // namespace micro850::gateway

#endif
