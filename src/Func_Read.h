#ifndef MICRO850_FUNC_READ_H
#define MICRO850_FUNC_READ_H

// Encoding of read requests.

#include "Device_Driver.h"

/// Queues one Read Tag Fragmented frame for the request and sets frameCount 1, framesAnswered 0.
/// A tag whose class is not confirmed is asked for one element. Caller holds `listMutex`; a null
/// request queues nothing.
MICRO850_EXPORT void ReadRegister(RW_VAR* request);

#endif
