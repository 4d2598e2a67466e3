#include "Service.h"

#include "Configuration.h"
#include "UserError.h"

namespace micro850::gateway {

int runService(const QString& configurationPath)
{
    Configuration::fromFile(configurationPath);
    return kExitDone;
}

} // namespace micro850::gateway
