// Compares the checks of frame integrity with small models, for frames of every kind.

#include "driver_fixture.h"
#include "frame_model.h"

#include <rapidcheck/gtest.h>

#include <vector>

using wire::hex;

namespace {

// ---- Generators --------------------------------------------------------------------------------

// Random bytes in which the control bytes of frames are frequent.
rc::Gen<QByteArray> anyBytes()
{
    const auto byte = rc::gen::weightedOneOf<char>(
        {{3, rc::gen::element('\x10', '\x03', '\x06', '\x02')}, {3, rc::gen::arbitrary<char>()}});
    return rc::gen::map(rc::gen::container<std::vector<char>>(byte),
                        [](const std::vector<char>& bytes) {
                            return QByteArray(bytes.data(), static_cast<int>(bytes.size()));
                        });
}

// A reply that is long enough to be checked.
rc::Gen<QByteArray> anyReply()
{
    return rc::gen::map(anyBytes(), [](const QByteArray& bytes) {
        return wire::framed(QByteArray(16, '\x41') + bytes);
    });
}

int verdictOf(const QByteArray& reply)
{
    return DataIntegrityJudgment(&reply);
}

// ---- Properties --------------------------------------------------------------------------------

RC_GTEST_PROP(DoublingAnyFrame, FollowsTheModel, ())
{
    const QByteArray head = *rc::gen::element(hex("10 06 10 02"), hex("10 02"), QByteArray());
    const QByteArray frame = head + *anyBytes();
    RC_ASSERT(getRecoverData(frame, false) == frame_model::doubled(frame));
}

RC_GTEST_PROP(UndoublingAnyBytes, FollowsTheModel, ())
{
    const QByteArray bytes = *anyBytes();
    RC_ASSERT(getRecoverData(bytes, true) == frame_model::undoubled(bytes));
}

RC_GTEST_PROP(UndoublingADoubledFrame, RestoresTheFrame, ())
{
    // The CRC is not doubled, so a CRC that looks like a pair of DLEs cannot be restored.
    const QByteArray crc = wire::little(*rc::gen::arbitrary<quint16>(), 2);
    RC_PRE(crc != hex("10 10"));
    const QByteArray frame = hex("10 06 10 02") + *anyBytes() + hex("10 03") + crc;
    RC_ASSERT(getRecoverData(getRecoverData(frame, false), true) == frame);
}

RC_GTEST_PROP(DataCrcOfAnyBytes, FollowsTheModel, ())
{
    const QByteArray head = *rc::gen::element(hex("10 06 10 02"), hex("10 02"), QByteArray());
    const QByteArray frame = head + *anyBytes();
    RC_ASSERT(checkDataCrc(frame) == frame_model::crcOf(frame));
}

RC_GTEST_PROP(CheckingAFramedReply, AcceptsIt, ())
{
    RC_ASSERT(verdictOf(*anyReply()) == 1);
}

RC_GTEST_PROP(CheckingAnyBytes, FollowsTheModel, ())
{
    const QByteArray bytes = hex("10 06 10 02") + QByteArray(15, '\x41') + *anyBytes();
    RC_ASSERT(verdictOf(bytes) == frame_model::verdict(bytes));
}

RC_GTEST_PROP(CheckingADamagedReply, FollowsTheModel, ())
{
    QByteArray reply = *anyReply();
    const int at = *rc::gen::inRange(0, reply.size());
    switch (*rc::gen::inRange(0, 3)) {
    case 0:
        reply.remove(at, 1);
        break;
    case 1:
        reply.insert(at, *rc::gen::arbitrary<char>());
        break;
    default:
        reply[at] = *rc::gen::arbitrary<char>();
        break;
    }
    RC_ASSERT(verdictOf(reply) == frame_model::verdict(reply));
}

RC_GTEST_PROP(CheckingAReplyWithAFlippedBit, RejectsIt, ())
{
    // There is no DLE in the data before and after the damage, so the length does not change and no
    // other end appears. A CRC detects every single flipped bit.
    QByteArray data = *anyBytes();
    data = QByteArray(16, '\x41') + data.replace(hex("10"), hex("11"));
    const QByteArray reply = wire::framed(data);
    const int bit = *rc::gen::inRange(4 * 8, reply.size() * 8);
    QByteArray damaged = reply;
    damaged[bit / 8] = static_cast<char>(damaged.at(bit / 8) ^ (1 << bit % 8));
    RC_PRE(!damaged.mid(4, data.size()).contains('\x10'));
    RC_ASSERT(verdictOf(damaged) == 0);
}

RC_GTEST_PROP(CheckingATruncatedReply, RejectsIt, ())
{
    QByteArray data = *anyBytes();
    data = QByteArray(16, '\x41') + data.replace(hex("10"), hex("11"));
    const QByteArray reply = wire::framed(data);
    RC_ASSERT(verdictOf(reply.left(*rc::gen::inRange(0, reply.size()))) == 0);
}

} // namespace
