#ifndef MICRO850_HOST_LINEFACTORY_H
#define MICRO850_HOST_LINEFACTORY_H

#include "Line.h"
#include "PortSettings.h"

#include <memory>

namespace micro850::host {

/// The line, still closed, to the device or the device server that the settings name. Throws
/// UserError for an address that is not valid.
std::unique_ptr<Line> lineFor(const PortSettings& settings);

} // namespace micro850::host

#endif
