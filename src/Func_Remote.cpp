#include "Func_Remote.h"

void Remote_ReadVar(RW_VAR*) {}

void Remote_WriteVar(RW_VAR*) {}
