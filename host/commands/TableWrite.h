#ifndef MICRO850_HOST_COMMANDS_TABLEWRITE_H
#define MICRO850_HOST_COMMANDS_TABLEWRITE_H

#include "TagAccess.h"
#include "WritePrompt.h"

namespace micro850::host {

/// Writes an element, reads it back, and says in one line what came of it. Throws nothing for what
/// the controller, the line or a gateway refuses.
QString writtenText(TagAccess& tags, const Project& project, const WriteRequest& request);

} // namespace micro850::host

#endif
