#include "driver_fixture.h"

using wire::hex;

namespace {

class WriteRequest : public DriverTest
{
protected:
    WriteRequest() { connectStation(); }

    QByteArray encoded(RW_VAR request)
    {
        WriteRegister(&request);
        return PLC_driver.sendQueue.last().frame;
    }
    QByteArray expected(quint16 type, quint32 count, const QByteArray& value, quint32 element = 0)
    {
        return wire::writeRequest(0x21, kId, wire::tagPath("T", element), type, count, value);
    }
};

TEST_F(WriteRequest, HasTheBytesOfTheWorkedExample)
{
    confirm("Speed", 3, 0xC3);
    EXPECT_BYTES(
        encoded(writeOf("Speed", hex("D2 04"))),
        hex("10 06 10 02 00 01 0A 00 21 00 00 00 5A 3C 28 45 53 04 91 05 53 70 65 65 64 00 C3 00 "
            "01 00 00 00 00 00 D2 04 10 03 6B D3"));
}

TEST_F(WriteRequest, IsQueuedAsOneFrameWithTheRequestAsSent)
{
    confirm("T", 2, 0xC2);
    settings.frameCount = 77;
    settings.framesAnswered = 77;
    RW_VAR request = writeOf("T", hex("11 00 22 00"), 0, 2);
    WriteRegister(&request);

    ASSERT_EQ(PLC_driver.sendQueue.size(), 1);
    const Protocol& queued = PLC_driver.sendQueue.first();
    EXPECT_EQ(queued.sendLength, queued.frame.size());
    EXPECT_EQ(queued.replyLength, -1);
    EXPECT_EQ(queued.auxLength, 0);
    EXPECT_EQ(queued.auxFlag, 0);
    EXPECT_BYTES(queued.var.data, hex("11 22"));
    EXPECT_BYTES(request.data, hex("11 22")) << "the caller's record holds the sent bytes";
    EXPECT_EQ(settings.frameCount, 1);
    EXPECT_EQ(settings.framesAnswered, 0);
}

struct ShapeRow
{
    quint8 typeClass;
    int count;
    const char* given;
    quint32 sentCount;
    const char* sent;
};

std::ostream& operator<<(std::ostream& out, const ShapeRow& row)
{
    return out << "class " << int(row.typeClass) << ", " << row.count << " of " << row.given;
}

class WriteShape : public WriteRequest, public ::testing::WithParamInterface<ShapeRow>
{
};

TEST_P(WriteShape, DependsOnTheClass)
{
    const ShapeRow& row = GetParam();
    confirm("T", row.typeClass, 0x1234);
    RW_VAR request = writeOf("T", hex(row.given), 0, row.count);
    EXPECT_BYTES(encoded(request), expected(0x1234, row.sentCount, hex(row.sent)));
    WriteRegister(&request);
    EXPECT_BYTES(request.data, hex(row.sent));
}

INSTANTIATE_TEST_SUITE_P(
    EveryClass, WriteShape,
    ::testing::Values(ShapeRow{0, 1, "01", 1, "01"}, ShapeRow{0, 3, "01", 3, "01 00 00"},
                      ShapeRow{0, 1, "01 02", 1, "01"}, ShapeRow{0, -1, "01", 0xFFFFFFFF, ""},
                      ShapeRow{1, 9, "41 42 43", 1, "03 41 42 43"}, ShapeRow{1, 1, "", 1, "00"},
                      ShapeRow{2, 2, "11 00 22 00", 2, "11 22"}, ShapeRow{2, 2, "7F", 2, "7F 00"},
                      ShapeRow{2, 2, "11 22 33", 2, "11 33"},
                      ShapeRow{2, 1, "11 22 33 44", 1, "11"}, ShapeRow{2, -5, "11", 0xFFFFFFFB, ""},
                      ShapeRow{3, 1, "D2 04", 1, "D2 04"}, ShapeRow{3, 2, "D2", 2, "D2 00 00 00"},
                      ShapeRow{3, 1, "01 02 03", 1, "01 02"},
                      ShapeRow{4, 2, "01 02 03 04", 1, "01 02 03 04"},
                      ShapeRow{4, 3, "01 02 03 04 05 06", 2, "01 02 03 04 05 06 00 00"},
                      ShapeRow{4, 1, "01 02 03 04 05", 1, "01 02 03 04"},
                      ShapeRow{4, 0, "01", 0, ""}, ShapeRow{4, -3, "01", 0xFFFFFFFF, ""},
                      ShapeRow{5, 4, "01 02 03 04 05 06 07 08", 1, "01 02 03 04 05 06 07 08"},
                      ShapeRow{5, 5, "01", 2, "01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"},
                      ShapeRow{5, 1, "01", 1, "01 00 00 00 00 00 00 00"},
                      ShapeRow{6, 9, "01", 9, "01"}, ShapeRow{0xFF, 9, "01 02", 9, "01 02"}));

TEST_F(WriteRequest, TreatsATagWithoutAnEntryAsABool)
{
    EXPECT_BYTES(encoded(writeOf("T", hex("01 02"), 0, 1)), expected(0, 1, hex("01")));
    EXPECT_TRUE(PLCDataStorage[1].tagInfo.contains("T")) << "the entry is created empty";
    EXPECT_TRUE(PLCDataStorage[1].tagInfo["T"].isEmpty());
}

TEST_F(WriteRequest, SendsAnUnconfirmedTagWithTypeZeroAndItsDataUnchanged)
{
    PLCDataStorage[1].tagInfo["T"] = hex("FF 00 00 00");
    EXPECT_BYTES(encoded(writeOf("T", hex("01 02 03"), 0, 1)), expected(0, 1, hex("01 02 03")));
}

TEST_F(WriteRequest, NamesTheElementOfACataloguedTag)
{
    confirm("T", 3, 0xC3);
    EXPECT_BYTES(encoded(writeOf("T", hex("01 02"), 300)), expected(0xC3, 1, hex("01 02"), 300));
    RW_VAR plain = writeOf("T", hex("01 02"), 300);
    plain.reqFlag = 0;
    EXPECT_BYTES(encoded(plain), expected(0xC3, 1, hex("01 02")));
}

TEST_F(WriteRequest, NamesTheElementForEveryClassExceptAString)
{
    for (int typeClass : {0, 2, 3, 4, 5, 6, 0xFE}) {
        confirm("T", static_cast<quint8>(typeClass), 0xC3);
        EXPECT_EQ(encoded(writeOf("T", "x", 300)).mid(17, 9), hex("04 91 01 54 00 29 00 2C 01"))
            << typeClass;
    }
}

TEST_F(WriteRequest, EncodesTheLongestElementAfterANameOfOddAndOfEvenLength)
{
    for (const char* tag : {"Odd", "Even"}) {
        confirm(tag, 4, 0xC4);
        EXPECT_BYTES(encoded(writeOf(tag, hex("01 02 03 04"), 0x12345678, 2)),
                     wire::writeRequest(0x21, kId, wire::tagPath(tag, 0x12345678), 0xC4, 1,
                                        hex("01 02 03 04")));
    }
}

TEST_F(WriteRequest, NamesTheElementOfAnUnconfirmedTag)
{
    EXPECT_BYTES(encoded(writeOf("T", hex("01"), 300)), expected(0, 1, hex("01"), 300));
    PLCDataStorage[1].tagInfo["T"] = hex("FF 00 00 00");
    EXPECT_BYTES(encoded(writeOf("T", hex("01 02"), 7)), expected(0, 1, hex("01 02"), 7));
}

TEST_F(WriteRequest, TreatsEveryFlagExceptZeroAsACataloguedName)
{
    confirm("T", 3, 0xC3);
    for (int flag : {-1, 2}) {
        RW_VAR request = writeOf("T", hex("01 02"), 300);
        request.reqFlag = flag;
        EXPECT_BYTES(encoded(request), expected(0xC3, 1, hex("01 02"), 300)) << flag;
    }
}

TEST_F(WriteRequest, DoesNotDependOnTheKindOfRead)
{
    for (int flag : {0, 1, 2}) {
        confirm("T", 4, 0xC4);
        RW_VAR request = writeOf("T", hex("01 02 03 04 05 06 07 08"), 0, 4);
        request.onceFlag = flag;
        EXPECT_BYTES(encoded(request), expected(0xC4, 2, hex("01 02 03 04 05 06 07 08"))) << flag;
        confirm("T", 5, 0xC5);
        request.count = 8;
        EXPECT_BYTES(encoded(request),
                     expected(0xC5, 2, hex("01 02 03 04 05 06 07 08 00 00 00 00 00 00 00 00")));
    }
}

TEST_F(WriteRequest, ChangesOnlyTheValueBytesOfTheRequest)
{
    confirm("T", 4, 0xC4);
    RW_VAR request = distinctRequest("T");
    request.count = 4;
    RW_VAR sent = request;
    sent.data = hex("32 31 00 00 00 00 00 00");
    WriteRegister(&request);
    EXPECT_EQ(fieldsOf(request), fieldsOf(sent));
    EXPECT_EQ(fieldsOf(PLC_driver.sendQueue.last().var), fieldsOf(sent));
}

TEST_F(WriteRequest, NamesNoElementOfAString)
{
    confirm("T", 1, 0xDA);
    EXPECT_BYTES(encoded(writeOf("T", "AB", 300)), expected(0xDA, 1, hex("02 41 42")));
}

TEST_F(WriteRequest, TruncatesTheLengthByteOfALongString)
{
    confirm("T", 1, 0xDA);
    RW_VAR request = writeOf("T", QByteArray(300, 'x'));
    WriteRegister(&request);
    EXPECT_EQ(request.data.size(), 301);
    EXPECT_EQ(static_cast<quint8>(request.data.at(0)), 300 % 256);
}

TEST_F(WriteRequest, DoublesEveryDle)
{
    connectStation(1, hex("10 10"), 0x1010);
    confirm("T", 4, 0x10);
    RW_VAR request = writeOf("T", hex("10 10 10 10"), 16, 2);
    WriteRegister(&request);
    const Protocol& queued = PLC_driver.sendQueue.first();
    EXPECT_BYTES(queued.frame, wire::writeRequest(0x1010, hex("10 10"), wire::tagPath("T", 16),
                                                  0x10, 1, hex("10 10 10 10")));
    EXPECT_EQ(queued.sendLength, queued.frame.size());
}

TEST_F(WriteRequest, CallsTheRefreshCallbackAfterItIsQueued)
{
    static int queuedThen, framesThen, answeredThen;
    queuedThen = -1;
    settings.frameCount = settings.framesAnswered = 77;
    PLC_driver.refreshCallback = [](QList<RW_VAR>* list, int varType, int flag) {
        queuedThen = PLC_driver.sendQueue.size();
        framesThen = PLC_driver.comInfo->frameCount;
        answeredThen = PLC_driver.comInfo->framesAnswered;
        refreshed.push_back({list != nullptr, list ? list->size() : -1, varType, flag});
    };
    RW_VAR request = writeOf("T", "x");
    request.varType = 6;
    WriteRegister(&request);
    ASSERT_EQ(refreshed.size(), 1u);
    EXPECT_TRUE(refreshed[0].hasList);
    EXPECT_EQ(refreshed[0].listSize, 0);
    EXPECT_EQ(refreshed[0].varType, 6);
    EXPECT_EQ(refreshed[0].flag, 1);
    EXPECT_EQ(queuedThen, 1);
    EXPECT_EQ(framesThen, 1);
    EXPECT_EQ(answeredThen, 0);
}

TEST_F(WriteRequest, CallsTheRefreshCallbackAfterAFailureToo)
{
    PLC_driver.errorFlag = true;
    encoded(writeOf("T", "x"));
    EXPECT_EQ(refreshed.size(), 1u);
}

TEST_F(WriteRequest, WorksWithoutACallbackAndQueuesNothingWithoutARequest)
{
    RegistCallBackFuncIntf(nullptr, nullptr);
    WriteRegister(nullptr);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    encoded(writeOf("T", "x"));
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
}

TEST_F(WriteRequest, DoesNotChangeTheDataForAnImpossibleCount)
{
    for (const quint8 typeClass : std::initializer_list<quint8>{0, 2, 3, 4, 5}) {
        confirm("T", typeClass, 0xC3);
        RW_VAR request = writeOf("T", "abc", 0, std::numeric_limits<int>::max());
        WriteRegister(&request);
        EXPECT_EQ(request.data, QByteArray("abc")) << int(typeClass);
    }
}

} // namespace
