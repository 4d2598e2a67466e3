#ifndef MICRO850_HOST_COMMANDS_ADAPTERREPORT_H
#define MICRO850_HOST_COMMANDS_ADAPTERREPORT_H

#include "Adapter.h"
#include "LatencyFlag.h"
#include "Output.h"
#include "PortSettings.h"

namespace micro850::host {

/// What `probe` tells about the hardware of a serial device.
struct AdapterReport
{
    Adapter closed; ///< before the line was opened
    Adapter open;   ///< while it was open
    LowLatency lowLatency = LowLatency::NotAsked;

    /// The lines for people; none behind a pseudo-terminal or a network address, where neither
    /// hardware nor the flag is known.
    QStringList lines() const;
    /// The same as one object, or null.
    Json object() const;
    /// How to make the adapter deliver bytes sooner, with the command that does it; empty when it
    /// does so already, or when nothing would help.
    QString advice(const PortSettings& port) const;
};

} // namespace micro850::host

#endif
