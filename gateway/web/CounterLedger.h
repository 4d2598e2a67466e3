#ifndef MICRO850_GATEWAY_WEB_COUNTERLEDGER_H
#define MICRO850_GATEWAY_WEB_COUNTERLEDGER_H

#include <QtCore/QByteArray>
#include <QtCore/QMap>
#include <QtCore/QSet>

#include <tuple>

namespace micro850::gateway {

/// One number of a metric: its family, its labels, and which bucket when it is of a histogram.
struct MetricKey
{
    QByteArray family;
    QByteArray labels; ///< as the text format has them, without braces; see MetricsText
    int bucket = -1;   ///< see MetricsText::kSum

    bool operator<(const MetricKey& other) const
    {
        return std::tie(family, labels, bucket) <
               std::tie(other.family, other.labels, other.bucket);
    }
};
using MetricNumbers = QMap<MetricKey, double>;

/// Counters that go on when the process that counts is replaced by one that begins at zero. The
/// counters of a process are a group: when one of them went back, another process counts.
class CounterLedger
{
public:
    /// What the process of the group counts now.
    void take(const QByteArray& group, const MetricNumbers& counts);
    /// What all processes of the group have counted.
    MetricNumbers totals(const QByteArray& group) const;
    /// Forgets the other groups.
    void keepOnly(const QSet<QByteArray>& groups);

private:
    struct Group
    {
        MetricNumbers before; ///< of the processes that ended
        MetricNumbers now;
    };
    QMap<QByteArray, Group> m_groups;
};

} // namespace micro850::gateway

#endif
