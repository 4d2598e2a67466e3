#ifndef MICRO850_GATEWAY_WEB_METRICS_H
#define MICRO850_GATEWAY_WEB_METRICS_H

#include "Guard.h"
#include "HttpServer.h"
#include "LineService.h"
#include "MetricsText.h"
#include "Router.h"

#include <functional>
#include <memory>

namespace micro850::gateway {

/// What the metrics are made of.
struct MetricsNeeds
{
    LineService& lines; ///< must outlive the metrics
    /// The reply to "status"; see WebNeeds.
    std::function<Json()> status;
    /// Of the server that runs; its numbers may begin again.
    std::function<HttpCounters()> server;
    /// How many read the events now; null: nobody can.
    std::function<int()> eventReaders = nullptr;
    std::function<GuardCounters()> guard = nullptr; ///< null: nobody is refused
};

/// Numbers for monitoring systems, and whether the service runs and is ready. Counters never go
/// back while the service runs, also when a worker or a process that delivers is started again. It
/// listens to the lines by itself.
class Metrics
{
public:
    explicit Metrics(MetricsNeeds needs);
    ~Metrics();
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    /// "/metrics", "/healthz" and "/readyz".
    void addRoutes(Router& router);

    /// All metrics in the text format of Prometheus.
    QByteArray text();
    /// How many lines no worker has told about yet.
    int unheardLines() const;
    /// Takes the counters of processes, which begin again with each process. A timer calls it once
    /// a second; text() does, too.
    void sample();

    /// All metrics that there can be.
    static QVector<MetricFamily> families();

private:
    class Private;
    std::unique_ptr<Private> m_private;
};

} // namespace micro850::gateway

#endif
