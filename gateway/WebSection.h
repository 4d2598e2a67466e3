#ifndef MICRO850_GATEWAY_WEBSECTION_H
#define MICRO850_GATEWAY_WEBSECTION_H

#include "ConfigurationPart.h"
#include "WebSettings.h"

namespace micro850::gateway {

/// Reads the section "web" of the configuration, if it is there. Relative paths begin at `folder`.
/// Settings that would let others than this machine in without a token are a mistake.
void readWeb(const JsonNode& root, const QString& folder, WebSettings& web, Mistakes& mistakes);

} // namespace micro850::gateway

#endif
