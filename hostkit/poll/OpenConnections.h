#ifndef MICRO850_HOST_OPENCONNECTIONS_H
#define MICRO850_HOST_OPENCONNECTIONS_H

#include "Exchange.h"

#include <QtCore/QList>
#include <QtCore/QMap>

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
    struct Opened
    {
        QList<QByteArray> requests; ///< application data of those that open a connection
        bool answers = false;
    };

    bool closeOne(const QByteArray& openRequest);
    Duration timeoutFor(int requestBytes) const;

    Exchange& m_exchange;
    PortSettings m_port;
    QMap<int, Opened> m_stations;
};

} // namespace micro850::host

#endif
