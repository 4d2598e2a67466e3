#ifndef MICRO850_DEVICE_DRIVER_H
#define MICRO850_DEVICE_DRIVER_H

// The shared records, the driver object, the two entry points of the poll cycle, the host's return
// codes, the debug log and the catalogue of variable names.

#include "Micro850Export.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QMutex>
#include <QtCore/QString>

// ---- Records of the host's ABI ---------------------------------------------------------------

/// One variable request. The host fills it and reads it back, so order and widths are fixed.
/// A default-constructed record does not initialise its integers: whoever makes one sets all of
/// them.
struct RW_VAR
{
    int varType;         ///< host's kind of variable; 1 to 11 select the fine failure code
    int varIndex;        ///< host's number of the variable within its kind
    int accessMode;      ///< 0 read, 1 write; any other value makes every reply count as invalid
    int hostField3;      ///< copy of ComInfo::remoteMode, not interpreted
    int linkId;          ///< link of the request; ComInfo::localLink marks the local area
    int retValue;        ///< result code of the last transaction, see GetDriverReturnValue()
    QString tagName;     ///< controller tag
    QString addressText; ///< element index as decimal text
    int areaType;        ///< register area, part of a request's identity in the lists
    int startAddress;    ///< first element
    int stationNo;       ///< controller station
    int count;           ///< elements, or 16-bit host words, see getPlcAdd()
    int reqFlag;         ///< 1 when the tag is in the catalogue, else 0
    int onceFlag;        ///< 0 cyclic read, 1 one-shot read, 2 write
    QByteArray data;     ///< value bytes to write, or read back
};

/// One queued transaction: the encoded frame and the request it serves. Owned by the driver.
struct Protocol
{
    QByteArray frame; ///< complete frame, DLE-doubled and closed with its CRC
    int sendLength;   ///< bytes of `frame` when it was queued; a re-patched frame may be longer
    int replyLength;  ///< expected bytes of the reply, -1 if they vary
    int auxLength;    ///< offset of the value bytes in the undoubled reply, 0 if there are none
    int auxFlag;      ///< 0 in every frame
    RW_VAR var;       ///< copy of the request
    int reserve1;
    int reserve2;
    int reserve3;

    Protocol()
        : sendLength(0), replyLength(0), auxLength(0), auxFlag(0), var(), reserve1(0), reserve2(0),
          reserve3(0)
    {
    }
};

/// Record of a list that the driver has and never fills.
struct EXTENDVAR
{
    int field1;
    int field2;
    int field3;
    QByteArray data;
};

/// The host's description of one variable name. Only names of kind 2, which carry an element index,
/// are kept.
struct varName
{
    QString name;
    int kind;
    int hostField2;
    QList<QString> hostField3;
};

/// The host's communication settings, 32-bit words from offset 0. The host owns the record and
/// keeps it alive as long as the driver is loaded. It may be longer than the words named here.
struct ComInfo
{
    int hostWord0;
    int hostWord1;
    int hostWord2;
    int hostWord3;
    int hostWord4;
    int hostWord5;
    int defaultStation;  ///< word 6: station of every request in single-station mode
    int retryLimit;      ///< word 7: failed transactions that are tolerated
    int failureCount;    ///< word 8: failed transactions so far; a success does not clear it
    int multiStation;    ///< word 9: 0 single-station mode, else stations per variable
    int clearedWord10;   ///< word 10: cleared by SetComInfo()
    int frameCount;      ///< word 11: frames of the request being served
    int framesAnswered;  ///< word 12: frames answered; step of the connection set-up
    int clearedWord13;   ///< word 13: cleared by SetComInfo()
    int remoteMode;      ///< word 14: non-zero sends requests to the remote handlers
    int localLink;       ///< word 15: link identifier of the local area
    int writeMode;       ///< word 16: 2 selects queued writes
    int passComplete;    ///< word 17: 1 when a full cycle was answered or there is nothing to do
    int callbackChannel; ///< word 18: first argument of the completion callback
};

/// Reports that a request is finished: status 1 done, 2 failed. Called with `listMutex` held: it
/// may call GetRegisterData(), but nothing that takes `listMutex`.
typedef void (*FinishCallback)(int channel, int varType, int varIndex, int status);
/// Called after a failure and after each queued write frame, with `listMutex` held as for
/// FinishCallback. `list` is empty and exists during the call only.
typedef void (*RefreshCallback)(QList<RW_VAR>* list, int varType, int flag);

/// The driver's whole state except the tag store. The only instance is PLC_driver.
/// `listMutex` guards the request lists, the counters and `result`, and `sendQueue` while a frame
/// is encoded; `dataMutex` guards the host's view of the tag values; `stationMutex` guards
/// `disabledStations`. The only nesting is `listMutex` before `stationMutex`.
class MICRO850_EXPORT Device_Driver
{
public:
    Device_Driver();

    ComInfo* comInfo;
    QList<RW_VAR> readList;
    QList<RW_VAR> writeList;
    QList<RW_VAR> onceReadList;
    QList<RW_VAR> spareList;
    QList<Protocol> sendQueue;
    QList<EXTENDVAR> extendList;
    QMap<int, int> disabledStations;
    FinishCallback finishCallback;
    RefreshCallback refreshCallback;
    QMutex listMutex;
    QMutex dataMutex;
    QMutex stationMutex;
    RW_VAR result;
    int currentList; ///< list of the last request: 0 cyclic, 1 write, 2 one-shot, 100 none yet
    int writeBurst;
    int onceBurst;
    int readCycleCount;
    bool errorFlag;
    bool spareFlag;
};

extern MICRO850_EXPORT Device_Driver PLC_driver;
/// Names that carry an element index. It only grows.
extern MICRO850_EXPORT QMap<QString, varName> plcAddList;

// ---- Poll cycle ---------------------------------------------------------------------------------
// One thread calls these two in turn, and what they return belongs to that thread.
// ComCommunication() takes `listMutex` and inside it `stationMutex`. DataCom() takes `dataMutex`,
// and after releasing it `listMutex`. They wait for calls of other threads only, never for the
// line.

/// Returns the next frame to send, or null if there is none. The record belongs to the driver and
/// is valid until DataCom() removes it. While it is queued, every call returns it again.
MICRO850_ENTRY Protocol* ComCommunication();

/// Judges the bytes received for the frame in flight. `length` is their number, 0 after a time-out.
/// Returns the driver's `result`, whose retValue says what happened: 0 not finished, 1 done, 201 no
/// connection, other codes as from GetDriverReturnValue(). A null `reply` counts as no bytes; for a
/// write it is no reply, whatever `length` is.
MICRO850_ENTRY RW_VAR* DataCom(QByteArray* reply, int length);

/// Judges and stores a reply on the local link. Returns the code of GetDriverReturnValue().
MICRO850_EXPORT int DealDataOfLocalArea(QByteArray* reply, int length);
/// The same on a remote link, where a reply is stored only for a request with reqFlag -1.
MICRO850_EXPORT int DealDataOfRemoteArea(QByteArray* reply, int length);

// ---- Return codes and debug log -----------------------------------------------------------------

/// The host's code for an outcome 0 to 7; 200 for any other.
MICRO850_EXPORT int GetDriverReturnValue(int outcome);
/// `base` + 1, plus the varType of the request in flight if that is from 1 to 11.
MICRO850_EXPORT int SwitchErrorReturn(int base);
/// Appends one line with the time to "debug.log" in the working directory. The first call of a run
/// empties the file. If the file cannot be opened, the line is lost. A host may install this as
/// Qt's message handler. Any thread.
MICRO850_EXPORT void customMessageHandler(QtMsgType type, const char* message);

// ---- Catalogue of variable names ----------------------------------------------------------------

/// Adds the names of kind 2 to the catalogue. A null or empty list adds nothing. Any thread,
/// callbacks included. Takes none of the named mutexes; others wait for one name at most.
MICRO850_ENTRY void PassVarName(QList<varName>* list);
/// True when the catalogue holds exactly this name.
MICRO850_EXPORT bool getPassVarName(QString name);
/// Sets startAddress, count and reqFlag of a request as the catalogue defines them and creates the
/// tag's entry in the store. Always 1. A null record does nothing.
MICRO850_EXPORT int updateRwVar(RW_VAR* request);
/// Copies everything except the value bytes; `to.data` becomes empty.
MICRO850_EXPORT void passRetValue(const RW_VAR& from, RW_VAR& to);

#endif
