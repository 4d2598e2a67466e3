#ifndef MICRO850_HOST_OPENCONNECTIONS_H
#define MICRO850_HOST_OPENCONNECTIONS_H

#include "Exchange.h"

#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QSet>

namespace micro850::host {

/// The connections that the driver opened and that controllers may still hold open. The driver
/// never closes one; a controller keeps it for 32 seconds, and many have only a few. This class
/// closes them, without the driver's help: each with one request, which is not repeated.
class OpenConnections
{
public:
    /// The exchange must live longer than this object.
    OpenConnections(Exchange& exchange, const PortSettings& port)
        : m_exchange(exchange), m_port(port)
    {
    }

    /// Notes the outcome of an exchange with a station: `frame` is the driver's request.
    void note(int station, const QByteArray& frame, const Answer& answer);
    /// Closes the connections of a station. Those that the controller does not close are forgotten
    /// too.
    void close(int station);
    /// Closes the connections of all stations that answered their last request.
    void closeAll();

private:
    bool closeOne(const QByteArray& openRequest);
    Duration timeoutFor(int requestBytes) const;

    Exchange& m_exchange;
    PortSettings m_port;
    /// By station, the application data of the requests that open a connection.
    QMap<int, QList<QByteArray>> m_requests;
    QSet<int> m_silent; ///< stations that did not answer their last request
};

} // namespace micro850::host

#endif
