#ifndef MICRO850_TESTS_DRIVER_FIXTURE_H
#define MICRO850_TESTS_DRIVER_FIXTURE_H

#include "Device_Driver.h"
#include "Func_Check.h"
#include "Func_DealData.h"
#include "Func_GetOrSetData.h"
#include "Func_Initi.h"
#include "Func_Read.h"
#include "Func_Remote.h"
#include "Func_Write.h"
#include "tagcommunication.h"
#include "wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

/// Compares bytes; a failure shows both as hexadecimal text.
#define EXPECT_BYTES(actual, expected) EXPECT_EQ(wire::text(actual), wire::text(expected))

/// All fifteen fields of a request as text, for comparisons.
std::string fieldsOf(const RW_VAR& request);

/// A driver as it is after loading, with a settings record and with callbacks that record their
/// arguments. Every global is reset for each test, so tests pass in any order and alone.
class DriverTest : public ::testing::Test
{
protected:
    struct Finished
    {
        int channel, varType, varIndex, status;
        bool operator==(const Finished& o) const
        {
            return channel == o.channel && varType == o.varType && varIndex == o.varIndex &&
                   status == o.status;
        }
    };
    struct Refreshed
    {
        bool hasList;
        int listSize, varType, flag;
    };

    DriverTest();
    ~DriverTest() override;
    /// Resets the driver to its state after loading, with the settings below and nothing reported.
    void restart();

    /// The settings of most tests: station 1, retry limit 2, several stations, local link 7 (so
    /// that a link of 0 is remote), queued writes, callback channel 9. All other words are 0.
    ComInfo settings;
    /// The connection identifier of stations that connectStation() connects.
    const QByteArray kId = wire::hex("5A 3C");
    static std::vector<Finished> finished;
    static std::vector<Refreshed> refreshed;

    /// A request that reads `count` elements of `tag` from station 1 on the local link. The fields
    /// that the driver only copies are not 0, so that a test sees whether they were cleared.
    RW_VAR readOf(const char* tag, int element = 0, int count = 1);
    RW_VAR writeOf(const char* tag, const QByteArray& value, int element = 0, int count = 1);

    /// A variable of the host's cyclic list. Fields that the driver does not read are set too.
    static HOSTVAR hostVar(const char* tag, const char* address, int count, unsigned char area = 5);

    /// A request whose fields all have different values, for station 1 on the local link.
    RW_VAR distinctRequest(const char* tag);

    /// Adds a name to the catalogue, as a host does for an array.
    void declareIndexed(const char* tag);
    /// Marks a station as connected without exchanging frames.
    void connectStation(int station = 1, const QByteArray& connectionId = wire::hex("5A 3C"),
                        quint16 counter = 0x21);
    /// Makes the class of a tag known without exchanging frames.
    void confirm(const char* tag, quint8 typeClass, quint16 type, int station = 1);

    /// Makes `request` the only transaction in flight, without a frame. The value of its reply
    /// starts at byte 22, like that of every read.
    static Protocol& putInFlight(const RW_VAR& request, int replyLength = 0);

    /// What the store holds about the type of a tag: class, type code and confirmation.
    static QByteArray infoOf(const char* tag, int station = 1);
    /// The tag names of a list's requests, in order and without separators.
    static QString tagsOf(const QList<RW_VAR>& list);

    /// Delivers a complete reply of varying length to DataCom twice, as a host does. Returns the
    /// last code.
    int answer(const QByteArray& reply);
    /// Delivers an empty reply, as a host does after a time-out. Returns the code.
    int timeOut();

    /// True when no thread holds the lock.
    static bool isFree(QMutex& mutex);
    static bool locksAreFree();

private:
    QtMessageHandler m_handlerBefore;
};

#endif
