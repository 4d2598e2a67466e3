#include "Worker.h"

#include "UserError.h"

namespace micro850::gateway {

int runWorker(int)
{
    return kExitDone;
}

} // namespace micro850::gateway
