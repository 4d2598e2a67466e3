#ifndef MICRO850_TAGCOMMUNICATION_H
#define MICRO850_TAGCOMMUNICATION_H

// The per-station tag store, the tag predicates, the connection set-up and the frames on the wire:
// their building, closing, doubling and the judgement of a reply.

#include "Device_Driver.h"

/// What the driver remembers of one station between two frames.
struct PLCTAGCOMMUNICATION
{
    bool handshakeDone;                ///< true while connected
    unsigned short transactionCounter; ///< DF1 transaction number (TNS) of the next frame
    QByteArray connectionId; ///< from the Forward_Open reply; the first two bytes are used
    QMap<QString, QByteArray> tagData; ///< last value bytes, in the controller's order
    /// Byte 0 type class (0xFF unknown), bytes 1 and 2 CIP type code, byte 3 0xFF once confirmed.
    QMap<QString, QByteArray> tagInfo;
};

/// Keyed by station number. Every lookup creates the station, so no function reports an unknown
/// one.
extern MICRO850_EXPORT QMap<int, PLCTAGCOMMUNICATION> PLCDataStorage;

// ---- Tag store: any thread, each call one step --------------------------------------------------

/// Puts a fresh record (counter 1, nothing known) in the station's place. Always 1.
MICRO850_EXPORT int AddTheTagInformationContainer(const int& station);
/// True while the station is connected; a station never seen gets a fresh record.
MICRO850_EXPORT bool getHandshakeInformation(const int& station);
/// Marks the station connected, or not connected and forgets its connection identifier. Always 1.
MICRO850_EXPORT int setHandshakeInformation(const int& station, bool flag);
/// Advances the station's transaction counter: 1 to 65535, never 0. Always 1.
MICRO850_EXPORT int addPlcNumber(int station);

/// True when a value of the tag is stored.
MICRO850_EXPORT bool getTagData(RW_VAR* request);
/// True when the tag's type class was confirmed by a reply.
MICRO850_EXPORT bool getAddressType(RW_VAR* request);
/// Type class 0 to 5 of a CIP type field (a leading 0xA3 is skipped); 2 for every other code.
MICRO850_EXPORT int getRegType(const QByteArray& type);
/// Turns an element index into a byte position and a count of 16-bit words into elements, for
/// classes 3 to 5. Always true.
MICRO850_EXPORT bool getPlcAdd(int type, unsigned int& address, unsigned int& count);

// ---- Connection set-up: the poll thread ---------------------------------------------------------

/// Queues the Identity and the Forward_Open request for the station. Always 1.
MICRO850_EXPORT int HandshakeFunction(const int& station);
/// 1 when the reply to the handshake frame in flight ends as a frame does, else 0. Advances the
/// station's counter either way and carries forward what the next frame needs. No status is looked
/// at.
MICRO850_EXPORT int HandshakeFunctionCheck(const QByteArray* reply);
/// 0 to 16777214, seeded anew from the seconds of the day: equal within one second.
MICRO850_EXPORT int get_random_number();

// ---- Frame integrity ----------------------------------------------------------------------------

/// CRC of an undoubled frame given up to and including its DLE ETX.
MICRO850_EXPORT unsigned int checkDataCrc(QByteArray frame);
/// false: the frame with the DLEs of its data doubled; true: with every pair of DLEs made one.
MICRO850_EXPORT QByteArray getRecoverData(const QByteArray& frame, bool undouble);
/// 1 when the reply, as received, holds a complete frame with the right CRC, else 0.
MICRO850_EXPORT int DataIntegrityJudgment(const QByteArray* reply);

// ---- Inside the library: not exported -----------------------------------------------------------

/// Scoped leaf lock: innermost, held for a few lines, never while another lock is taken or the host
/// is called. MICRO850_WITHOUT_LEAF_LOCKS leaves it out, to show that the thread tests notice.
class LeafLocker
{
public:
#ifdef MICRO850_WITHOUT_LEAF_LOCKS
    explicit LeafLocker(QMutex&) {}
    ~LeafLocker() {}
#else
    explicit LeafLocker(QMutex& mutex) : m_locker(&mutex) {}

private:
    QMutexLocker m_locker;
#endif
};

/// The tag store's leaf lock and what may be done with it held.
namespace tagstore {

/// Guards PLCDataStorage and plcAddList.
extern QMutex leaf;

enum InfoByte { kClass = 0, kTypeLow = 1, kTypeHigh = 2, kConfirmation = 3, kInfoSize = 4 };
enum TypeClass {
    kBool = 0,
    kShortString = 1,
    kByte = 2,
    kWord = 3,
    kDoubleWord = 4,
    kQuadWord = 5,
    kUnknownClass = 0xFF
};

/// No stored value grows past this many bytes, and no host count above this many words is served: a
/// controller has neither, a mistaken index or count has.
const int kLargestValue = 1 << 24;

/// True when a tag's information holds the confirmation of a reply.
bool isConfirmed(const QByteArray& info);
/// getRegType() of the two bytes of a type field.
int classOf(quint8 typeLow, quint8 typeHigh);

/// What the catalogue makes of a request's address text and count.
struct Address
{
    int startAddress;
    int count;
    int reqFlag;
};

// Caller holds `leaf`.
Address addressOf(const QString& tagName, const QString& addressText, int count);
/// The tag's information, seeded as long as no reply confirmed it.
QByteArray& seededInfo(PLCTAGCOMMUNICATION& station, const QString& tagName);

} // namespace tagstore

/// The one place that builds and closes frames.
namespace frame {

const char kDle = 0x10;
const char kStx = 0x02;
const char kEtx = 0x03;
const char kAck = 0x06;

/// Offsets in an undoubled frame that begins with DLE ACK.
enum Offset {
    kTransactionLow = 8,
    kTransactionHigh = 9,
    kConnectionLow = 12,
    kConnectionHigh = 13,
    kSequence = 14,
    kPathSize = 17,
    kPath = 18,
    kValueType = 20,
    kValues = 22
};
const int kCrcSize = 2;
/// DLE ETX and the CRC.
const int kTrailerSize = 4;
const int kVariableLength = -1;

/// The byte at `index`, 00 outside.
inline quint8 byteAt(const QByteArray& bytes, int index)
{
    return index >= 0 && index < bytes.size() ? static_cast<quint8>(bytes.at(index)) : quint8(0);
}
/// Makes `bytes` at least `size` long, filled up with 00.
void growTo(QByteArray& bytes, int size);
/// The bytes that a text of two-digit hexadecimal numbers, separated by single blanks, stands for.
QByteArray fromHexText(const char* text);

/// The station's data of a frame's header, taken from the store in one step.
struct Header
{
    unsigned short transaction;
    quint8 connectionLow;
    quint8 connectionHigh;
};

/// Caller holds the store's leaf lock.
Header headerOf(const PLCTAGCOMMUNICATION& station);

/// Writes one frame, front to back, into one buffer.
class Builder
{
public:
    /// Begins with `head`; `room` is for the bytes behind it, but for the closing ones.
    Builder(const QByteArray& head, int room);

    /// Name length, name and pad behind the symbol segment code that ends a head.
    void addTagName(const QString& name);
    /// The element segment; none for element 0.
    void addElement(int element);
    /// Ends the request path: patches its size.
    void endPath();
    void addByte(quint8 byte);
    /// Element count and byte offset 0.
    void addCount(int count);
    void addBytes(const QByteArray& bytes);
    /// Patches transaction number, connection identifier and sequence byte and gives the frame,
    /// closed with DLE ETX and CRC and DLE-doubled. The builder is then used up.
    QByteArray& finished(const Header& header);

private:
    void addNumber(unsigned int value, int size);

    QByteArray m_bytes;
    char* m_begin;
    char* m_end;
};

/// Makes every pair of DLEs one; a frame without any is left as it is, shared or not.
void undouble(QByteArray& bytes);

/// Bytes that a builder's tag name can take.
int roomForTagName(const QString& name);
/// Bytes that an element segment, a type, a count and a byte offset take at most.
const int kRoomForRequestTail = 14;

/// Appends a transaction to the send queue; takes `frame`, which is empty then. Caller holds
/// `listMutex` or is the only thread.
void queue(QByteArray& frame, int replyLength, int auxLength, const RW_VAR& request);
/// Notes in the settings record that an exchange of `frames` begins.
void beginExchange(int frames);
/// Gives the queued connection request the station's present transaction number, and a fresh serial
/// number for a resend. A frame that cannot be one is left alone. Its sendLength stays.
void repatchConnectionRequest(Protocol& request, int station, bool freshSerial);

} // namespace frame

#endif
