#ifndef MICRO850_TESTS_DISPATCHER_FIXTURE_H
#define MICRO850_TESTS_DISPATCHER_FIXTURE_H

#include "driver_fixture.h"
#include "internal/DriverState.h"

using driverstate::kCyclicRead;
using driverstate::kNoListYet;
using driverstate::kOneShotRead;
using driverstate::kWrite;

/// A driver with station 1 connected, and helpers that send requests and deliver replies.
class DispatcherTest : public DriverTest
{
protected:
    DispatcherTest() { connectStation(); }

    /// Appends a request to the list that `list` names and lets the scheduler send it.
    Protocol* send(const RW_VAR& request, int list)
    {
        if (list == kWrite)
            PLC_driver.writeList.append(request);
        else if (list == kOneShotRead)
            PLC_driver.onceReadList.append(request);
        else
            PLC_driver.readList.append(request);
        if (request.accessMode == 1)
            confirm(request.tagName.toLatin1().constData(), 3, 0xC3, request.stationNo);
        return ComCommunication();
    }
    /// The same, but expects a reply length that no reply of the tests has.
    Protocol* sendUnanswerable(const RW_VAR& request, int list)
    {
        Protocol* head = send(request, list);
        head->replyLength = 50;
        return head;
    }
    /// The request for another variable of the host, and another station.
    RW_VAR ofVariable(RW_VAR request, int varType, int varIndex, int station = 1)
    {
        request.varType = varType;
        request.varIndex = varIndex;
        request.stationNo = station;
        return request;
    }
    /// Delivers a reply in one call of DataCom, and returns the code.
    static int deliver(QByteArray reply)
    {
        const int code = DataCom(&reply, reply.size())->retValue;
        EXPECT_TRUE(locksAreFree());
        return code;
    }
    /// Fails the frame in flight once more than the retry limit allows; returns the last code.
    int failBeyondTheLimit()
    {
        PLC_driver.sendQueue.first().replyLength = 50;
        int code = 0;
        for (int i = 0; i <= settings.retryLimit; ++i)
            code = timeOut();
        return code;
    }

    const QByteArray kGood = wire::readReply(0x21, 0xC3, wire::hex("01 02"));
    const QByteArray kBad = kGood.left(20);
};

#endif
