#ifndef MICRO850_FUNC_GETORSETDATA_H
#define MICRO850_FUNC_GETORSETDATA_H

// The host's reads and writes of variable values.

#include "Device_Driver.h"

/// Queues a write of `value` (host layout, `count` 16-bit words) if ComInfo::writeMode is 2 and
/// returns the length of the write list. In any other mode queues nothing and returns 1. Any
/// thread, but not from a callback, since it takes `listMutex`.
MICRO850_ENTRY int SetRegisterData(const QString& name, int areaType, const QString& addressText,
                                   int station, const QByteArray& value, int count, int varType,
                                   int varIndex);

/// Fills `out` with the stored value in host layout and returns 1. If the station is not connected
/// or the tag is unknown, fills it with `count` x 2 zero bytes and returns 0. Does not read the
/// second argument and never waits for the line. Any thread, callbacks included. Holds `dataMutex`
/// while it works.
MICRO850_ENTRY int GetRegisterData(const QString& name, int ignored, const QString& addressText,
                                   int station, QByteArray& out, int count);

/// Always 1. Any thread.
MICRO850_ENTRY int QueryFinishFlag();
/// Hook for the host's local areas; does nothing.
MICRO850_EXPORT void WriteDataToLocal(RW_VAR* request);

#endif
