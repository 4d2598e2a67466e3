#ifndef MICRO850_GATEWAY_TOKENCOMMAND_H
#define MICRO850_GATEWAY_TOKENCOMMAND_H

#include "TokenFile.h"

namespace micro850::gateway {

/// Makes a token file and prints the token on standard output, once. Throws UserError. Returns the
/// exit status.
int makeToken(const QString& path, const TokenFileOptions& options);

} // namespace micro850::gateway

#endif
