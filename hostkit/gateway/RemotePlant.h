#ifndef MICRO850_HOST_GATEWAY_REMOTEPLANT_H
#define MICRO850_HOST_GATEWAY_REMOTEPLANT_H

#include "FreshReads.h"
#include "GatewayClient.h"
#include "GatewayLines.h"
#include "GrowingPause.h"
#include "Protocol.h"

#include <QtCore/QBitArray>
#include <QtCore/QHash>

namespace micro850::host {

/// A gateway's socket and one of its lines.
struct GatewayPlace
{
    QString path;
    QString line;
    QString client; ///< the name that the gateway gets of this program
};

/// Variables that a gateway polls. Those of the project that the gateway has too come as they
/// change; others are read through it. While the gateway is away, values are stale with that
/// reason, and it is looked for at growing intervals.
class RemotePlant : public Plant
{
public:
    /// Throws UserError when the gateway or the line is not there. Project and clock must live
    /// longer than this object.
    RemotePlant(const GatewayPlace& place, const Project& project, const Clock& clock);
    ~RemotePlant() override;
    RemotePlant(const RemotePlant&) = delete;
    RemotePlant& operator=(const RemotePlant&) = delete;

    void step() override;
    /// Asks for the last status.
    void finish() override;
    void setInterrupt(const std::function<bool()>& interrupt) override;

    const ValueStore& values() const override { return m_values; }
    ValueStore& values() override { return m_values; }
    Quality quality(int variable) const override;
    LineView line() const override { return m_status.line; }
    LineFigures figures() const override { return m_status.figures; }
    QVector<StationView> stationViews() const override { return m_status.stations; }

private:
    /// A variable of the gateway.
    struct Source
    {
        TagKey tag;
        int element = 0;
        int length = 1;
        const CipType* type = nullptr;
        QByteArray bytes;
        Quality quality = Quality::Never;
        QVector<int> variables; ///< of the project, that show some of its elements
    };
    void connect();
    void subscribe();
    void findSources();
    void addSource(const Variable& variable, const QHash<TagKey, QVector<int>>& variablesOf,
                   QVector<QBitArray>& found);
    bool isDisabled(const Variable& variable) const;
    void handleEvent(const JsonNode& event);
    void handleValues(const JsonNode& values);
    void handleAges(const JsonNode& ages);
    Duration firstAge(const GatewayValue& value) const;
    void store(const Source& source, Duration age);
    void requireTypes(const Source& source);
    void work();
    void askForStatus(Duration now);
    void takeStatus(const GatewayClient::Reply& reply);
    void handleLoss(const QString& why);
    void retry();

    GatewayPlace m_place;
    const Project& m_project;
    const Clock& m_clock;
    ValueStore m_values;
    std::function<bool()> m_interrupt;
    std::unique_ptr<GatewayClient> m_gateway; ///< null while it is away
    QHash<QString, Source> m_sources;         ///< by name
    QVector<QStringList> m_sourcesOf;         ///< by variable, the names of its sources
    FreshReads m_fresh;
    std::optional<qint64> m_subscription;
    LineStatus m_status;
    std::optional<qint64> m_statusRequest;
    Duration m_nextStatus{0};
    bool m_isReloaded = false;
    GrowingPause m_pause{std::chrono::milliseconds(250), std::chrono::seconds(5)};
    Duration m_nextTry{0};
};

} // namespace micro850::host

#endif
