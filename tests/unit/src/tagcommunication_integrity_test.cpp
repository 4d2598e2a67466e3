// The CRC, doubling and undoubling of frames, and the integrity check of a reply.

#include "driver_fixture.h"

#include <algorithm>
#include <sys/mman.h>
#include <unistd.h>

using wire::hex;

namespace {

QByteArray doubled(const char* frame)
{
    return getRecoverData(hex(frame), false);
}

QByteArray undoubled(const char* frame)
{
    return getRecoverData(hex(frame), true);
}

int verdictOf(const QByteArray& reply)
{
    return DataIntegrityJudgment(&reply);
}

// A reply of exactly `size` bytes, with data that needs no doubling.
QByteArray replyOfSize(int size)
{
    return wire::framed(QByteArray(size - 8, '\x55'));
}

const char kIdentity[] = "10 06 10 02 00 01 0B 00 01 00 00 00 01 02 20 01 24 01 10 03";

TEST(DataCrc, IsTheCrcOfTheIdentityRequest)
{
    EXPECT_EQ(checkDataCrc(hex(kIdentity)), 0x358Eu);
}

TEST(DataCrc, CoversOnlyTheDataAndTheEtx)
{
    EXPECT_EQ(checkDataCrc(hex("10 06 10 02 41 42 10 03")), wire::crc16Arc(hex("41 42 03")));
    EXPECT_EQ(checkDataCrc(hex("AA 06 BB CC 41 42 DD EE")), wire::crc16Arc(hex("41 42 03")));
}

TEST(DataCrc, SkipsTheTwoStartBytesOfABareFrame)
{
    EXPECT_EQ(checkDataCrc(hex("10 02 41 42 10 03")), wire::crc16Arc(hex("41 42 03")));
}

TEST(DataCrc, CoversEveryByteBeforeTheEndWithoutAHeader)
{
    EXPECT_EQ(checkDataCrc(hex("41 42 43 10 03")), wire::crc16Arc(hex("41 42 43 03")));
    EXPECT_EQ(checkDataCrc(hex("06 10 02 43 10 03")), wire::crc16Arc(hex("06 10 02 43 03")));
}

TEST(DataCrc, CoversOnlyTheEtxOfAFrameWithoutData)
{
    const unsigned int etxOnly = wire::crc16Arc(hex("03"));
    for (const char* frame : {"", "10", "10 03", "10 06", "10 02", "10 06 10", "10 06 10 02",
                              "10 02 10", "10 02 10 03", "10 06 10 02 10", "10 06 10 02 10 03"})
        EXPECT_EQ(checkDataCrc(hex(frame)), etxOnly) << frame;
}

TEST(DataCrc, TreatsDataBytesAsUnsigned)
{
    EXPECT_EQ(checkDataCrc(hex("10 06 10 02 80 FF FE 10 03")), wire::crc16Arc(hex("80 FF FE 03")));
}

TEST(Doubling, DoublesEachDleOfTheData)
{
    EXPECT_BYTES(doubled("10 06 10 02 10 20 10 03 AA BB"), hex("10 06 10 02 10 10 20 10 03 AA BB"));
    EXPECT_BYTES(doubled("10 06 10 02 10 10 10 10 03 AA BB"),
                 hex("10 06 10 02 10 10 10 10 10 10 10 03 AA BB"));
}

TEST(Doubling, DoesNotChangeDataWithoutADle)
{
    EXPECT_BYTES(doubled("10 06 10 02 00 41 10 03 AA BB"), hex("10 06 10 02 00 41 10 03 AA BB"));
}

TEST(Doubling, DoesNotDoubleTheCrc)
{
    EXPECT_BYTES(doubled("10 06 10 02 41 10 03 10 BB"), hex("10 06 10 02 41 10 03 10 BB"));
    EXPECT_BYTES(doubled("10 06 10 02 41 10 03 10 10"), hex("10 06 10 02 41 10 03 10 10"));
}

TEST(Doubling, EndsBeforeTheLastFourBytes)
{
    EXPECT_BYTES(doubled("10 06 10 02 41 10 10 10 10 10"), hex("10 06 10 02 41 10 10 10 10 10 10"));
    EXPECT_BYTES(doubled("10 06 10 02 10 41 42 43 44"), hex("10 06 10 02 10 10 41 42 43 44"));
    EXPECT_BYTES(doubled("10 06 10 02 10 42 43 44"), hex("10 06 10 02 10 42 43 44"));
}

TEST(Doubling, StartsAfterDleAckDleStx)
{
    EXPECT_BYTES(doubled("10 06 10 10 41 42 43 44 45"), hex("10 06 10 10 41 42 43 44 45"));
    EXPECT_BYTES(doubled("10 06 10 10 10 42 43 44 45"), hex("10 06 10 10 10 10 42 43 44 45"));
}

TEST(Doubling, StartsAfterTheFirstTwoBytesOfABareFrame)
{
    EXPECT_BYTES(doubled("10 02 10 41 10 03 AA BB"), hex("10 02 10 10 41 10 03 AA BB"));
    EXPECT_BYTES(doubled("10 10 41 42 43 44 45"), hex("10 10 41 42 43 44 45"));
    EXPECT_BYTES(doubled("41 42 10 42 43 44 45"), hex("41 42 10 10 42 43 44 45"));
}

TEST(Doubling, DoesNotChangeFramesShorterThanHeaderAndTrailer)
{
    for (const char* frame : {"", "10", "10 10", "10 06", "10 10 10", "10 10 10 10",
                              "10 10 10 10 10", "10 02 10 10 10 10", "10 06 10 10 10 10 10 10"})
        EXPECT_BYTES(doubled(frame), hex(frame)) << frame;
}

TEST(Undoubling, ReplacesEachPairOfDlesByOne)
{
    EXPECT_BYTES(undoubled("10 10 10 10"), hex("10 10"));
    EXPECT_BYTES(undoubled("10 10 10"), hex("10 10"));
    EXPECT_BYTES(undoubled("41 10 10 03 10 10"), hex("41 10 03 10"));
}

TEST(Undoubling, TreatsHeaderAndCrcLikeTheData)
{
    EXPECT_BYTES(undoubled("10 10 06 41 10 03 10 10"), hex("10 06 41 10 03 10"));
}

TEST(Undoubling, KeepsALoneDle)
{
    EXPECT_BYTES(undoubled("10"), hex("10"));
    EXPECT_BYTES(undoubled("41 10"), hex("41 10"));
    EXPECT_BYTES(undoubled("10 06 10 02 10 03 AA BB"), hex("10 06 10 02 10 03 AA BB"));
}

TEST(Undoubling, ReturnsNoBytesForNoBytes)
{
    EXPECT_BYTES(undoubled(""), QByteArray());
}

TEST(Undoubling, ReadsNothingAfterTheEndOfAnUnterminatedArray)
{
    const char bytes[] = {0x41, 0x10, 0x10};
    EXPECT_BYTES(getRecoverData(QByteArray::fromRawData(bytes, 2), true), hex("41 10"));
    EXPECT_BYTES(getRecoverData(QByteArray::fromRawData(bytes, 3), true), hex("41 10"));
}

// Bytes at the end of a page, with a forbidden page after it: reading one more byte ends the
// program.
class LastBytes
{
public:
    explicit LastBytes(const QByteArray& bytes)
        : m_page(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
          m_pages(
              mmap(nullptr, 2 * m_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {
        EXPECT_NE(m_pages, MAP_FAILED);
        char* forbidden = static_cast<char*>(m_pages) + m_page;
        EXPECT_EQ(mprotect(forbidden, m_page, PROT_NONE), 0);
        char* begin = forbidden - bytes.size();
        std::copy(bytes.begin(), bytes.end(), begin);
        m_bytes = QByteArray::fromRawData(begin, bytes.size());
    }
    ~LastBytes() { munmap(m_pages, 2 * m_page); }
    LastBytes(const LastBytes&) = delete;
    LastBytes& operator=(const LastBytes&) = delete;
    const QByteArray& operator*() const { return m_bytes; }

private:
    std::size_t m_page;
    void* m_pages;
    QByteArray m_bytes;
};

QByteArray modelDoubled(const QByteArray& frame)
{
    const int first = frame.size() > 1 && frame.at(1) == '\x06' ? 4 : 2;
    QByteArray out;
    for (int i = 0; i < frame.size(); ++i)
        out += QByteArray(frame.at(i) == '\x10' && i >= first && i < frame.size() - 4 ? 2 : 1,
                          frame.at(i));
    return out;
}

TEST(Recovering, ReadsNoByteAfterItsInput)
{
    const QByteArray frame = hex("10 06 10 02 41 10 10 42 10 03 10 10");
    for (int size = 0; size <= frame.size(); ++size) {
        const LastBytes given(frame.left(size));
        EXPECT_BYTES(getRecoverData(*given, true), frame.left(size).replace("\x10\x10", "\x10"));
        EXPECT_BYTES(getRecoverData(*given, false), modelDoubled(frame.left(size)));
    }
    EXPECT_BYTES(getRecoverData(*LastBytes(hex("10")), true), hex("10"));
    EXPECT_BYTES(getRecoverData(*LastBytes(hex("10 10 10")), true), hex("10 10"));
}

TEST(Recovering, DoesNotChangeTheGivenFrame)
{
    const QByteArray frame = hex("10 06 10 02 10 20 10 10 03 AA BB");
    const QByteArray before = hex("10 06 10 02 10 20 10 10 03 AA BB");
    getRecoverData(frame, false);
    getRecoverData(frame, true);
    EXPECT_BYTES(frame, before);
}

TEST(Integrity, AcceptsACompleteReply)
{
    EXPECT_EQ(verdictOf(wire::readReply(0x21, 0xC3, hex("D2 04"))), 1);
    EXPECT_EQ(verdictOf(wire::identityReply(1)), 1);
    EXPECT_EQ(verdictOf(wire::forwardOpenReply(0x10, hex("10 10"))), 1);
}

TEST(Integrity, AcceptsTwentyFourBytesButNotTwentyThree)
{
    EXPECT_EQ(verdictOf(replyOfSize(24)), 1);
    EXPECT_BYTES(replyOfSize(24).mid(20, 2), hex("10 03"));
    EXPECT_EQ(verdictOf(replyOfSize(23)), 0);
    EXPECT_EQ(verdictOf(replyOfSize(25)), 1);
    EXPECT_EQ(verdictOf(QByteArray()), 0);
    EXPECT_EQ(DataIntegrityJudgment(nullptr), 0);
}

TEST(Integrity, FindsNoEndBeforeIndexTwentyOne)
{
    // A frame of 23 bytes, followed by others, has its ETX at index 20.
    EXPECT_EQ(verdictOf(replyOfSize(23) + hex("41 42 43")), 0);
    EXPECT_EQ(verdictOf(replyOfSize(24) + hex("41 42 43")), 1);
}

TEST(Integrity, NeedsBothCrcBytes)
{
    const QByteArray reply = replyOfSize(30);
    EXPECT_EQ(verdictOf(reply.left(29)), 0);
    EXPECT_EQ(verdictOf(reply.left(28)), 0);
    EXPECT_EQ(verdictOf(reply), 1);
}

TEST(Integrity, RejectsAWrongCrc)
{
    QByteArray low = replyOfSize(30);
    low[28] = static_cast<char>(low.at(28) ^ 1);
    EXPECT_EQ(verdictOf(low), 0);
    QByteArray high = replyOfSize(30);
    high[29] = static_cast<char>(high.at(29) ^ 1);
    EXPECT_EQ(verdictOf(high), 0);
    const QByteArray good = replyOfSize(30);
    ASSERT_NE(good.at(28), good.at(29));
    EXPECT_EQ(verdictOf(good.left(28) + good.mid(29, 1) + good.mid(28, 1)), 0);
}

// A reply with the wanted CRC bytes, found by trying all values of its last two data bytes.
QByteArray replyWithCrc(bool (*wanted)(quint8 low, quint8 high))
{
    for (unsigned int i = 0; i < 0x10000; ++i) {
        const QByteArray reply = wire::framed(QByteArray(20, '\x41') + wire::little(i, 2));
        const auto byte = [&](int back) {
            return static_cast<quint8>(reply.at(reply.size() - back));
        };
        if (wanted(byte(2), byte(1)))
            return reply;
    }
    ADD_FAILURE() << "no such reply";
    return QByteArray();
}

TEST(Integrity, ComparesCrcBytesAsUnsigned)
{
    EXPECT_EQ(
        verdictOf(replyWithCrc([](quint8 low, quint8 high) { return low > 127 && high < 128; })),
        1);
    EXPECT_EQ(
        verdictOf(replyWithCrc([](quint8 low, quint8 high) { return low < 128 && high > 127; })),
        1);
    EXPECT_EQ(
        verdictOf(replyWithCrc([](quint8 low, quint8 high) { return low > 127 && high > 127; })),
        1);
}

TEST(Integrity, ComparesTheCrcAsReceivedEvenIfItLooksLikeAPairOfDles)
{
    EXPECT_EQ(
        verdictOf(replyWithCrc([](quint8 low, quint8 high) { return low == 16 && high == 16; })),
        1);
    EXPECT_EQ(
        verdictOf(replyWithCrc([](quint8 low, quint8 high) { return low == 16 && high != 16; })),
        1);
}

TEST(Integrity, ContinuesAfterDataThatLooksLikeAnEnd)
{
    // Data 10 03 is sent as 10 10 03, whose last two bytes look like an end.
    const QByteArray data = QByteArray(20, '\x41') + hex("10 03 42 43 44 45");
    ASSERT_GT(wire::framed(data).indexOf(hex("10 10 03")), 0);
    EXPECT_EQ(verdictOf(wire::framed(data)), 1);
    EXPECT_EQ(verdictOf(wire::framed(QByteArray(20, '\x41') + hex("10 03 10 03 10 03"))), 1);
}

TEST(Integrity, ContinuesAfterAnyNumberOfPlacesThatLookLikeAnEnd)
{
    const QByteArray frame = wire::framed(QByteArray(20, '\x41') + hex("10 03").repeated(1000));
    EXPECT_EQ(frame.count(hex("10 10 03")), 1000);
    EXPECT_EQ(verdictOf(frame), 1);
}

TEST(Integrity, CoversAnyNumberOfDoubledDles)
{
    const QByteArray together = QByteArray(20, '\x41') + QByteArray(1000, '\x10');
    const QByteArray apart = hex("10 41").repeated(1000);
    for (const QByteArray& data : {together, together + hex("03 42 43"), apart}) {
        const QByteArray frame = wire::framed(data);
        EXPECT_EQ(frame.count('\x10'), 2000 + 3) << "two in the header, one in the trailer";
        EXPECT_EQ(verdictOf(frame), 1);
        const QByteArray undoubled = getRecoverData(frame, true);
        EXPECT_BYTES(undoubled.mid(4, data.size()), data);
        EXPECT_BYTES(getRecoverData(undoubled, false), frame);
    }
}

TEST(Integrity, AcceptsDataThatLooksLikeAnEndWhenTheCrcMatches)
{
    // The two bytes after 10 10 03 happen to be the CRC of the bytes before it.
    const QByteArray before = QByteArray(20, '\x41');
    const QByteArray reply = hex("10 06 10 02") + before + hex("10 10 03") +
                             wire::little(wire::crc16Arc(before + hex("03")), 2);
    EXPECT_EQ(verdictOf(reply), 1);
    EXPECT_EQ(verdictOf(reply + hex("42 43 44 10 03 00 00")), 1);
}

TEST(Integrity, CoversTheUndoubledData)
{
    const QByteArray reply = wire::framed(hex("10 41 10 42 10 10 43") + QByteArray(12, '\x10'));
    EXPECT_EQ(verdictOf(reply), 1);
}

TEST(Integrity, AcceptsABareFrameAndIgnoresTheBytesAfterIt)
{
    EXPECT_EQ(verdictOf(wire::framed(QByteArray(18, '\x41')).mid(2)), 1);
    EXPECT_EQ(verdictOf(replyOfSize(40) + hex("10 06 10 02 00")), 1);
}

TEST(Integrity, CoversEveryByteOfAReplyWithoutAHeader)
{
    for (int size : {20, 24, 30}) {
        const QByteArray data(size, '\x41');
        const QByteArray reply =
            data + hex("10 03") + wire::little(wire::crc16Arc(data + hex("03")), 2);
        EXPECT_EQ(verdictOf(reply), 1) << size;
        EXPECT_EQ(verdictOf("B" + reply.mid(1)), 0) << size;
    }
}

TEST(Integrity, ChecksAReplyOfOnlyDlesLikeAnyOther)
{
    // 21 or 22 DLEs before the ETX are ten of the data and the DLE of the DLE ETX.
    const QByteArray crc = wire::little(wire::crc16Arc(hex("10 10 10 10 10 10 10 10 10 10 03")), 2);
    for (int dles : {21, 22}) {
        EXPECT_EQ(verdictOf(QByteArray(dles, '\x10') + '\x03' + crc), 1) << dles;
        EXPECT_EQ(verdictOf(QByteArray(dles, '\x10') + '\x03' + hex("00 00")), 0) << dles;
    }
}

TEST(Integrity, RejectsABrokenFrameFollowedByAGoodOne)
{
    const QByteArray broken = hex("10 06 10 02") + QByteArray(20, '\x41') + hex("10 03 00 00");
    EXPECT_EQ(verdictOf(broken), 0);
    EXPECT_EQ(verdictOf(broken + replyOfSize(30)), 0);
}

TEST(Integrity, DetectsEverySingleFlippedBitAfterTheHeader)
{
    const QByteArray reply = wire::readReply(0x21, 0xC4, hex("01 02 03 04 05 06 07 08"));
    for (int bit = 4 * 8; bit < reply.size() * 8; ++bit) {
        QByteArray damaged = reply;
        damaged[bit / 8] = static_cast<char>(damaged.at(bit / 8) ^ (1 << bit % 8));
        EXPECT_EQ(verdictOf(damaged), 0) << "bit " << bit;
    }
}

TEST(Integrity, DetectsEverySingleLostByteExceptTheAck)
{
    const QByteArray reply = wire::readReply(0x21, 0xC4, hex("01 02 03 04 05 06 07 08"));
    for (int i = 2; i < reply.size(); ++i)
        EXPECT_EQ(verdictOf(QByteArray(reply).remove(i, 1)), 0) << "byte " << i;
    EXPECT_EQ(verdictOf(QByteArray(reply).remove(0, 1)), 0);
    // Without the ACK the first two DLEs are a pair, so the rest is a bare frame.
    EXPECT_EQ(verdictOf(QByteArray(reply).remove(1, 1)), 1);
}

TEST(Integrity, ReadsNoByteAfterTheGivenLength)
{
    const QByteArray reply = wire::readReply(0x10, 0xC4, hex("10 10 03 10 10 03 10 03"));
    for (int size = 0; size <= reply.size(); ++size) {
        const LastBytes given(reply.left(size));
        EXPECT_EQ(verdictOf(*given), size == reply.size() ? 1 : 0) << size;
        checkDataCrc(*given);
    }
    for (int dles : {22, 23, 24, 25})
        EXPECT_EQ(verdictOf(*LastBytes(QByteArray(dles, '\x10'))), 0);
}

} // namespace
