#ifndef MICRO850_GATEWAY_WEB_WEBSERVICE_H
#define MICRO850_GATEWAY_WEB_WEBSERVICE_H

#include "WebNeeds.h"
#include "WebSettings.h"

#include <memory>

namespace micro850::gateway {

/// The page, the interface for programs, and the metrics. It listens where the settings say, if
/// they say so.
class WebService : public LineListener
{
public:
    /// Adds itself to the listeners of the lines. Throws UserError when it cannot listen, and for a
    /// token file that is not as it must be.
    WebService(const WebNeeds& needs, const WebSettings& settings);
    ~WebService() override;

    /// Settings of a new configuration. Throws UserError, and goes on as before, when it cannot
    /// listen. With the same settings nobody is disconnected.
    void change(const WebSettings& settings);
    /// "http://127.0.0.1:8850/"; empty when it is off.
    QString address() const;
    /// For the reply to "status": address, connections, readers, refusedLogins, refusedChanges, and
    /// the problem when it cannot listen. Null when it is off.
    Json status() const;

    /// Something that the gateway itself tells: the history stopped, a broker is gone.
    void tellAlarm(const LineEvent& event);

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
