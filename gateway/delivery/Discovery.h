#ifndef MICRO850_GATEWAY_DELIVERY_DISCOVERY_H
#define MICRO850_GATEWAY_DELIVERY_DISCOVERY_H

#include "Catalogue.h"
#include "Topics.h"

namespace micro850::gateway {

/// How Home Assistant is told of a variable.
struct DiscoveryEntry
{
    QByteArray topic;
    host::Json configuration;
};

/// Announces variables to Home Assistant.
class Discovery
{
public:
    /// `discoveryPrefix` is Home Assistant's, `prefix` that of our topics. Without `takesOrders`
    /// no variable is announced as one that can be written.
    Discovery(const QString& discoveryPrefix, const QString& prefix, bool takesOrders);

    bool isWanted() const { return !m_prefix.isEmpty(); }
    /// The entry of a variable whose type is known.
    DiscoveryEntry entryOf(const CatalogueVariable& variable) const;
    /// All topics that its entry can have, whatever its type is.
    QVector<QByteArray> topicsOf(const CatalogueVariable& variable) const;
    /// Home Assistant tells here that it has started.
    QByteArray birthTopic() const { return m_prefix + "/status"; }

private:
    QByteArray topicOf(const CatalogueVariable& variable, const char* component) const;
    host::Json deviceOf(const CatalogueVariable& variable) const;
    QByteArray idOf(const CatalogueVariable& variable, bool isDevice) const;

    QByteArray m_prefix;
    QString m_ownPrefix;
    Topics m_topics;
    bool m_takesOrders;
};

/// The unit as Home Assistant writes it, and the classes that it implies; empty: none.
struct UnitClass
{
    QString unit;
    const char* deviceClass = "";
    const char* stateClass = "measurement";
};
UnitClass unitClassOf(const QString& unit);

} // namespace micro850::gateway

#endif
