#ifndef MICRO850_HOST_GATEWAY_GATEWAYLINES_H
#define MICRO850_HOST_GATEWAY_GATEWAYLINES_H

#include "GatewayClient.h"
#include "LineStatus.h"
#include "Project.h"

namespace micro850::host {

/// A line that a gateway owns.
struct GatewayLine
{
    QString name;
    LineStatus status;
};

/// The lines of a gateway. `now` is the time by the caller's clock.
QVector<GatewayLine> linesOf(GatewayClient& gateway, Duration now);
/// The variables of a line. Throws GatewayRefused for a name that is no line.
QVector<Variable> variablesOf(GatewayClient& gateway, const QString& line);
/// A project with the line's port, stations and variables. The gateway judges how old a value may
/// be.
Project projectOf(GatewayClient& gateway, const GatewayLine& line);

} // namespace micro850::host

#endif
