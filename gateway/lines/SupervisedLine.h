#ifndef MICRO850_GATEWAY_LINES_SUPERVISEDLINE_H
#define MICRO850_GATEWAY_LINES_SUPERVISEDLINE_H

#include "ChangeFilter.h"
#include "LineImage.h"
#include "RequestQueue.h"
#include "Supervisor.h"

#include <QtCore/QMap>

namespace micro850::gateway {

/// How often SupervisedLine::tick() is called.
const std::chrono::milliseconds kTick(100);

/// A line of the service: its worker, the latest values, and the requests that wait.
class SupervisedLine : private Supervisor::Owner
{
public:
    /// Is told what happens.
    class Owner
    {
    public:
        virtual ~Owner() = default;
        /// A value is to be told, as its dead band and its heartbeat ask for.
        virtual void handleValue(const SupervisedLine& line, int variable) = 0;
        virtual void handleEvent(const LineEvent& event) = 0;
        virtual void handleNotice(const LineEvent& event) = 0;
    };

    /// The arguments but the settings must live longer than this object.
    SupervisedLine(Owner& owner, LineSettings settings, const Clock& clock,
                   const WallClock& wallClock, const SupervisionSettings& supervision);

    const LineSettings& settings() const { return m_settings; }
    const LineImage& image() const { return m_image; }
    Json status() const;
    /// Does what is due; see Supervisor::tick().
    void tick(bool mayStart);

    void ask(qint64 id, Json request, const LineService::Answer& answer);
    bool cancel(qint64 id) { return m_requests.cancel(id); }
    /// Sends requests that wait, or answers those that cannot be sent.
    void pumpRequests();

    /// Takes over values of the line that this one replaces.
    void keepValues(const SupervisedLine& old);
    /// Ends the worker and answers all requests; see Supervisor::retire().
    int retire(const QString& reason);

private:
    struct State
    {
        QString state;
        QString text;
    };
    QByteArray opening() override;
    void handleLine(const QByteArray& line) override;
    void handleEnd(const QString& how, Duration pause) override;
    void takeValues(const Json& values);
    void stamp(Json& values) const;
    void takeAges(const Json& event);
    void takeStatus(const Json& status);
    void takeState(const Json& event);
    void tell(int station, const State& state);
    bool isNews(int variable);
    void tellValue(int variable);
    void tellAll(const QVector<int>& variables);
    void markDown(const QString& reason);

    Owner& m_owner;
    const LineSettings m_settings;
    const Clock& m_clock;
    const WallClock& m_wallClock;
    const SupervisionSettings& m_supervision;
    LineImage m_image;
    host::ChangeFilter m_filter;
    Supervisor m_supervisor;
    RequestQueue m_requests;
    Json m_status; ///< as the worker told it last
    QString m_whyDown;
    QString m_overload;        ///< told last; empty when the line holds its intervals
    QMap<int, State> m_states; ///< told last, by station; -1 for the line
    // Of a worker that ends again and again for the same reason, nothing is told until one works.
    bool m_isMuted = false;
    QMap<int, State> m_untold;
    std::optional<QString> m_lastEnd; ///< how the last worker ended that did not work for long
};

} // namespace micro850::gateway

#endif
