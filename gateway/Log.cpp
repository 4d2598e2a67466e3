#include "Log.h"

#include "VisibleText.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace micro850::gateway {

namespace {

// The system names the device and the inode of the journal's socket: the stream may be another one
// by now.
bool isJournal()
{
    const char* const named = std::getenv("JOURNAL_STREAM");
    struct stat stream = {};
    if (!named || ::fstat(STDERR_FILENO, &stream) != 0)
        return false;
    return named == std::to_string(stream.st_dev) + ':' + std::to_string(stream.st_ino);
}

Priority priorityOf(const QString& state)
{
    const bool isGood = state == QLatin1String("up") || state == QLatin1String("connected") ||
                        state == QLatin1String("disabled") ||
                        state == QLatin1String("overload ended") ||
                        state == QLatin1String("history recording") ||
                        state == QLatin1String("page served") || state == QLatin1String("delivery");
    if (isGood)
        return Priority::Info;
    const bool isEnd =
        state == QLatin1String("worker ended") || state == QLatin1String("delivery ended");
    return isEnd ? Priority::Error : Priority::Warning;
}

} // namespace

// One call: lines of several threads do not mix.
void log(Priority priority, const QString& text)
{
    static const bool forJournal = isJournal();
    std::string line = forJournal ? '<' + std::to_string(static_cast<int>(priority)) + '>'
                                  : std::string("micro850-gateway: ");
    line += visible(text.toStdString()) + '\n';
    // Nobody is left to tell when that fails.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

void EventLog::handleEvent(const LineEvent& event)
{
    QString text;
    if (!event.line.isEmpty())
        text += event.line + QStringLiteral(": ");
    if (event.station >= 0)
        text += QStringLiteral("station %1: ").arg(event.station);
    log(priorityOf(event.state), text + event.text);
}

} // namespace micro850::gateway
