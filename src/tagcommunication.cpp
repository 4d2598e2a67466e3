#include "tagcommunication.h"

#include "Func_Check.h"

#include <QtCore/QStringList>
#include <QtCore/QTime>

#include <cstring>

QMap<int, PLCTAGCOMMUNICATION> PLCDataStorage;

namespace {

// Get_Attributes_All of the Identity object; transaction number at 8, CRC at 20.
const char kIdentityTemplate[] =
    "10 06 10 02 00 01 0B 00 01 00 00 00 01 02 20 01 24 01 10 03 8E 35";
// Forward_Open to the Connection Manager; transaction number at 8, serial number at 32, CRC at 60.
const char kForwardOpenTemplate[] =
    "10 06 10 02 00 01 0B 00 02 00 00 00 54 02 20 06 24 01 05 F7 02 00 00 80 01 00 01 80 02 00 34 "
    "12 23 16 C6 02 02 00 00 00 80 84 1E 00 F8 43 80 84 1E 00 F8 43 A3 02 20 02 24 01 10 03 F8 B6";
const int kForwardOpenSize = 62;
const int kOriginatorSerial = 32;
const int kIdentityReplySize = 61;
const int kForwardOpenReplySize = 46;
// Where the O->T connection identifier stands in an undoubled Forward_Open reply.
const int kReplyConnectionLow = 16;
const int kReplyConnectionHigh = 17;

enum HandshakeStep { kAwaitingIdentity = 0, kAwaitingForwardOpen = 1 };

// The shortest reply that can hold a frame, and the first place where its ETX can stand.
const int kShortestReply = 24;
const int kFirstEtx = 21;

// CIP type code minus 0xC1 to type class. The bit-string, date, time and string types are moved
// byte by byte on purpose, whatever their width.
const int kTypeClasses[26] = {0, 2, 3, 4, 5, 2, 3, 4, 5, 4, 5, 2, 2,
                              2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 1};
const unsigned int kFirstTypeCode = 0xC1;
const int kStructureMark = 0xA3;

/// CRC of a frame that is fed byte by byte: over the data behind its header and before its last two
/// bytes (the DLE ETX), closed with ETX.
class FrameCrc
{
public:
    FrameCrc() : m_crc(0), m_count(0), m_start(0), m_last(0), m_beforeLast(0) {}

    void feed(quint8 byte)
    {
        if (m_count == 1)
            m_start = byte == frame::kAck ? 4 : byte == frame::kStx ? 2 : 0;
        if (m_count >= m_start + 2)
            m_crc = crc16::extended(m_crc, m_beforeLast, crc16::kReflectedPolynomial);
        m_beforeLast = m_last;
        m_last = byte;
        ++m_count;
    }

    unsigned int closedValue() const
    {
        return crc16::extended(m_crc, frame::kEtx, crc16::kReflectedPolynomial);
    }

private:
    unsigned int m_crc;
    int m_count;
    int m_start;
    quint8 m_last;
    quint8 m_beforeLast;
};

// True when the byte at `index` begins a pair of DLEs.
bool isDoubled(const QByteArray& bytes, int index)
{
    return index + 1 < bytes.size() && bytes.at(index) == frame::kDle &&
           bytes.at(index + 1) == frame::kDle;
}

QByteArray doubled(const QByteArray& plain)
{
    const int last = plain.size() - frame::kTrailerSize;
    const int header = frame::byteAt(plain, 1) == frame::kAck ? 3 : 1;
    int extra = 0;
    for (int i = header + 1; i < last; ++i)
        extra += plain.at(i) == frame::kDle;
    if (extra == 0)
        return plain;
    QByteArray wire;
    wire.reserve(plain.size() + extra);
    for (int i = 0; i < plain.size(); ++i) {
        wire.append(plain.at(i));
        if (i > header && i < last && plain.at(i) == frame::kDle)
            wire.append(frame::kDle);
    }
    return wire;
}

QByteArray undoubled(const QByteArray& wire)
{
    QByteArray plain(wire.size(), '\0');
    char* out = plain.data();
    int size = 0;
    for (int i = 0; i < wire.size(); i += isDoubled(wire, i) ? 2 : 1)
        out[size++] = wire.at(i);
    plain.truncate(size);
    return plain;
}

void patchSerial(QByteArray& bytes)
{
    const int serial = get_random_number();
    for (int i = 0; i < 3; ++i)
        bytes[kOriginatorSerial + i] = static_cast<char>((serial >> (8 * i)) & 0xFF);
}

// Replaces a template's closing DLE ETX and CRC.
QByteArray reclosed(QByteArray bytes)
{
    bytes.chop(frame::kTrailerSize);
    return frame::closed(bytes);
}

void queueHandshakeFrame(const QByteArray& wire, int replyLength, int station)
{
    RW_VAR request = RW_VAR();
    request.stationNo = station;
    frame::queue(wire, replyLength, 0, request);
}

unsigned short transactionOf(int station)
{
    LeafLocker lock(tagstore::leaf);
    return PLCDataStorage[station].transactionCounter;
}

// Appended, not assigned: the identifier is empty when a set-up begins.
void keepConnectionId(int station, const QByteArray& reply)
{
    const QByteArray plain = undoubled(reply);
    LeafLocker lock(tagstore::leaf);
    QByteArray& id = PLCDataStorage[station].connectionId;
    id.append(static_cast<char>(frame::byteAt(plain, kReplyConnectionLow)));
    id.append(static_cast<char>(frame::byteAt(plain, kReplyConnectionHigh)));
}

PLCTAGCOMMUNICATION freshStation()
{
    PLCTAGCOMMUNICATION station = PLCTAGCOMMUNICATION();
    station.transactionCounter = 1;
    return station;
}

// The guard tests the confirmation, the seed sets the class: an entry that no reply confirmed is
// seeded anew on every call, so a class is never trusted before a reply proved it.
void seed(QByteArray& info)
{
    if (tagstore::isConfirmed(info))
        return;
    frame::growTo(info, tagstore::kInfoSize);
    const char fresh[tagstore::kInfoSize] = {static_cast<char>(tagstore::kUnknownClass), 0, 0, 0};
    if (std::memcmp(info.constData(), fresh, sizeof fresh) != 0)
        std::memcpy(info.data(), fresh, sizeof fresh);
}

void appendNumber(QByteArray& bytes, unsigned int value, int size)
{
    for (int i = 0; i < size; ++i)
        bytes.append(static_cast<char>((value >> (8 * i)) & 0xFF));
}

bool endsAsFrame(const QByteArray& reply)
{
    const int trailer = reply.size() - frame::kTrailerSize;
    return trailer >= 0 && reply.at(trailer) == frame::kDle && reply.at(trailer + 1) == frame::kEtx;
}

} // namespace

// ---- Tag store
// -----------------------------------------------------------------------------------

namespace tagstore {

QMutex leaf;

bool isConfirmed(const QByteArray& info)
{
    return info.size() >= kInfoSize && frame::byteAt(info, kConfirmation) == 0xFF;
}

void completeRequest(RW_VAR& request)
{
    if (plcAddList.constFind(request.tagName) != plcAddList.constEnd()) {
        request.startAddress = request.addressText.toInt();
        request.reqFlag = 1;
    } else {
        request.startAddress = 0;
        request.count = 1;
        request.reqFlag = 0;
    }
    seed(PLCDataStorage[request.stationNo].tagInfo[request.tagName]);
}

bool isConnected(int station)
{
    const QMap<int, PLCTAGCOMMUNICATION>::const_iterator known = PLCDataStorage.constFind(station);
    if (known != PLCDataStorage.constEnd())
        return known->handshakeDone;
    PLCDataStorage.insert(station, freshStation());
    return false;
}

bool hasTagData(const RW_VAR& request)
{
    return PLCDataStorage[request.stationNo].tagData.contains(request.tagName);
}

} // namespace tagstore

int AddTheTagInformationContainer(const int& station)
{
    LeafLocker lock(tagstore::leaf);
    PLCDataStorage[station] = freshStation();
    return 1;
}

bool getHandshakeInformation(const int& station)
{
    LeafLocker lock(tagstore::leaf);
    return tagstore::isConnected(station);
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
    return tagstore::hasTagData(*request);
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
    quint8 code = frame::byteAt(type, 0);
    if (code == kStructureMark)
        code = frame::byteAt(type, 1);
    const unsigned int index = code - kFirstTypeCode;
    return index < 26 ? kTypeClasses[index] : int(tagstore::kByte);
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

// ---- Connection set-up
// ---------------------------------------------------------------------------

int get_random_number()
{
    const int seconds = QTime(0, 0, 0).secsTo(QTime::currentTime());
    return qtcompat::seededRandom(static_cast<unsigned int>(seconds)) % 0xFFFFFF;
}

int HandshakeFunction(const int& station)
{
    static const QByteArray identity = frame::fromHexText(kIdentityTemplate);
    static const QByteArray forwardOpen = frame::fromHexText(kForwardOpenTemplate);
    const unsigned short transaction = transactionOf(station);

    QByteArray bytes = identity;
    frame::patchTransaction(bytes, transaction);
    queueHandshakeFrame(reclosed(bytes), kIdentityReplySize, station);

    bytes = forwardOpen;
    // Wraps to 0 unlike the counter; the Identity reply patches it to the counter's own next value.
    frame::patchTransaction(bytes, static_cast<unsigned short>(transaction + 1));
    patchSerial(bytes);
    queueHandshakeFrame(reclosed(bytes), kForwardOpenReplySize, station);

    frame::beginExchange(2);
    return 1;
}

int HandshakeFunctionCheck(const QByteArray* reply)
{
    QList<Protocol>& queue = PLC_driver.sendQueue;
    if (queue.isEmpty())
        return 0;
    const int station = queue.first().var.stationNo;
    addPlcNumber(station);
    if (!reply || !endsAsFrame(*reply))
        return 0;
    if (!PLC_driver.comInfo)
        return 1;
    if (PLC_driver.comInfo->framesAnswered == kAwaitingIdentity) {
        if (queue.size() > 1)
            frame::repatchConnectionRequest(queue[1], station, false);
    } else if (PLC_driver.comInfo->framesAnswered == kAwaitingForwardOpen) {
        keepConnectionId(station, *reply);
    }
    return 1;
}

// ---- Frame integrity
// -----------------------------------------------------------------------------

unsigned int checkDataCrc(QByteArray frame) // NOLINT(performance-unnecessary-value-param): host ABI
{
    FrameCrc crc;
    for (int i = 0; i < frame.size(); ++i)
        crc.feed(frame::byteAt(frame, i));
    return crc.closedValue();
}

QByteArray getRecoverData(const QByteArray& frame, bool undouble)
{
    return undouble ? undoubled(frame) : doubled(frame);
}

int DataIntegrityJudgment(const QByteArray* reply)
{
    if (!reply || reply->size() < kShortestReply)
        return 0;
    FrameCrc crc;
    // Each byte 10 03 can be an end or, behind a doubled DLE, data: the CRC decides, and the search
    // goes on. One pass feeds every candidate, so a reply full of them costs no more.
    for (int i = 0; i + frame::kCrcSize < reply->size(); ++i) {
        crc.feed(frame::byteAt(*reply, i));
        if (isDoubled(*reply, i)) {
            ++i;
            continue;
        }
        if (i < kFirstEtx || reply->at(i) != frame::kEtx || reply->at(i - 1) != frame::kDle)
            continue;
        const unsigned int received = frame::byteAt(*reply, i + 1) | frame::byteAt(*reply, i + 2)
                                                                         << 8;
        if (crc.closedValue() == received)
            return 1;
    }
    return 0;
}

// ---- Frames
// --------------------------------------------------------------------------------------

namespace frame {

quint8 byteAt(const QByteArray& bytes, int index)
{
    return index >= 0 && index < bytes.size() ? static_cast<quint8>(bytes.at(index)) : quint8(0);
}

void growTo(QByteArray& bytes, int size)
{
    const int old = bytes.size();
    if (size <= old)
        return;
    bytes.resize(size);
    std::memset(bytes.data() + old, 0, static_cast<std::size_t>(size - old));
}

QByteArray fromHexText(const char* text)
{
    const QStringList parts = QString::fromLatin1(text).split(QLatin1Char(' '));
    QByteArray bytes;
    bytes.reserve(parts.size());
    for (int i = 0; i < parts.size(); ++i)
        bytes.append(static_cast<char>(parts.at(i).toInt(nullptr, 16)));
    return bytes;
}

Header headerOf(const PLCTAGCOMMUNICATION& station)
{
    const Header header = {station.transactionCounter, byteAt(station.connectionId, 0),
                           byteAt(station.connectionId, 1)};
    return header;
}

void appendTagName(QByteArray& frame, const QString& name)
{
    appendNumber(frame, static_cast<unsigned int>(name.size()), 1);
    for (int i = 0; i < name.size(); ++i)
        frame.append(qtcompat::latin1(name.at(i)));
    if (name.size() % 2 != 0)
        frame.append('\0');
}

void appendElement(QByteArray& frame, int element)
{
    // As an unsigned number: a negative index then makes a segment that no controller accepts,
    // instead of the element that its low byte names.
    const unsigned int index = static_cast<unsigned int>(element);
    if (index == 0)
        return;
    if (index < 0x100) {
        frame.append('\x28');
        appendNumber(frame, index, 1);
    } else if (index < 0x10000) {
        appendNumber(frame, 0x0029, 2);
        appendNumber(frame, index, 2);
    } else {
        appendNumber(frame, 0x0030, 2);
        appendNumber(frame, index, 4);
    }
}

void appendCount(QByteArray& frame, int count)
{
    appendNumber(frame, static_cast<unsigned int>(count), 4);
    appendNumber(frame, 0, 2);
}

void patchTransaction(QByteArray& frame, unsigned short transaction)
{
    frame[kTransactionLow] = static_cast<char>(transaction & 0xFF);
    frame[kTransactionHigh] = static_cast<char>(transaction >> 8);
}

void patchHeader(QByteArray& frame, const Header& header)
{
    patchTransaction(frame, header.transaction);
    frame[kConnectionLow] = static_cast<char>(header.connectionLow);
    frame[kConnectionHigh] = static_cast<char>(header.connectionHigh);
    frame[kSequence] = static_cast<char>((header.transaction + 7) & 0xFF);
}

void patchPathSize(QByteArray& frame)
{
    frame[kPathSize] = static_cast<char>(((frame.size() - kPath) / 2) & 0xFF);
}

QByteArray closed(QByteArray frame)
{
    frame.append(kDle);
    frame.append(kEtx);
    appendNumber(frame, checkDataCrc(frame), kCrcSize);
    return doubled(frame);
}

void queue(const QByteArray& frame, int replyLength, int auxLength, const RW_VAR& request)
{
    Protocol protocol;
    protocol.frame = frame;
    protocol.sendLength = frame.size();
    protocol.replyLength = replyLength;
    protocol.auxLength = auxLength;
    protocol.var = request;
    PLC_driver.sendQueue.append(protocol);
}

void beginExchange(int frames)
{
    if (!PLC_driver.comInfo)
        return;
    PLC_driver.comInfo->frameCount = frames;
    PLC_driver.comInfo->framesAnswered = 0;
}

void repatchConnectionRequest(Protocol& request, int station, bool freshSerial)
{
    QByteArray bytes = undoubled(request.frame);
    // Undoubling also halves a CRC that happens to be 10 10.
    if (bytes.size() == kForwardOpenSize - 1 && bytes.at(kForwardOpenSize - 2) == kDle)
        bytes.append(kDle);
    if (bytes.size() != kForwardOpenSize)
        return;
    patchTransaction(bytes, transactionOf(station));
    if (freshSerial)
        patchSerial(bytes);
    request.frame = reclosed(bytes);
}

} // namespace frame
