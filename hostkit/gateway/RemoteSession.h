#ifndef MICRO850_HOST_GATEWAY_REMOTESESSION_H
#define MICRO850_HOST_GATEWAY_REMOTESESSION_H

#include "GatewayClient.h"
#include "TagAccess.h"

#include <QtCore/QHash>

namespace micro850::host {

/// Single reads and writes through a gateway, on one of its lines. A gateway that goes away while a
/// write is under way leaves its outcome open. What the gateway's rules do not allow is refused as
/// the controller refuses.
class RemoteSession : public TagAccess
{
public:
    /// The gateway must live longer than this object.
    RemoteSession(GatewayClient& gateway, const QString& line) : m_gateway(gateway), m_line(line) {}

    void setInterrupt(const std::function<bool()>& interrupt) override;
    const CipType& typeOf(const TagKey& tag) override;
    QVector<QByteArray> read(const TagKey& tag, int element, int elements,
                             const std::function<void(int)>& progress = nullptr) override;
    void requireElements(const TagKey& tag, int element, int elements) override;
    /// What the rules of the gateway say.
    void requireAllowed(const TagKey& tag, int element, const QByteArray& value) override;
    void write(const TagKey& tag, int element, const QByteArray& value) override;
    void finish() override {}

private:
    Json requestFor(const char* name, const TagKey& tag) const;
    Json writeRequest(const TagKey& tag, int element, const QByteArray& value);
    QVector<QByteArray> readRun(const TagKey& tag, int element, int elements);
    void awaitWrite(qint64 id);
    void takeBack(qint64 id);

    GatewayClient& m_gateway;
    QString m_line;
    std::function<bool()> m_interrupt;
    QHash<TagKey, const CipType*> m_types;
};

} // namespace micro850::host

#endif
