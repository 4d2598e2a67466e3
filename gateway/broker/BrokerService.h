#ifndef MICRO850_GATEWAY_BROKER_BROKERSERVICE_H
#define MICRO850_GATEWAY_BROKER_BROKERSERVICE_H

#include "BrokerSettings.h"
#include "LineService.h"
#include "Supervisor.h"
#include "WriteRules.h"

#include <memory>

namespace micro850::gateway {

/// Feeds the processes that deliver values to brokers, one for each section of the configuration.
/// What a process has not committed to its queue is kept here, a bounded number of values, so that
/// its death loses nothing. Orders that come from a broker are decided by the rules for writes.
class BrokerService : public LineListener
{
public:
    /// Adds itself to the listeners of the lines. All must outlive it. `alarm` is told what the log
    /// and the clients should know: a broker that is gone or back, values that were lost.
    /// `supervision` starts the processes; see runDelivery().
    using Alarm = std::function<void(const LineEvent& event)>;
    BrokerService(LineService& lines, WriteRules& writes, const BrokerSettings& settings,
                  const Clock& clock, const WallClock& wallClock,
                  const SupervisionSettings& supervision, Alarm alarm);
    ~BrokerService() override;

    /// Settings of a new configuration. A process whose settings did not change goes on.
    void change(const BrokerSettings& settings);
    /// How these differ from the settings now, for the log: "mqtt changed". Empty without any.
    QStringList changesTo(const BrokerSettings& settings) const;
    /// Does what is due. A timer of this object calls it; tests with a clock of their own call it
    /// themselves.
    void tick();
    /// Ends the processes in order: what came so far is on disk then. No other one is started.
    void stop();
    bool haveEnded() const;
    /// {"mqtt": {...}, "sparkplug": {...}}: what is configured, with what the processes told last.
    Json status() const;
    /// How many brokers are configured, and how many of them are connected.
    int size() const;
    int connected() const;

    void handleValue(int line, int variable) override;
    void handleEvent(const LineEvent& event) override;
    void handleNotice(const LineEvent& event) override;
    void handleReload() override;

private:
    class Private;
    std::unique_ptr<Private> m_private;
};

} // namespace micro850::gateway

#endif
