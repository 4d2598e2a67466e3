#include "TokenCommand.h"

#include "StandardStreams.h"
#include "UserError.h"

namespace micro850::gateway {

int makeToken(const QString& path, const TokenFileOptions& options)
{
    const QByteArray token = newToken();
    writeTokenFile(path, token, options);
    writeStandardOutput(token.toStdString() + '\n');
    return kExitDone;
}

} // namespace micro850::gateway
