#ifndef MICRO850_GATEWAY_HISTORY_HISTORYSERVICE_H
#define MICRO850_GATEWAY_HISTORY_HISTORYSERVICE_H

#include "Clock.h"
#include "HistorySettings.h"
#include "HistorySource.h"
#include "LineService.h"
#include "WallClock.h"

#include <memory>

namespace micro850::gateway {

/// Records what happens on the lines, on a thread of its own: it never blocks the event loop. A
/// disk that is full, a file that cannot be written or a file that is damaged raises an alarm and
/// stops nothing but the recording, which goes on by itself as soon as it can.
class HistoryService : public LineListener, public HistorySource
{
public:
    /// Is told when the recording stops and goes on, on the thread of the event loop. The event has
    /// no line; its state is "history recording", "history stopped" or "history set aside".
    using Alarm = std::function<void(const LineEvent& event)>;

    /// Adds itself to the listeners of the lines. The clocks and the lines must outlive it.
    HistoryService(LineService& lines, const HistorySettings& settings, const Clock& clock,
                   const WallClock& wallClock, Alarm alarm);
    /// Records what waits, unless the disk refuses, and closes the file.
    ~HistoryService() override;

    /// Settings of a new configuration. Another file is begun or continued; what the old one has
    /// stays in it.
    void change(const HistorySettings& settings);
    /// Waits until everything so far is recorded, or the recording stopped. For tests.
    void flush();

    void query(const HistoryQuery& query, const Answered& answered) override;
    void trend(const TrendQuery& query,
               const std::function<void(TrendAnswer answer)>& answered) override;
    void events(const RecordQuery& query, const Answered& answered) override;
    void writes(const RecordQuery& query, const Answered& answered) override;
    Json status() const override;

    void handleValue(int line, int variable) override;
    void handleEvent(const LineEvent& event) override;
    void handleNotice(const LineEvent& event) override;
    void handleWrite(const JournalEntry& entry) override;
    void handleReload() override;

private:
    class Private;
    std::unique_ptr<Private> m_private;
};

} // namespace micro850::gateway

#endif
