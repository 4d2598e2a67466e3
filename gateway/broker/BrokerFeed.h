#ifndef MICRO850_GATEWAY_BROKER_BROKERFEED_H
#define MICRO850_GATEWAY_BROKER_BROKERFEED_H

#include "LineService.h"
#include "Supervisor.h"

#include <QtCore/QHash>

#include <deque>
#include <functional>

namespace micro850::gateway {

/// One process that delivers, and what it has not kept yet. It gets everything in the order in
/// which it was added; runDelivery() describes the messages.
class BrokerFeed : private Supervisor::Owner
{
public:
    /// What the feed asks of its owner.
    class Owner
    {
    public:
        virtual ~Owner() = default;
        virtual Json catalogue() = 0;
        /// The latest value of each variable that was read, encoded, and the states that hold.
        virtual void visitCurrent(BrokerFeed& feed) = 0;
        /// An order from the broker. `answer` is called once with the reply.
        virtual void order(const BrokerFeed& feed, const Json& order,
                           const std::function<void(const Json& reply)>& answer) = 0;
        /// Something that the log and the clients should know.
        virtual void tell(const QString& state, const QString& text) = 0;
    };
    /// What a message is about: the line, and the variable or the station.
    using Subject = QPair<QString, QString>;

    /// `kind` is that of the section of the configuration. Owner, clocks and supervision must
    /// outlive it.
    BrokerFeed(Owner& owner, const QString& kind, const Json& settings, const Clock& clock,
               const SupervisionSettings& supervision);
    /// A process that is left is killed.
    ~BrokerFeed() override;
    BrokerFeed(const BrokerFeed&) = delete;
    BrokerFeed& operator=(const BrokerFeed&) = delete;

    const QString& kind() const { return m_kind; }
    const Json& settings() const { return m_settings; }
    /// Other settings: the process ends in order, and the next one gets what was not kept.
    void change(const Json& settings);
    void tick();
    /// Ends the process in order, once it has all that was added. One that is down is started once
    /// more when something is held for it.
    void stop();
    bool hasEnded() const;
    Json status() const;
    /// As the process that runs told last.
    bool isConnected() const;

    void addValue(const Subject& subject, const QByteArray& value, qint64 time);
    /// `event` has neither "event" nor "number".
    void addEvent(const char* kind, const Subject& subject, const Json& event);
    /// While visited only: what the process shall know, but not deliver.
    void addCurrentValue(const Subject& subject, const QByteArray& value);
    void addCurrentState(const Subject& subject, const Json& event);
    /// The variables are others: the catalogue is sent again before the next value.
    void noteCatalogue() { m_hasNewCatalogue = true; }
    /// The controller has told a type: the catalogue is sent again, at most once a second.
    void noteType() { m_hasNewType = true; }
    void forget(const std::function<bool(const Subject& subject)>& isGone);
    /// The status of all lines; dropped while the process does not read.
    void sendStatus(const Json& lines);

    /// What is kept for a process that does not run, in bytes.
    static constexpr qint64 kMostHeld = qint64(16) * 1024 * 1024;

private:
    struct Entry
    {
        bool isValue = false;
        qint64 time = 0;
        QByteArray text; ///< of an event without its number
    };
    QByteArray opening() override;
    void handleLine(const QByteArray& line) override;
    void handleEnd(const QString& how, Duration pause) override;
    void takeOpened(const Json& message);
    void takeStatus(const Json& message);
    void takeKept(qint64 number);
    void takeOrder(const Json& message);
    void takeLog(const Json& message);
    void add(const Subject& subject, Entry entry);
    void removeOldest();
    void tellLeftOut();
    void pump();
    bool isGone() const;
    bool takesMore() const;
    void sendCatalogue();
    void sendCurrent();
    bool sendNext();
    QByteArray valuesFrom(qint64& number) const;
    const Entry& entry(qint64 number) const;
    qint64 last() const { return m_first + static_cast<qint64>(m_held.size()) - 1; }
    bool mayStartOnceMore() const;
    void tellNotKept();
    void noteUnanswered(const Json& order, const Json& reply);
    void report(const QString& state, const QString& text);

    Owner& m_owner;
    const QString m_kind;
    Json m_settings;
    const Clock& m_clock;
    const SupervisionSettings& m_supervision;
    const QString m_run; ///< names the numbering
    Supervisor m_supervisor;
    std::deque<Entry> m_held; ///< what the process has not kept
    qint64 m_first = 1;       ///< the number of the first one
    qint64 m_next = 1;        ///< to be sent
    qint64 m_lastSent = 0;    ///< to any process
    qint64 m_lastKept = 0;
    qint64 m_lastUncovered = 0; ///< was sent, and is not held any more although it was not kept
    qint64 m_bytes = 0;         ///< of what is held
    qint64 m_leftOut = 0;
    bool m_toldLeftOut = false;
    QHash<Subject, qint64> m_numbers; ///< of the last message about each subject
    bool m_isOpen = false;            ///< the process has told what it kept
    bool m_hasNewCatalogue = true;
    bool m_hasNewType = false;
    Duration m_nextCatalogue{0};
    bool m_isLeaving = false; ///< the process was told to stop, or is to be told
    bool m_toldToLeave = false;
    bool m_isStopping = false;
    int m_startsBeforeStop = 0;
    bool m_toldNotKept = false;
    Duration m_killAt{0};
    int m_killed = -1;
    QTimer m_pumps;
    QByteArray m_current; ///< values that are being put together
    Json m_status;        ///< as the process told it last
    QString m_whyDown;
    std::optional<QString> m_lastEnd; ///< how the last process ended that did not work for long
    std::shared_ptr<bool> m_alive;    ///< of the process that runs
    std::shared_ptr<bool> m_self;     ///< of this object
    int m_unanswered = 0;             ///< replies that came for processes that had ended
};

} // namespace micro850::gateway

#endif
