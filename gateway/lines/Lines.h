#ifndef MICRO850_GATEWAY_LINES_LINES_H
#define MICRO850_GATEWAY_LINES_LINES_H

#include "SupervisedLine.h"

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <memory>
#include <vector>

namespace micro850::gateway {

/// The lines of the service, each with a worker process. It needs an event loop.
class Lines : public LineService, private SupervisedLine::Owner
{
public:
    /// The clocks must live longer than this object.
    Lines(const Clock& clock, const WallClock& wallClock,
          SupervisionSettings supervision = SupervisionSettings());
    /// Workers that are left are killed.
    ~Lines() override;

    /// The lines from now on. Lines with the same name, project and file stay untouched. Workers of
    /// others end; of a line that changed, unchanged variables keep their values. Listeners are
    /// told unless nothing changed.
    void setLines(const QVector<LineSettings>& lines);
    /// Does what is due. A timer of this object calls it; tests with a clock of their own call it
    /// themselves.
    void tick();
    /// Ends all workers in order and answers all requests. No other worker is started.
    void stop();
    /// True when every worker that was to end has ended.
    bool haveEnded() const { return m_retiring.empty(); }

    int size() const override { return static_cast<int>(m_lines.size()); }
    const LineSettings& line(int index) const override;
    const GatewayValue& latest(int line, int variable) const override;
    qint64 ageMs(int line, int variable) const override;
    Json status(int line) const override;
    qint64 ask(int line, Json request, const Answer& answer) override;
    void cancel(qint64 asked) override;
    void addListener(LineListener& listener) override;
    void removeListener(LineListener& listener) override;
    void reportWrite(const JournalEntry& entry) override;

private:
    struct Retiring
    {
        int pid;
        Duration killAt;
        bool isKilled;
    };
    using LineList = std::vector<std::unique_ptr<SupervisedLine>>;
    void handleValue(const SupervisedLine& line, int variable) override;
    void handleEvent(const LineEvent& event) override;
    void handleNotice(const LineEvent& event) override;
    template<typename Tell> void tellAll(Tell tell);
    std::unique_ptr<SupervisedLine> takeUnchanged(const LineSettings& settings);
    void retire(SupervisedLine& line, const QString& reason);
    void reapRetiring();

    const Clock& m_clock;
    const WallClock& m_wallClock;
    const SupervisionSettings m_supervision;
    LineList m_lines;
    std::vector<LineListener*> m_listeners; ///< null for one that was removed while all are told
    int m_telling = 0;
    std::vector<Retiring> m_retiring;
    bool m_stopped = false;
    qint64 m_lastAsked = 0;
    QTimer m_ticks;
    QTimer m_pumps; ///< sends requests, after the caller has returned
};

} // namespace micro850::gateway

#endif
