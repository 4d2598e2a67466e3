#ifndef MICRO850_HOST_COMMANDS_DIAGNOSIS_H
#define MICRO850_HOST_COMMANDS_DIAGNOSIS_H

#include "Clock.h"
#include "DeviceUsers.h"
#include "PortSettings.h"

#include <QtCore/QStringList>

#include <optional>

namespace micro850::host {

/// What many reads of the same thing have shown.
struct ReadSeries
{
    int reads = 0;
    int answered = 0;
    qint64 damaged = 0; ///< replies with a wrong checksum
    qint64 refused = 0; ///< requests that the controller received damaged
    qint64 retries = 0; ///< sent again, or asked for again
    QVector<Duration> roundTrips;

    /// The round trip that this percentage of the answers do not exceed; 0 gives the shortest one.
    Duration roundTrip(int percent) const;
    /// Of the replies that came, damaged ones too.
    double percentDamaged() const;
};

/// What was found out about a line.
struct Findings
{
    PortSettings port; ///< as it is set
    DeviceRights rights;
    QStringList otherDevices; ///< serial devices of this machine
    QStringList users;        ///< programs that have the device open: "name (process 12)"
    bool isPseudoTerminal = false;
    QStringList peers; ///< programs at the other end of a pseudo-terminal, in the same form
    QString gateway;   ///< why the port cannot be had; empty unless a gateway owns it
    QString openError; ///< empty when the line is open
    QString adapterAdvice;
    std::optional<PortSettings> answering; ///< settings at which the controller answered
    int tried = 0;                         ///< other settings
    bool bytesCame = false;
    bool cameLate = false;
    bool hasEcho = false;
    ReadSeries series;
};

/// What to do, most important first; empty when nothing is wrong.
QStringList adviceOf(const Findings& findings);

} // namespace micro850::host

#endif
