#ifndef MICRO850_FUNC_WRITE_H
#define MICRO850_FUNC_WRITE_H

// Encoding of write requests.

#include "Device_Driver.h"

/// Queues one Write Tag Fragmented frame for the request, whose `data` is brought into the layout
/// of the tag's class in place, then calls the refresh callback. Always queues a frame, for an
/// unconfirmed class with the type code 00 00 and `data` unchanged. Caller holds `listMutex`; a
/// null request queues nothing.
MICRO850_EXPORT void WriteRegister(RW_VAR* request);

#endif
