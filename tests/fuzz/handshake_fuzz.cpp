// The connection set-up with arbitrary replies, counters, times of day and steps, through the
// dispatcher as a host calls it, and directly through the check of a reply.

#include "driver_state.h"
#include "exact_bytes.h"
#include "fuzz_input.h"
#include "wire.h"

namespace {

const int kLongestSession = 16;

enum Answer { kIdentity, kForwardOpen, kRawBytes, kNothing, kNullReply, kCutShort, kAnswers };

QByteArray answerBytes(FuzzInput& input, int kind)
{
    switch (kind) {
    case kIdentity:
        return wire::identityReply(input.word());
    case kForwardOpen: {
        const quint16 number = input.word();
        return wire::forwardOpenReply(number, input.bytes(2).leftJustified(2, '\0'));
    }
    case kRawBytes:
        return input.block();
    case kCutShort: {
        const QByteArray whole = wire::forwardOpenReply(input.word(), wire::hex("10 03"));
        return whole.left(input.below(60));
    }
    default:
        return QByteArray();
    }
}

bool endsAsFrame(const QByteArray& reply)
{
    return reply.size() >= 4 && reply.mid(reply.size() - 4, 2) == wire::hex("10 03");
}

quint16 advanced(quint16 counter)
{
    return static_cast<quint16>(counter == 0xFFFF ? 1 : counter + 1);
}

// The frame in flight is one of the two requests and has the number in the station's record.
void checkInFlight(int station, int step)
{
    const QList<Protocol>& queue = PLC_driver.sendQueue;
    const QByteArray data = wire::unframed(queue.first().frame);
    const quint16 counter = PLCDataStorage[station].transactionCounter;
    if (step == 0) {
        FUZZ_CHECK(queue.size() == 2);
        FUZZ_CHECK(data == wire::identityRequest(counter));
    } else {
        FUZZ_CHECK(queue.size() == 1 && step == 1);
        const QByteArray serial = data.mid(28, 3).leftJustified(4, '\0');
        FUZZ_CHECK(data ==
                   wire::forwardOpenRequest(
                       counter, static_cast<quint32>(static_cast<quint8>(serial.at(0)) |
                                                     static_cast<quint8>(serial.at(1)) << 8 |
                                                     static_cast<quint8>(serial.at(2)) << 16)));
    }
}

/// The set-up of one station; the fuzzer acts as the controller.
class SetUp
{
public:
    explicit SetUp(FuzzInput& input) : m_input(input), m_settings(), m_step(0), m_refused(0)
    {
        fuzz::resetDriver(m_settings);
        m_station = m_input.flag() ? m_input.edge() : m_input.byte();
        PLCDataStorage[m_station].transactionCounter = m_input.word();
        fuzz::setTimeOfDay(m_input.word());
        HandshakeFunction(m_station);
    }

    void run()
    {
        for (int i = 0; i < kLongestSession && !m_input.atEnd(); ++i) {
            if (PLC_driver.sendQueue.isEmpty()) {
                if (PLCDataStorage[m_station].handshakeDone)
                    return;
                m_step = m_refused = 0;
                HandshakeFunction(m_station);
            }
            checkInFlight(m_station, m_step);
            answer();
            fuzz::checkLocksFree();
            fuzz::checkConsistent();
        }
    }

private:
    void answer()
    {
        const int kind = m_input.below(kAnswers);
        fuzz::ExactBytes exact(answerBytes(m_input, kind));
        QByteArray& reply = exact.bytes;
        const bool good = kind != kNullReply && endsAsFrame(reply);
        const PLCTAGCOMMUNICATION before = PLCDataStorage[m_station];
        const RW_VAR* result = DataCom(kind == kNullReply ? nullptr : &reply, m_input.count());
        FUZZ_CHECK(result == &PLC_driver.result);
        FUZZ_CHECK(result->retValue == (good ? 1 : 201));
        const PLCTAGCOMMUNICATION& after = PLCDataStorage[m_station];
        FUZZ_CHECK(after.transactionCounter == advanced(before.transactionCounter));
        FUZZ_CHECK(after.connectionId.size() - before.connectionId.size() ==
                   (good && m_step == 1 ? 2 : 0));
        good ? accepted() : refused();
        FUZZ_CHECK(after.handshakeDone == (m_step == 2));
    }

    void accepted()
    {
        ++m_step;
        m_refused = 0;
        FUZZ_CHECK(m_settings.framesAnswered == m_step);
        FUZZ_CHECK(PLC_driver.sendQueue.size() == 2 - m_step);
    }

    // A refused Identity reply ends the attempt, a refused connection reply only the fourth time.
    void refused()
    {
        const bool ends = m_step == 0 || ++m_refused == 4;
        FUZZ_CHECK(PLC_driver.sendQueue.isEmpty() == ends);
    }

    FuzzInput& m_input;
    ComInfo m_settings;
    int m_station;
    int m_step;
    int m_refused;
};

// The check of a reply, with a queue, a step and frames that no set-up produces.
void checkOutOfOrder(FuzzInput& input)
{
    ComInfo settings;
    fuzz::resetDriver(settings);
    settings.framesAnswered = input.count();
    const int station = input.byte();
    for (int i = input.below(4); i > 0; --i) {
        RW_VAR request = RW_VAR();
        request.stationNo = station;
        QByteArray bytes = input.flag() ? wire::framed(input.block()) : input.block();
        const int replyLength = input.edge();
        const int auxLength = input.edge();
        driverstate::queue(bytes, replyLength, auxLength, request);
    }
    const bool queued = !PLC_driver.sendQueue.isEmpty();
    if (input.below(8) == 0)
        PLC_driver.comInfo = nullptr;
    const fuzz::ExactBytes exact(input.block());
    const QByteArray& reply = exact.bytes;
    const int verdict = HandshakeFunctionCheck(&reply);
    FUZZ_CHECK(verdict == (queued && endsAsFrame(reply) ? 1 : 0));
    if (queued) {
        FUZZ_CHECK(PLCDataStorage[station].transactionCounter == 1);
        const unsigned short transaction = tagstore::transactionOf(station);
        QByteArray& request = PLC_driver.sendQueue.first().frame;
        if (input.flag())
            connection::renew(request, transaction);
        else
            connection::renumber(request, transaction);
    }
    fuzz::checkLocksFree();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    FuzzInput input(bytes, size);
    if (input.flag())
        checkOutOfOrder(input);
    else
        SetUp(input).run();
    return 0;
}
