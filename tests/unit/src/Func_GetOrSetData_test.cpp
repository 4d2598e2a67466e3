#include "driver_fixture.h"

using wire::hex;

namespace {

class SetValue : public DriverTest
{
protected:
    int set(const char* name, const QByteArray& value, const char* address = "3", int count = 2,
            int station = 4)
    {
        return SetRegisterData(QString::fromLatin1(name), 5, QString::fromLatin1(address), station,
                               value, count, 11, 12);
    }
};

TEST_F(SetValue, QueuesARequestWithEveryFieldSet)
{
    declareIndexed("T");
    settings.remoteMode = 14;
    settings.localLink = 15;
    EXPECT_EQ(set("T", "ab"), 1);
    const RW_VAR& queued = PLC_driver.writeList.first();
    EXPECT_EQ(queued.varType, 11);
    EXPECT_EQ(queued.varIndex, 12);
    EXPECT_EQ(queued.accessMode, 1);
    EXPECT_EQ(queued.hostField3, 14);
    EXPECT_EQ(queued.linkId, 15);
    EXPECT_EQ(queued.tagName, QString("T"));
    EXPECT_EQ(queued.addressText, QString("3"));
    EXPECT_EQ(queued.areaType, 5);
    EXPECT_EQ(queued.startAddress, 3);
    EXPECT_EQ(queued.stationNo, 4);
    EXPECT_EQ(queued.count, 2);
    EXPECT_EQ(queued.reqFlag, 1);
    EXPECT_EQ(queued.onceFlag, 2);
    EXPECT_EQ(queued.data, QByteArray("ab"));
    EXPECT_BYTES(PLCDataStorage[4].tagInfo.value("T"), hex("FF 00 00 00"));
}

TEST_F(SetValue, WritesOneElementAtIndexZeroOutsideTheCatalogue)
{
    set("T", "ab");
    const RW_VAR& queued = PLC_driver.writeList.first();
    EXPECT_EQ(queued.startAddress, 0);
    EXPECT_EQ(queued.count, 1);
    EXPECT_EQ(queued.reqFlag, 0);
}

TEST_F(SetValue, UsesTheDefaultStationInSingleStationMode)
{
    settings.multiStation = 0;
    settings.defaultStation = 6;
    set("T", "ab");
    EXPECT_EQ(PLC_driver.writeList.first().stationNo, 6);
}

TEST_F(SetValue, UsesTheHostsStationInEveryMultiStationMode)
{
    settings.defaultStation = 6;
    for (int mode : {1, 2, -1}) {
        settings.multiStation = mode;
        set("T", "ab");
        EXPECT_EQ(PLC_driver.writeList.last().stationNo, 4) << mode;
    }
}

TEST_F(SetValue, SeedsTheTagInEveryWriteMode)
{
    settings.writeMode = 0;
    EXPECT_EQ(set("T", "ab"), 1);
    EXPECT_BYTES(PLCDataStorage[4].tagInfo.value("T"), hex("FF 00 00 00"));
}

TEST_F(SetValue, DropsTheWriteSilentlyWhenTheQueueIsFull)
{
    declareIndexed("T");
    RW_VAR other = writeOf("other", "x");
    for (int i = 0; i < 1024; ++i)
        AddListWriteVar(&other, 1);
    EXPECT_EQ(set("T", "ab"), 1024);
    EXPECT_EQ(PLC_driver.writeList.size(), 1024);
    EXPECT_EQ(PLC_driver.writeList.last().tagName, QString("other"));
}

TEST_F(SetValue, QueuesNothingInWriteModesOtherThanTwo)
{
    for (int mode : {0, 1, 3, -2}) {
        settings.writeMode = mode;
        EXPECT_EQ(set("T", "ab"), 1);
        EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    }
    SetComInfo(nullptr);
    EXPECT_EQ(set("T", "ab"), 1);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(SetValue, ReplacesAQueuedWriteAfterTheHeadAndReturnsTheLength)
{
    declareIndexed("T");
    EXPECT_EQ(set("T", "1"), 1);
    EXPECT_EQ(set("T", "2"), 2);
    EXPECT_EQ(set("T", "3"), 2);
    EXPECT_EQ(PLC_driver.writeList[1].data, QByteArray("3"));
    EXPECT_EQ(set("T", "4", "9"), 3);
}

TEST_F(SetValue, QueuesAWriteAfterAFailureToo)
{
    PLC_driver.errorFlag = true;
    EXPECT_EQ(set("T", "1"), 1);
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
}

class GetValue : public DriverTest
{
protected:
    GetValue() { connectStation(); }

    /// Stores a value, as a reply does.
    void put(const char* name, quint8 typeClass, const char* image)
    {
        confirm(name, typeClass, 0xC3);
        PLCDataStorage[1].tagData[QString::fromLatin1(name)] = hex(image);
    }
    int get(const char* name, int element, int count)
    {
        out = "old bytes";
        return GetRegisterData(QString::fromLatin1(name), 123, QString::number(element), 1, out,
                               count);
    }

    QByteArray out;
};

struct LayoutRow
{
    quint8 typeClass;
    int element;
    int count;
    const char* image;
    const char* expected;
};

std::ostream& operator<<(std::ostream& out, const LayoutRow& row)
{
    return out << "class " << int(row.typeClass) << ", " << row.count << " from " << row.element
               << " of " << row.image;
}

class HostLayout : public GetValue, public ::testing::WithParamInterface<LayoutRow>
{
};

TEST_P(HostLayout, FollowsTheClass)
{
    const LayoutRow& row = GetParam();
    declareIndexed("T");
    put("T", row.typeClass, row.image);
    EXPECT_EQ(get("T", row.element, row.count), 1);
    EXPECT_BYTES(out, hex(row.expected));
}

INSTANTIATE_TEST_SUITE_P(
    EveryClass, HostLayout,
    ::testing::Values(
        LayoutRow{0, 0, 3, "01 00 01 01", "01 00 01"}, LayoutRow{0, 2, 2, "01 00 01", "01 00"},
        LayoutRow{1, 0, 2, "41 42 43 44 45", "41 42 43 44"},
        LayoutRow{1, 3, 1, "41 42 43 44 45", "44 45"},
        LayoutRow{1, 0, 3, "41", "41 00 00 00 00 00"}, LayoutRow{2, 0, 2, "7F 80", "7F 00 80 00"},
        LayoutRow{2, 1, 1, "7F 80", "80 00"}, LayoutRow{2, 1, 3, "7F 80", "80 00 00 00 00 00"},
        LayoutRow{2, 2, 1, "7F 80", "00 00"}, LayoutRow{0, 3, 1, "01 00 01", "00"},
        LayoutRow{1, 6, 1, "41 42 43 44 45", "00 00"}, LayoutRow{3, 1, 1, "01 02 03 04", "03 04"},
        LayoutRow{3, 0, 2, "01 02 03 04", "01 02 03 04"},
        LayoutRow{3, 1, 2, "01 02 03", "03 00 00 00"},
        LayoutRow{4, 3, 2, "00 00 00 00 00 00 00 00 00 00 00 00 0A 0B 0C 0D", "0A 0B 0C 0D"},
        LayoutRow{4, 0, 3, "01 02 03 04 05 06 07 08", "01 02 03 04 05 06 07 08"},
        LayoutRow{4, 0, 1, "01 02 03 04", "01 02 03 04"},
        LayoutRow{4, 9, 2, "01 02 03 04", "00 00 00 00"},
        LayoutRow{5, 0, 1, "01 02 03 04 05 06 07 08", "01 02 03 04 05 06 07 08"},
        LayoutRow{5, 1, 4, "01 02 03 04 05 06 07 08 09", "09 00 00 00 00 00 00 00"},
        LayoutRow{5, 0, 5, "01", "01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"},
        LayoutRow{6, 0, 4, "01 02 03 04", ""}, LayoutRow{0xFF, 0, 4, "01 02 03 04", ""},
        // A count of 0 or less, and an impossible count, read nothing.
        LayoutRow{3, 0, 0, "01 02", ""}, LayoutRow{3, 0, -1, "01 02", ""},
        LayoutRow{4, 0, -2, "01 02", ""}, LayoutRow{1, 0, -2, "41", ""},
        LayoutRow{3, 0, std::numeric_limits<int>::max(), "01 02", ""},
        // An index before or far after the value reads zeros.
        LayoutRow{3, -1, 1, "01 02", "00 00"},
        LayoutRow{5, 1 << 29, 1, "01 02", "00 00 00 00 00 00 00 00"}));

TEST_F(GetValue, ReturnsOneElementAtIndexZeroOutsideTheCatalogue)
{
    put("T", 3, "01 02 03 04");
    EXPECT_EQ(get("T", 1, 9), 1);
    EXPECT_BYTES(out, hex("01 02"));
}

TEST_F(GetValue, ReturnsOneElementOfAnyClassOutsideTheCatalogue)
{
    const std::pair<int, const char*> rows[] = {
        {0, "01"}, {2, "01 00"}, {4, "01 02 03 04"}, {5, "01 02 03 04 05 06 07 08"}};
    for (const auto& [typeClass, expected] : rows) {
        put("T", static_cast<quint8>(typeClass), "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F");
        EXPECT_EQ(get("T", 1, 9), 1);
        EXPECT_BYTES(out, hex(expected));
    }
}

TEST_F(GetValue, ReturnsTwiceTheHostsCountOfAStringOutsideTheCatalogueToo)
{
    put("T", 1, "41 42 43 44 45");
    EXPECT_EQ(get("T", 1, 2), 1);
    EXPECT_BYTES(out, hex("41 42 43 44"));
}

TEST_F(GetValue, ReturnsNoBytesForZeroCharactersOfAString)
{
    put("T", 1, "41 42 43 44 45");
    EXPECT_EQ(get("T", 1, 0), 1);
    EXPECT_BYTES(out, QByteArray());
}

TEST_F(GetValue, ReturnsAsManyWordsAsTheHostAsksFor)
{
    const int words = 1000000;
    declareIndexed("T");
    put("T", 3, "01 02");
    const QByteArray image = hex("03 04 05 06").repeated(words / 2);
    PLCDataStorage[1].tagData["T"] = image;
    EXPECT_EQ(get("T", 0, words), 1);
    EXPECT_TRUE(out == image);
    put("T", 2, "01");
    PLCDataStorage[1].tagData["T"] = image.left(words);
    EXPECT_EQ(get("T", 0, words), 1);
    EXPECT_TRUE(out == hex("03 00 04 00 05 00 06 00").repeated(words / 4));
    put("T", 1, "01");
    PLCDataStorage[1].tagData["T"] = image;
    EXPECT_EQ(get("T", 0, words), 1);
    EXPECT_TRUE(out == image);
    EXPECT_EQ(get("unknown", 0, words), 0);
    EXPECT_TRUE(out == QByteArray(2 * words, '\0'));
}

TEST_F(GetValue, ReturnsTwiceTheCountOfZerosWhileTheStationIsNotConnected)
{
    put("T", 0, "01");
    setHandshakeInformation(1, false);
    EXPECT_EQ(get("T", 0, 3), 0);
    EXPECT_BYTES(out, hex("00 00 00 00 00 00"));
}

TEST_F(GetValue, ReturnsTwiceTheCountOfZerosForATagWithoutAValue)
{
    EXPECT_EQ(get("T", 0, 2), 0);
    EXPECT_BYTES(out, hex("00 00 00 00"));
    EXPECT_EQ(get("T", 0, -2), 0);
    EXPECT_TRUE(out.isEmpty());
    EXPECT_EQ(get("T", 0, std::numeric_limits<int>::max()), 0);
    EXPECT_TRUE(out.isEmpty());
}

TEST_F(GetValue, ReturnsNoBytesForAnEntryThatIsOnlySeeded)
{
    declareIndexed("T");
    PLCDataStorage[1].tagData["T"] = hex("01 02");
    EXPECT_EQ(get("T", 0, 2), 1);
    EXPECT_TRUE(out.isEmpty());
}

TEST_F(GetValue, SeedsAnUnconfirmedEntryAndKeepsAConfirmedOne)
{
    PLCDataStorage[1].tagInfo["T"] = hex("03 C3 00 00");
    get("T", 0, 1);
    EXPECT_BYTES(PLCDataStorage[1].tagInfo.value("T"), hex("FF 00 00 00"));
    put("U", 3, "01 02");
    get("U", 0, 1);
    EXPECT_BYTES(PLCDataStorage[1].tagInfo.value("U"), hex("03 C3 00 FF"));
}

TEST_F(GetValue, SeedsTheTagOfAStationThatIsNotConnectedToo)
{
    setHandshakeInformation(1, false);
    PLCDataStorage[1].tagInfo["T"] = hex("03 C3 00 00");
    EXPECT_EQ(get("T", 0, 1), 0);
    EXPECT_BYTES(PLCDataStorage[1].tagInfo.value("T"), hex("FF 00 00 00"));
    EXPECT_EQ(GetRegisterData("U", 0, "0", 9, out, 1), 0);
    EXPECT_BYTES(PLCDataStorage[9].tagInfo.value("U"), hex("FF 00 00 00"));
}

TEST_F(GetValue, DoesNotChangeTheStoredValue)
{
    declareIndexed("T");
    put("T", 4, "01 02 03 04 05");
    EXPECT_EQ(get("T", 1, 4), 1);
    EXPECT_BYTES(out, hex("05 00 00 00 00 00 00 00"));
    EXPECT_BYTES(PLCDataStorage[1].tagData.value("T"), hex("01 02 03 04 05"));
    EXPECT_EQ(get("U", 1, 4), 0);
    EXPECT_FALSE(PLCDataStorage[1].tagData.contains("U"));
}

TEST_F(GetValue, ReadsTheGivenStation)
{
    settings.multiStation = 0;
    settings.defaultStation = 1;
    put("T", 3, "01 02");
    QByteArray other;
    EXPECT_EQ(GetRegisterData("T", 0, "0", 2, other, 1), 0);
    EXPECT_EQ(PLCDataStorage[2].transactionCounter, 0) << "the lookup created the station";
    EXPECT_EQ(GetRegisterData("T", 0, "0", 1, other, 1), 1);
}

TEST_F(GetValue, WorksWhileTheListLockIsHeldAndReleasesTheValueLock)
{
    put("T", 3, "01 02");
    PLC_driver.listMutex.lock();
    EXPECT_EQ(get("T", 0, 1), 1);
    EXPECT_TRUE(isFree(PLC_driver.dataMutex));
    setHandshakeInformation(1, false);
    EXPECT_EQ(get("T", 0, 1), 0);
    EXPECT_TRUE(isFree(PLC_driver.dataMutex));
    PLC_driver.listMutex.unlock();
}

TEST_F(GetValue, IgnoresItsSecondArgument)
{
    put("T", 3, "01 02");
    for (int ignored : {std::numeric_limits<int>::min(), -1, 0, 1, std::numeric_limits<int>::max()})
    {
        EXPECT_EQ(GetRegisterData("T", ignored, "0", 1, out, 1), 1);
        EXPECT_BYTES(out, hex("01 02"));
    }
}

TEST_F(GetValue, WorksWithoutSettings)
{
    put("T", 3, "01 02");
    SetComInfo(nullptr);
    EXPECT_EQ(get("T", 0, 1), 1);
}

TEST_F(GetValue, IsAlwaysFinished)
{
    EXPECT_EQ(QueryFinishFlag(), 1);
    RW_VAR request = readOf("T");
    WriteDataToLocal(&request);
    WriteDataToLocal(nullptr);
    EXPECT_EQ(request.tagName, QString("T"));
}

} // namespace
