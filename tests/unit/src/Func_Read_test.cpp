#include "driver_fixture.h"

using wire::hex;

namespace {

class ReadRequest : public DriverTest
{
protected:
    ReadRequest() { connectStation(); }

    QByteArray encoded(RW_VAR request)
    {
        ReadRegister(&request);
        return PLC_driver.sendQueue.last().frame;
    }
    QByteArray expected(const char* tag, quint32 element, quint32 count)
    {
        return wire::readRequest(0x21, kId, wire::tagPath(tag, element), count);
    }
};

TEST_F(ReadRequest, HasTheBytesOfTheWorkedExample)
{
    confirm("Speed", 3, 0xC3);
    EXPECT_BYTES(
        encoded(readOf("Speed")),
        hex("10 06 10 02 00 01 0A 00 21 00 00 00 5A 3C 28 45 52 04 91 05 53 70 65 65 64 00 "
            "01 00 00 00 00 00 10 03 4A 2F"));
}

TEST_F(ReadRequest, IsQueuedAsOneFrameWithAReplyOfVaryingLength)
{
    confirm("Speed", 3, 0xC3);
    settings.frameCount = 77;
    settings.framesAnswered = 77;
    RW_VAR request = readOf("Speed", 4, 2);
    request.data = "kept";
    ReadRegister(&request);

    ASSERT_EQ(PLC_driver.sendQueue.size(), 1);
    const Protocol& queued = PLC_driver.sendQueue.first();
    EXPECT_EQ(queued.sendLength, queued.frame.size());
    EXPECT_EQ(queued.replyLength, -1);
    EXPECT_EQ(queued.auxLength, 22);
    EXPECT_EQ(queued.auxFlag, 0);
    EXPECT_EQ(queued.reserve1, 0);
    EXPECT_EQ(queued.reserve2, 0);
    EXPECT_EQ(queued.reserve3, 0);
    EXPECT_EQ(queued.var.tagName, request.tagName);
    EXPECT_EQ(queued.var.startAddress, 4);
    EXPECT_EQ(queued.var.count, 2);
    EXPECT_EQ(queued.var.data, QByteArray("kept"));
    EXPECT_EQ(queued.var.stationNo, 1);
    EXPECT_EQ(settings.frameCount, 1);
    EXPECT_EQ(settings.framesAnswered, 0);
    EXPECT_EQ(PLCDataStorage[1].transactionCounter, 0x21);
}

TEST_F(ReadRequest, IsAppendedAfterQueuedFrames)
{
    encoded(readOf("A"));
    encoded(readOf("B"));
    EXPECT_EQ(PLC_driver.sendQueue.size(), 2);
    EXPECT_EQ(PLC_driver.sendQueue.last().var.tagName, QString("B"));
}

TEST_F(ReadRequest, AsksForOneElementWithoutAnIndexWhileTheClassIsUnknown)
{
    EXPECT_BYTES(encoded(readOf("New", 7, 9)), expected("New", 0, 1));
    EXPECT_BYTES(infoOf("New"), hex("FF"))
        << "the class becomes unknown in a new entry of one byte";
}

TEST_F(ReadRequest, ForgetsAClassThatNoReplyConfirmed)
{
    PLCDataStorage[1].tagInfo["T"] = hex("03 C3 00 00");
    EXPECT_BYTES(encoded(readOf("T", 7, 9)), expected("T", 0, 1));
    EXPECT_BYTES(infoOf("T"), hex("FF C3 00 00"));
}

TEST_F(ReadRequest, DoesNotChangeAConfirmedEntry)
{
    for (int typeClass : {0, 1, 2, 3, 4, 5, 0xFF}) {
        const QByteArray entry =
            wire::little(static_cast<quint64>(typeClass), 1) + hex("C5 07 FF 09");
        PLCDataStorage[1].tagInfo["T"] = entry;
        encoded(readOf("T", 7, 9));
        EXPECT_BYTES(infoOf("T"), entry);
    }
}

TEST_F(ReadRequest, TrustsAConfirmationOnlyInAnEntryOfFourBytes)
{
    PLCDataStorage[1].tagInfo["T"] = hex("03 C3 FF");
    EXPECT_BYTES(encoded(readOf("T", 7, 9)), expected("T", 0, 1));
    PLCDataStorage[1].tagInfo["U"] = hex("03 C3 00 FE");
    EXPECT_BYTES(encoded(readOf("U", 7, 9)), expected("U", 0, 1));
}

TEST_F(ReadRequest, SendsTheCountUnchangedForANameOutsideTheCatalogue)
{
    RW_VAR request = readOf("Plain", 9, 5);
    request.reqFlag = 0;
    EXPECT_BYTES(encoded(request), expected("Plain", 0, 5));
    EXPECT_FALSE(PLCDataStorage[1].tagInfo.contains("Plain")) << "no entry is created";
}

struct CountRow
{
    quint8 typeClass;
    int onceFlag;
    int count;
    quint32 sent;
};

std::ostream& operator<<(std::ostream& out, const CountRow& row)
{
    return out << "class " << int(row.typeClass) << ", once " << row.onceFlag << ", " << row.count;
}

class ReadCount : public ReadRequest, public ::testing::WithParamInterface<CountRow>
{
};

TEST_P(ReadCount, DependsOnTheClassAndTheKindOfRead)
{
    confirm("T", GetParam().typeClass, 0xC1);
    RW_VAR request = readOf("T", 0, GetParam().count);
    request.onceFlag = GetParam().onceFlag;
    EXPECT_BYTES(encoded(request), expected("T", 0, GetParam().sent));
}

INSTANTIATE_TEST_SUITE_P(
    EveryClass, ReadCount,
    ::testing::Values(CountRow{0, 0, 9, 9}, CountRow{0, 1, 9, 9}, CountRow{1, 0, 9, 1},
                      CountRow{1, 1, 9, 1}, CountRow{2, 0, 9, 9}, CountRow{2, 1, 9, 9},
                      CountRow{3, 0, 9, 9}, CountRow{3, 1, 9, 9}, CountRow{4, 0, 2, 1},
                      CountRow{4, 0, 3, 2}, CountRow{4, 1, 3, 1}, CountRow{4, 1, 2, 1},
                      CountRow{4, 2, 4, 2}, CountRow{5, 0, 4, 1}, CountRow{5, 1, 4, 1},
                      CountRow{5, 1, 9, 2}, CountRow{6, 0, 9, 9}, CountRow{0xFE, 1, 9, 9},
                      CountRow{0xFF, 0, 9, 1}, CountRow{0xFF, 1, 9, 1},
                      CountRow{3, 0, -2, 0xFFFFFFFE}, CountRow{4, 0, 0, 0xFFFFFFFF},
                      CountRow{5, 0, 2, 0xFFFFFFFF}, CountRow{4, 1, -3, 0xFFFFFFFE},
                      CountRow{3, 0, 0x12345678, 0x12345678},
                      CountRow{4, 0, std::numeric_limits<int>::min(), 0x7FFFFFFF}));

TEST_F(ReadRequest, NamesTheElementForEveryClassExceptAStringAndForEveryKindOfRead)
{
    for (int typeClass : {0, 2, 3, 4, 5, 6, 0xFE}) {
        for (int onceFlag : {0, 1, 2}) {
            confirm("Zone", static_cast<quint8>(typeClass), 0xC3);
            RW_VAR request = readOf("Zone", 300, 4);
            request.onceFlag = onceFlag;
            const int wide = onceFlag == 0 ? 3 : 2;
            const int count = typeClass == 4 ? wide : typeClass == 5 ? 1 : 4;
            EXPECT_BYTES(encoded(request),
                         wire::readRequest(0x21, kId, hex("91 04 5A 6F 6E 65 29 00 2C 01"),
                                           static_cast<quint32>(count)))
                << typeClass << " once " << onceFlag;
        }
    }
}

TEST_F(ReadRequest, TreatsEveryFlagExceptZeroAsACataloguedName)
{
    for (int flag : {-1, 2, 77}) {
        confirm("T", 4, 0xC4);
        RW_VAR request = readOf("T", 7, 4);
        request.onceFlag = 1;
        request.reqFlag = flag;
        EXPECT_BYTES(encoded(request), expected("T", 7, 2)) << flag;
        PLCDataStorage[1].tagInfo["T"] = hex("04 C4 00 00");
        EXPECT_BYTES(encoded(request), expected("T", 0, 1)) << flag;
        EXPECT_BYTES(infoOf("T"), hex("FF C4 00 00")) << flag;
    }
}

TEST_F(ReadRequest, QueuesACopyOfTheRequestAndDoesNotChangeTheCallersRecord)
{
    for (int flag : {0, 1}) {
        RW_VAR request = distinctRequest("T");
        request.reqFlag = flag;
        const std::string before = fieldsOf(request);
        ReadRegister(&request);
        EXPECT_EQ(fieldsOf(PLC_driver.sendQueue.last().var), before);
        EXPECT_EQ(fieldsOf(request), before);
    }
}

class ReadElement : public ReadRequest,
                    public ::testing::WithParamInterface<std::pair<int, std::string>>
{
};

TEST_P(ReadElement, IsNamedByTheShortestSegment)
{
    confirm("Zone", 3, 0xC3);
    const QByteArray path = hex("91 04 5A 6F 6E 65") + hex(GetParam().second.c_str());
    EXPECT_BYTES(encoded(readOf("Zone", GetParam().first)), wire::readRequest(0x21, kId, path, 1));
}

INSTANTIATE_TEST_SUITE_P(
    EveryWidth, ReadElement,
    ::testing::Values(std::pair<int, std::string>(0, ""), std::pair<int, std::string>(1, "28 01"),
                      std::pair<int, std::string>(255, "28 FF"),
                      std::pair<int, std::string>(256, "29 00 00 01"),
                      std::pair<int, std::string>(65535, "29 00 FF FF"),
                      std::pair<int, std::string>(65536, "30 00 00 00 01 00"),
                      std::pair<int, std::string>(0x7FFFFFFF, "30 00 FF FF FF 7F"),
                      // A negative index must not become an 8-bit or 16-bit one.
                      std::pair<int, std::string>(-1, "30 00 FF FF FF FF")));

TEST_F(ReadRequest, NamesNoElementOfAString)
{
    confirm("Text", 1, 0xDA);
    EXPECT_BYTES(encoded(readOf("Text", 3, 9)), expected("Text", 0, 1));
}

TEST_F(ReadRequest, PadsANameOfOddLength)
{
    for (int size : {0, 1, 2, 7, 8, 254, 255, 256, 257}) {
        const QByteArray name(size, 'n');
        confirm(name.constData(), 3, 0xC3);
        EXPECT_BYTES(encoded(readOf(name.constData())), expected(name.constData(), 0, 1)) << size;
    }
}

TEST_F(ReadRequest, SendsAnOverlongNameWholeWithATruncatedLengthByteAndPathSize)
{
    const QByteArray name(600, 'n');
    confirm(name.constData(), 3, 0xC3);
    const QByteArray data = wire::unframed(encoded(readOf(name.constData())));
    EXPECT_EQ(static_cast<quint8>(data.at(13)), (2 + 600) / 2 % 256) << "path size";
    EXPECT_EQ(static_cast<quint8>(data.at(15)), 600 % 256) << "length byte";
    EXPECT_EQ(data.mid(16, 600), name);
    EXPECT_BYTES(data.mid(616), hex("01 00 00 00 00 00"));
}

TEST_F(ReadRequest, EncodesACharacterOutsideLatin1As00)
{
    RW_VAR request = readOf("");
    request.tagName = QString(QChar(0x00E4)) + QChar(0x20AC);
    confirm("", 3, 0xC3);
    PLCDataStorage[1].tagInfo[request.tagName] = hex("03 C3 00 FF");
    EXPECT_BYTES(encoded(request), wire::readRequest(0x21, kId, hex("91 02 E4 00"), 1));
}

TEST_F(ReadRequest, WrapsItsSequenceByte)
{
    connectStation(1, kId, 0x01FA);
    confirm("T", 3, 0xC3);
    EXPECT_EQ(encoded(readOf("T")).at(14), 0x01);
}

TEST_F(ReadRequest, DoublesEveryDleOfItsDataAndCountsThemInTheSendLength)
{
    connectStation(1, hex("10 10"), 0x1010);
    confirm("\x10 ab", 3, 0xC3);
    RW_VAR request = readOf("\x10 ab", 16, 16);
    ReadRegister(&request);
    const Protocol& queued = PLC_driver.sendQueue.first();
    EXPECT_BYTES(queued.frame,
                 wire::readRequest(0x1010, hex("10 10"), wire::tagPath("\x10 ab", 16), 16));
    EXPECT_EQ(queued.sendLength, queued.frame.size());
}

TEST_F(ReadRequest, SendsZerosForMissingBytesOfTheConnectionIdentifier)
{
    connectStation(1, QByteArray(), 0x21);
    confirm("T", 3, 0xC3);
    EXPECT_BYTES(encoded(readOf("T")),
                 wire::readRequest(0x21, hex("00 00"), wire::tagPath("T"), 1));
    connectStation(1, hex("77"), 0x21);
    EXPECT_BYTES(encoded(readOf("T")),
                 wire::readRequest(0x21, hex("77 00"), wire::tagPath("T"), 1));
}

TEST_F(ReadRequest, UsesTheFirstTwoBytesOfALongerIdentifier)
{
    connectStation(1, hex("01 02 03 04"), 0x21);
    confirm("T", 3, 0xC3);
    EXPECT_BYTES(encoded(readOf("T")),
                 wire::readRequest(0x21, hex("01 02"), wire::tagPath("T"), 1));
}

TEST_F(ReadRequest, CreatesTheStationThatItNames)
{
    RW_VAR request = readOf("T");
    request.stationNo = 42;
    EXPECT_BYTES(encoded(request), wire::readRequest(0, hex("00 00"), wire::tagPath("T"), 1));
    EXPECT_TRUE(PLCDataStorage.contains(42));
}

TEST_F(ReadRequest, QueuesNothingWithoutARequest)
{
    ReadRegister(nullptr);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
}

TEST_F(ReadRequest, IsQueuedWithoutASettingsRecord)
{
    SetComInfo(nullptr);
    encoded(readOf("T"));
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
}

} // namespace
