#ifndef MICRO850_TAGCOMMUNICATION_H
#define MICRO850_TAGCOMMUNICATION_H

// The per-station tag store, the tag predicates, the connection set-up and the integrity of frames.

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

/// Keyed by station number. Every lookup creates the station, so no function reports that one is
/// unknown.
extern MICRO850_EXPORT QMap<int, PLCTAGCOMMUNICATION> PLCDataStorage;

// ---- Tag store: any thread, each call one step --------------------------------------------------

/// Replaces the station's record by a fresh one: counter 1, nothing known. Always 1.
MICRO850_EXPORT int AddTheTagInformationContainer(const int& station);
/// True while the station is connected. A station without a record gets a fresh one.
MICRO850_EXPORT bool getHandshakeInformation(const int& station);
/// Marks the station connected, or marks it not connected and forgets its connection identifier.
/// Always 1.
MICRO850_EXPORT int setHandshakeInformation(const int& station, bool flag);
/// Advances the station's transaction counter: 1 follows 65535. Always 1.
MICRO850_EXPORT int addPlcNumber(int station);

/// True if a value of the tag is stored.
MICRO850_EXPORT bool getTagData(RW_VAR* request);
/// True if a reply confirmed the tag's type class.
MICRO850_EXPORT bool getAddressType(RW_VAR* request);
/// Type class 0 to 5 of a CIP type field (a leading 0xA3 is skipped); 2 for every other code.
MICRO850_EXPORT int getRegType(const QByteArray& type);
/// Turns an element index into a byte position and a count of 16-bit words into elements, for
/// classes 3 to 5. Always true.
MICRO850_EXPORT bool getPlcAdd(int type, unsigned int& address, unsigned int& count);

// ---- Connection set-up: the poll thread ---------------------------------------------------------

/// Queues the Identity and the Forward_Open request for the station. Always 1.
MICRO850_EXPORT int HandshakeFunction(const int& station);
/// 1 if the reply to the set-up's frame in flight ends as a frame does, else 0. Advances the
/// station's counter in both cases and keeps what the next frame needs. Checks no status.
MICRO850_EXPORT int HandshakeFunctionCheck(const QByteArray* reply);
/// 0 to 16777214. The generator is seeded with the seconds of the day at each call, so that calls
/// within one second return the same number.
MICRO850_EXPORT int get_random_number();

// ---- Frame integrity ----------------------------------------------------------------------------

/// CRC of an undoubled frame that ends with its DLE ETX.
MICRO850_EXPORT unsigned int checkDataCrc(QByteArray frame);
/// false: doubles the DLEs of the frame's data; true: replaces every pair of DLEs by one.
MICRO850_EXPORT QByteArray getRecoverData(const QByteArray& frame, bool undouble);
/// 1 if the reply, as received, holds a complete frame with the right CRC, else 0.
MICRO850_EXPORT int DataIntegrityJudgment(const QByteArray* reply);

#endif
