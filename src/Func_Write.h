#ifndef MICRO850_FUNC_WRITE_H
#define MICRO850_FUNC_WRITE_H

// Encoding of write requests.

#include "Device_Driver.h"

/// Converts the request's `data` to the layout of the tag's class, queues one Write Tag Fragmented
/// frame and calls the refresh callback. If the class is not confirmed, the frame has the type code
/// 00 00 and `data` as it is. A null request queues nothing. Caller holds `listMutex`.
MICRO850_EXPORT void WriteRegister(RW_VAR* request);

#endif
