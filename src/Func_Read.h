#ifndef MICRO850_FUNC_READ_H
#define MICRO850_FUNC_READ_H

// Encoding of read requests.

#include "Device_Driver.h"

/// Queues one Read Tag Fragmented frame for the request and sets frameCount to 1 and framesAnswered
/// to 0. Asks for one element if the tag's class is not confirmed. A null request queues nothing.
/// Caller holds `listMutex`.
MICRO850_EXPORT void ReadRegister(RW_VAR* request);

#endif
