#include "tagcommunication.h"

#include "internal/ConnectionSetup.h"
#include "internal/DriverState.h"
#include "internal/Frame.h"
#include "internal/TagStore.h"

QMap<int, PLCTAGCOMMUNICATION> PLCDataStorage;

namespace {

void queueSetupFrame(QByteArray frame, int replyLength, int station)
{
    RW_VAR request = RW_VAR();
    request.stationNo = station;
    driverstate::queue(frame, replyLength, 0, request);
}

// Appends, as the identifier is empty when a set-up begins.
void keepConnectionId(int station, const QByteArray& reply)
{
    const QByteArray id = connection::identifierIn(reply);
    LeafLocker lock(tagstore::leaf);
    PLCDataStorage[station].connectionId.append(id);
}

} // namespace

// ---- Tag store ----------------------------------------------------------------------------------

int AddTheTagInformationContainer(const int& station)
{
    LeafLocker lock(tagstore::leaf);
    PLCDataStorage[station] = tagstore::freshStation();
    return 1;
}

bool getHandshakeInformation(const int& station)
{
    LeafLocker lock(tagstore::leaf);
    const QMap<int, PLCTAGCOMMUNICATION>::const_iterator known = PLCDataStorage.constFind(station);
    if (known != PLCDataStorage.constEnd())
        return known->handshakeDone;
    PLCDataStorage.insert(station, tagstore::freshStation());
    return false;
}

int setHandshakeInformation(const int& station, bool flag)
{
    LeafLocker lock(tagstore::leaf);
    PLCTAGCOMMUNICATION& record = PLCDataStorage[station];
    record.handshakeDone = flag;
    if (!flag)
        record.connectionId.clear();
    return 1;
}

int addPlcNumber(int station)
{
    LeafLocker lock(tagstore::leaf);
    unsigned short& counter = PLCDataStorage[station].transactionCounter;
    counter = static_cast<unsigned short>(counter == 0xFFFF ? 1 : counter + 1);
    return 1;
}

bool getTagData(RW_VAR* request)
{
    if (!request)
        return false;
    LeafLocker lock(tagstore::leaf);
    return PLCDataStorage[request->stationNo].tagData.contains(request->tagName);
}

bool getAddressType(RW_VAR* request)
{
    if (!request)
        return false;
    LeafLocker lock(tagstore::leaf);
    return tagstore::isConfirmed(
        PLCDataStorage[request->stationNo].tagInfo.value(request->tagName));
}

int getRegType(const QByteArray& type)
{
    return tagstore::classOf(frame::byteAt(type, 0), frame::byteAt(type, 1));
}

bool getPlcAdd(int type, unsigned int& address, unsigned int& count)
{
    switch (type) {
    case tagstore::kWord:
        address *= 2;
        break;
    case tagstore::kDoubleWord:
        address *= 4;
        count = (count + 1) >> 1;
        break;
    case tagstore::kQuadWord:
        address *= 8;
        count = (count + 3) >> 2;
        break;
    default:
        break;
    }
    return true;
}

// ---- Connection set-up --------------------------------------------------------------------------

int get_random_number()
{
    return connection::randomSerial();
}

int HandshakeFunction(const int& station)
{
    const unsigned short transaction = tagstore::transactionOf(station);
    // Wraps to 0, which the counter does not. After the Identity reply the request is renumbered to
    // the counter's own next value.
    const unsigned short next = static_cast<unsigned short>(transaction + 1);
    queueSetupFrame(connection::identityRequest(transaction), connection::kIdentityReplySize,
                    station);
    queueSetupFrame(connection::forwardOpenRequest(next), connection::kForwardOpenReplySize,
                    station);
    driverstate::beginExchange(connection::kFrames);
    return 1;
}

int HandshakeFunctionCheck(const QByteArray* reply)
{
    QList<Protocol>& queue = PLC_driver.sendQueue;
    if (queue.isEmpty())
        return 0;
    const int station = driverstate::inFlight().var.stationNo;
    addPlcNumber(station);
    if (!reply || !frame::endsAsFrame(*reply))
        return 0;
    if (!PLC_driver.comInfo)
        return 1;
    if (PLC_driver.comInfo->framesAnswered == connection::kAwaitingIdentity) {
        if (queue.size() > 1)
            connection::renumber(queue[1].frame, tagstore::transactionOf(station));
    } else if (PLC_driver.comInfo->framesAnswered == connection::kAwaitingForwardOpen) {
        keepConnectionId(station, *reply);
    }
    return 1;
}

// ---- Frame integrity ----------------------------------------------------------------------------

unsigned int checkDataCrc(QByteArray frame) // NOLINT(performance-unnecessary-value-param): host ABI
{
    return frame::crcOf(frame);
}

QByteArray getRecoverData(const QByteArray& frame, bool undouble)
{
    QByteArray bytes = frame;
    if (undouble)
        frame::undoubleDles(bytes);
    else
        frame::doubleDles(bytes);
    return bytes;
}

int DataIntegrityJudgment(const QByteArray* reply)
{
    return reply && frame::isIntact(*reply) ? 1 : 0;
}
