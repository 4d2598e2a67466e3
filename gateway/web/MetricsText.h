#ifndef MICRO850_GATEWAY_WEB_METRICSTEXT_H
#define MICRO850_GATEWAY_WEB_METRICSTEXT_H

#include "CounterLedger.h"

#include <QtCore/QPair>
#include <QtCore/QString>
#include <QtCore/QVector>

namespace micro850::gateway {

/// A metric as docs/monitoring.md describes it.
struct MetricFamily
{
    const char* name;
    const char* type;
    const char* help;
};

/// Numbers in the text format of Prometheus, whose families stand together.
class MetricsText
{
public:
    /// In place of a number of a bucket: the sum and the count of a histogram.
    static constexpr int kSum = 1000;
    static constexpr int kCount = 1001;

    /// `limits` are those of the buckets of histograms, in seconds as text: "0.005".
    MetricsText(const QVector<MetricFamily>& families, QVector<QByteArray> limits);

    using Labels = QVector<QPair<const char*, QString>>;
    /// `line="press",station="1"`. Whatever stands in a value, the text stays one label.
    static QByteArray labels(const Labels& labels);

    /// The family must be one of those that were given.
    void add(const char* family, const Labels& labels, double value);
    void add(const MetricNumbers& numbers);

    /// Each family that has a number, after its HELP and its TYPE, in the order that was given.
    QByteArray text() const;

private:
    void add(const MetricKey& key, double value);

    const QVector<MetricFamily>& m_families;
    const QVector<QByteArray> m_limits;
    QMap<QByteArray, QByteArray> m_lines; ///< by family
};

} // namespace micro850::gateway

#endif
