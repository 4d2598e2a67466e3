#include "tagcommunication.h"

#include "Func_Check.h"

#include <QtCore/QStringList>
#include <QtCore/QTime>

#include <algorithm>
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

// Where the data begins behind a frame's header.
int dataStart(const QByteArray& frame)
{
    const quint8 second = frame::byteAt(frame, 1);
    return second == frame::kAck ? 4 : second == frame::kStx ? 2 : 0;
}

// The CRC carried on over more data.
unsigned int extendedCrc(unsigned int crc, const char* begin, const char* end)
{
#if defined(__GNUC__) && __GNUC__ >= 8
#pragma GCC unroll 4
#endif
    for (; begin < end; ++begin)
        crc = crc16::extended(crc, static_cast<quint8>(*begin), crc16::kReflectedPolynomial);
    return crc;
}

// The CRC of the data so far, closed with ETX.
unsigned int closedCrc(unsigned int crc)
{
    return crc16::extended(crc, frame::kEtx, crc16::kReflectedPolynomial);
}

// CRC of a frame whose first `size` bytes end with its DLE ETX.
unsigned int crcOf(const QByteArray& frame, int size)
{
    const char* begin = frame.constData();
    const int first = dataStart(frame);
    const int end = size - 2;
    return closedCrc(first < end ? extendedCrc(0, begin + first, begin + end) : 0);
}

// True when the byte at `at`, before `end`, begins a pair of DLEs.
inline bool isDoubled(const char* at, const char* end)
{
    return at + 1 < end && at[0] == frame::kDle && at[1] == frame::kDle;
}

// The first pair of DLEs, null for none.
const char* firstPair(const char* begin, const char* end)
{
    while (begin < end) {
        const void* dle = std::memchr(begin, frame::kDle, static_cast<std::size_t>(end - begin));
        if (!dle)
            break;
        begin = static_cast<const char*>(dle);
        if (isDoubled(begin, end))
            return begin;
        ++begin;
    }
    return nullptr;
}

// CRC of a reply as received, carried on from one possible end to the next.
class ReplyCrc
{
public:
    explicit ReplyCrc(const QByteArray& reply)
        : m_begin(reply.constData()), m_next(m_begin), m_crc(0)
    {
        // The header is counted in undoubled bytes.
        const char second = m_begin[isPair(m_begin) ? 2 : 1];
        const int header = second == frame::kAck ? 4 : second == frame::kStx ? 2 : 0;
        for (int i = 0; i < header; ++i)
            m_next += isPair(m_next) ? 2 : 1;
    }

    // `etx` stands behind a DLE: CRC of the undoubled data in front of that DLE, or of the pair
    // that it ends, closed with ETX.
    unsigned int closedBefore(const char* etx)
    {
        const char* run = etx;
        while (run > m_begin && run[-1] == frame::kDle)
            --run;
        const char* end = etx - ((etx - run) % 2 == 0 ? 2 : 1);
        while (const char* pair = firstPair(m_next, end)) {
            m_crc = extendedCrc(m_crc, m_next, pair + 1);
            m_next = pair + 2;
        }
        m_crc = extendedCrc(m_crc, m_next, end);
        m_next = end;
        return closedCrc(m_crc);
    }

private:
    // Of the header of a reply that is long enough to be one.
    static bool isPair(const char* at) { return at[0] == frame::kDle && at[1] == frame::kDle; }

    const char* m_begin;
    const char* m_next;
    unsigned int m_crc;
};

// Doubles the DLEs behind the header and before the trailer, from the back so that nothing is moved
// twice.
void doubleInPlace(QByteArray& bytes)
{
    const int size = bytes.size();
    const int first = frame::byteAt(bytes, 1) == frame::kAck ? 4 : 2;
    const int last = size - frame::kTrailerSize;
    const char* plain = bytes.constData();
    if (last <= first ||
        !std::memchr(plain + first, frame::kDle, static_cast<std::size_t>(last - first)))
        return;
    const int extra = static_cast<int>(std::count(plain + first, plain + last, frame::kDle));
    bytes.resize(size + extra);
    char* begin = bytes.data();
    std::memmove(begin + last + extra, begin + last, frame::kTrailerSize);
    char* to = begin + last + extra;
    for (const char* from = begin + last; from != to;) {
        *--to = *--from;
        if (*from == frame::kDle)
            *--to = frame::kDle;
    }
}

QByteArray undoubled(QByteArray bytes)
{
    frame::undouble(bytes);
    return bytes;
}

void patchSerial(QByteArray& bytes)
{
    const int serial = get_random_number();
    for (int i = 0; i < 3; ++i)
        bytes[kOriginatorSerial + i] = static_cast<char>((serial >> (8 * i)) & 0xFF);
}

// Closes a frame that ends with room for DLE ETX and CRC, and doubles its DLEs.
void close(QByteArray& bytes)
{
    const int size = bytes.size();
    char* trailer = bytes.data() + size - frame::kTrailerSize;
    trailer[0] = frame::kDle;
    trailer[1] = frame::kEtx;
    const unsigned int crc = crcOf(bytes, size - frame::kCrcSize);
    trailer[2] = static_cast<char>(crc & 0xFF);
    trailer[3] = static_cast<char>(crc >> 8);
    doubleInPlace(bytes);
}

void patchTransaction(char* bytes, unsigned short transaction)
{
    bytes[frame::kTransactionLow] = static_cast<char>(transaction & 0xFF);
    bytes[frame::kTransactionHigh] = static_cast<char>(transaction >> 8);
}

void queueHandshakeFrame(QByteArray& wire, int replyLength, int station)
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

bool endsAsFrame(const QByteArray& reply)
{
    const int trailer = reply.size() - frame::kTrailerSize;
    return trailer >= 0 && reply.at(trailer) == frame::kDle && reply.at(trailer + 1) == frame::kEtx;
}

} // namespace

// ---- Tag store ----------------------------------------------------------------------------------

namespace tagstore {

QMutex leaf;

bool isConfirmed(const QByteArray& info)
{
    return info.size() >= kInfoSize && frame::byteAt(info, kConfirmation) == 0xFF;
}

int classOf(quint8 typeLow, quint8 typeHigh)
{
    const unsigned int code = typeLow == kStructureMark ? typeHigh : typeLow;
    const unsigned int index = code - kFirstTypeCode;
    return index < 26 ? kTypeClasses[index] : int(kByte);
}

Address addressOf(const QString& tagName, const QString& addressText, int count)
{
    if (plcAddList.constFind(tagName) == plcAddList.constEnd()) {
        const Address whole = {0, 1, 0};
        return whole;
    }
    const Address element = {addressText.toInt(), count, 1};
    return element;
}

// The guard tests the confirmation, the seed sets the class: an entry that no reply confirmed is
// seeded anew on every call, so a class is never trusted before a reply proved it.
QByteArray& seededInfo(PLCTAGCOMMUNICATION& station, const QString& tagName)
{
    QByteArray& info = station.tagInfo[tagName];
    if (isConfirmed(info))
        return info;
    frame::growTo(info, kInfoSize);
    const char fresh[kInfoSize] = {static_cast<char>(kUnknownClass), 0, 0, 0};
    if (std::memcmp(info.constData(), fresh, sizeof fresh) != 0)
        std::memcpy(info.data(), fresh, sizeof fresh);
    return info;
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
    const QMap<int, PLCTAGCOMMUNICATION>::const_iterator known = PLCDataStorage.constFind(station);
    if (known != PLCDataStorage.constEnd())
        return known->handshakeDone;
    PLCDataStorage.insert(station, freshStation());
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
    const int seconds = QTime(0, 0, 0).secsTo(QTime::currentTime());
    return qtcompat::seededRandom(static_cast<unsigned int>(seconds)) % 0xFFFFFF;
}

int HandshakeFunction(const int& station)
{
    static const QByteArray identity = frame::fromHexText(kIdentityTemplate);
    static const QByteArray forwardOpen = frame::fromHexText(kForwardOpenTemplate);
    const unsigned short transaction = transactionOf(station);

    QByteArray bytes = identity;
    patchTransaction(bytes.data(), transaction);
    close(bytes);
    queueHandshakeFrame(bytes, kIdentityReplySize, station);

    bytes = forwardOpen;
    // Wraps to 0 unlike the counter; the Identity reply patches it to the counter's own next value.
    patchTransaction(bytes.data(), static_cast<unsigned short>(transaction + 1));
    patchSerial(bytes);
    close(bytes);
    queueHandshakeFrame(bytes, kForwardOpenReplySize, station);

    frame::beginExchange(2);
    return 1;
}

int HandshakeFunctionCheck(const QByteArray* reply)
{
    QList<Protocol>& queue = PLC_driver.sendQueue;
    if (queue.isEmpty())
        return 0;
    const int station = driverstate::inFlight().var.stationNo;
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

// ---- Frame integrity ----------------------------------------------------------------------------

unsigned int checkDataCrc(QByteArray frame) // NOLINT(performance-unnecessary-value-param): host ABI
{
    return crcOf(frame, frame.size());
}

QByteArray getRecoverData(const QByteArray& frame, bool undouble)
{
    QByteArray bytes = frame;
    if (undouble)
        frame::undouble(bytes);
    else
        doubleInPlace(bytes);
    return bytes;
}

int DataIntegrityJudgment(const QByteArray* reply)
{
    if (!reply || reply->size() < kShortestReply)
        return 0;
    const char* const last = reply->constData() + reply->size() - frame::kCrcSize;
    ReplyCrc crc(*reply);
    // Each byte 10 03 can be an end or, behind a doubled DLE, data: the CRC decides, and the search
    // goes on. The CRC goes on with it, so a reply full of candidates costs no more.
    for (const char* etx = reply->constData() + kFirstEtx; etx < last; ++etx) {
        if (*etx != frame::kEtx || etx[-1] != frame::kDle)
            continue;
        const unsigned int received = static_cast<quint8>(etx[1]) |
                                      static_cast<unsigned int>(static_cast<quint8>(etx[2])) << 8;
        if (crc.closedBefore(etx) == received)
            return 1;
    }
    return 0;
}

// ---- Frames -------------------------------------------------------------------------------------

namespace frame {

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

void undouble(QByteArray& bytes)
{
    const char* begin = bytes.constData();
    const char* pair = firstPair(begin, begin + bytes.size());
    if (!pair)
        return;
    const int before = static_cast<int>(pair - begin);
    char* to = bytes.data() + before;
    const char* end = bytes.constData() + bytes.size();
    for (const char* from = to; from < end; from += isDoubled(from, end) ? 2 : 1)
        *to++ = *from;
    bytes.truncate(static_cast<int>(to - bytes.constData()));
}

int roomForTagName(const QString& name)
{
    return name.size() + 2;
}

Builder::Builder(const QByteArray& head, int room)
{
    m_bytes.resize(head.size() + room + kTrailerSize);
    m_begin = m_bytes.data();
    std::memcpy(m_begin, head.constData(), static_cast<std::size_t>(head.size()));
    m_end = m_begin + head.size();
}

void Builder::addByte(quint8 byte)
{
    *m_end++ = static_cast<char>(byte);
}

void Builder::addNumber(unsigned int value, int size)
{
    for (int i = 0; i < size; ++i)
        m_end[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
    m_end += size;
}

void Builder::addTagName(const QString& name)
{
    const int size = name.size();
    addByte(static_cast<quint8>(size));
    const QChar* letters = name.constData();
    for (int i = 0; i < size; ++i)
        m_end[i] = qtcompat::latin1(letters[i]);
    m_end += size;
    if (size % 2 != 0)
        addByte(0);
}

void Builder::addElement(int element)
{
    // As an unsigned number: a negative index then makes a segment that no controller accepts,
    // instead of the element that its low byte names.
    const unsigned int index = static_cast<unsigned int>(element);
    if (index == 0)
        return;
    if (index < 0x100) {
        addByte(0x28);
        addNumber(index, 1);
    } else if (index < 0x10000) {
        addNumber(0x0029, 2);
        addNumber(index, 2);
    } else {
        addNumber(0x0030, 2);
        addNumber(index, 4);
    }
}

void Builder::endPath()
{
    m_begin[kPathSize] = static_cast<char>(((m_end - m_begin - kPath) / 2) & 0xFF);
}

void Builder::addCount(int count)
{
    addNumber(static_cast<unsigned int>(count), 4);
    addNumber(0, 2);
}

void Builder::addBytes(const QByteArray& bytes)
{
    std::memcpy(m_end, bytes.constData(), static_cast<std::size_t>(bytes.size()));
    m_end += bytes.size();
}

QByteArray& Builder::finished(const Header& header)
{
    patchTransaction(m_begin, header.transaction);
    m_begin[kConnectionLow] = static_cast<char>(header.connectionLow);
    m_begin[kConnectionHigh] = static_cast<char>(header.connectionHigh);
    m_begin[kSequence] = static_cast<char>((header.transaction + 7) & 0xFF);
    m_bytes.truncate(static_cast<int>(m_end - m_begin) + kTrailerSize);
    close(m_bytes);
    return m_bytes;
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

void repatchConnectionRequest(Protocol& request, int station, bool freshSerial)
{
    QByteArray bytes = undoubled(request.frame);
    // Undoubling also halves a CRC that happens to be 10 10.
    if (bytes.size() == kForwardOpenSize - 1 && bytes.at(kForwardOpenSize - 2) == kDle)
        bytes.append(kDle);
    if (bytes.size() != kForwardOpenSize)
        return;
    patchTransaction(bytes.data(), transactionOf(station));
    if (freshSerial)
        patchSerial(bytes);
    close(bytes);
    request.frame = bytes;
}

} // namespace frame
