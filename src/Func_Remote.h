#ifndef MICRO850_FUNC_REMOTE_H
#define MICRO850_FUNC_REMOTE_H

// Handlers of requests on remote links. This driver serves no remote link, so they do nothing.

#include "Device_Driver.h"

MICRO850_EXPORT void Remote_ReadVar(RW_VAR* request);
MICRO850_EXPORT void Remote_WriteVar(RW_VAR* request);

#endif
