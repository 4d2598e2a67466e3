#include "Requests.h"

#include "GatewayClient.h"
#include "StandardStreams.h"
#include "StatusText.h"
#include "VisibleText.h"

#include <QtCore/QDateTime>

namespace micro850::gateway {

int printStatus(const QString& socket, bool json)
{
    const SystemClock clock;
    host::GatewayClient client(socket, QStringLiteral("micro850-gateway status"), clock);
    const host::GatewayClient::Reply reply = client.ask({{"request", "status"}});
    if (json) {
        writeStandardOutput(visibleJson(reply.first().value().dump(2)) + '\n');
        return kExitDone;
    }
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    writeStandardOutput(statusText(reply.first(), now).toStdString());
    return kExitDone;
}

int reloadService(const QString& socket)
{
    const SystemClock clock;
    host::GatewayClient client(socket, QStringLiteral("micro850-gateway reload"), clock);
    client.ask({{"request", "reload"}});
    writeStandardOutput("the configuration was read again\n");
    return kExitDone;
}

} // namespace micro850::gateway
