#include "internal/DriverState.h"

namespace driverstate {

QMutex leaf;

bool failed()
{
    LeafLocker lock(leaf);
    return PLC_driver.errorFlag;
}

void queue(QByteArray& frame, int replyLength, int auxLength, const RW_VAR& request)
{
    // Filled in place: a record is costly to copy.
    PLC_driver.sendQueue.append(Protocol());
    Protocol& protocol = PLC_driver.sendQueue.last();
    protocol.frame.swap(frame);
    protocol.sendLength = protocol.frame.size();
    protocol.replyLength = replyLength;
    protocol.auxLength = auxLength;
    protocol.var = request;
}

void beginExchange(int frames)
{
    if (!PLC_driver.comInfo)
        return;
    PLC_driver.comInfo->frameCount = frames;
    PLC_driver.comInfo->framesAnswered = 0;
}

void notifyRefresh(int varType)
{
    if (!PLC_driver.refreshCallback)
        return;
    QList<RW_VAR> none;
    PLC_driver.refreshCallback(&none, varType, 1);
}

} // namespace driverstate
